// Taking in request bodies: into a blob while its digests are computed, or
// into memory for the small documents. Runs in the coroutine of the exchange.
#pragma once

#include <string>

#include "operations.h"

namespace zorvan::devstore {

/// A body that arrived whole and passed its checks.
struct received {
    content body;
    std::string md5;  ///< raw
};

/// Streams the body of a PUT into a blob. Before the first byte is read: MissingContentLength,
/// EntityTooLarge, InvalidDigest. After the last: BadDigest, XAmzContentSHA256Mismatch,
/// SignatureDoesNotMatch, IncompleteBody.
boost::asio::awaitable<received> receive_blob(exchange& x);

/// Reads a document of at most 8 MiB, with the same checks.
boost::asio::awaitable<std::string> receive_text(exchange& x);

}  // namespace zorvan::devstore
