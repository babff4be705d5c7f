// From a request's head to its operation: address (path or virtual-host
// style), signature, operation, and the error document when one refuses.
#pragma once

#include "operations.h"

namespace zorvan::devstore {

/// Handles one request. Throws nothing but connection_lost: refusals become replies.
boost::asio::awaitable<http_response> handle(store& data, const http_request& request, body_reader& body);

/// Counts a request whose address has a bucket and no key, HEAD excepted.
void note_bucket_request(store& data, const http_request& request);

/// A new request id in the gateway's form, unique within the process.
std::string new_request_id(store& data);

}  // namespace zorvan::devstore
