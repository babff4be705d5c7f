// The operations of the store, one function each. Every one gets the exchange
// after the caller was verified, checks what can be checked from the head
// before it reads the body (reading answers "Expect: 100-continue"), and
// returns the reply or throws s3_failure. Source: Amazon S3 API reference; where
// the RADOS Gateway behaves differently, it is followed unless settings::aws.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <string>

#include "auth_sigv4.h"
#include "body_reader.h"
#include "http_message.h"
#include "store.h"

namespace zorvan::devstore {

using reply = boost::asio::awaitable<http_response>;

/// One request in work. Borrowed by the operations; lives in the router's coroutine.
struct exchange {
    store& data;
    const http_request& request;
    body_reader& body;
    authentication auth;
    std::string bucket;
    std::string key;

    /// The caller's uid; empty for an anonymous one, who owns nothing.
    [[nodiscard]] std::string uid() const { return auth.caller ? auth.caller->uid : std::string(); }
};

reply list_buckets(exchange& x);
reply create_bucket(exchange& x);
reply head_bucket(exchange& x);
reply delete_bucket(exchange& x);
reply bucket_location(exchange& x);
reply bucket_versioning(exchange& x);
reply list_objects(exchange& x);
reply list_objects_v2(exchange& x);
reply delete_objects(exchange& x);

reply put_object(exchange& x);
reply get_object(exchange& x);  ///< GET and HEAD
reply delete_object(exchange& x);
reply copy_object(exchange& x);
reply restore_object(exchange& x);

reply create_upload(exchange& x);
reply upload_part(exchange& x);
reply upload_part_copy(exchange& x);
reply complete_upload(exchange& x);
reply abort_upload(exchange& x);
reply list_parts(exchange& x);
reply list_uploads(exchange& x);

/// The user administration: paths below settings::admin_entry.
reply admin_request(exchange& x, std::string_view resource);

/// Reads a request's object attributes; throws InvalidArgument for an unknown storage class.
object_attributes attributes_from(const http_request& request, const settings& config);
/// Checks If-Match and its kind of headers, whose names begin with `prefix` ("" or "x-amz-copy-source-"),
/// against an object. Throws PreconditionFailed; NotModified only for plain reads.
void check_conditions(const http_request& request, const object_record& object, std::string_view prefix);
/// Checks If-Match and If-None-Match of a write against what is stored now (null: nothing). Throws
/// PreconditionFailed.
void check_write_conditions(const http_request& request, const object_record* current);
/// Throws InvalidObjectState when an object lies in an archive and no restored copy is there.
void check_readable(const store& data, const object_record& object);
/// The x-amz-archive-status header's value: empty unless the object lies in an archive tier of
/// INTELLIGENT_TIERING.
std::string_view archive_tier(const store& data, const object_record& object);
/// The x-amz-restore header's value, empty when there is none.
std::string restore_header(const store& data, const object_record& object);
/// Quotes an ETag.
std::string quoted(std::string_view etag);
/// The storage class as listings show it.
std::string_view shown_class(const object_attributes& attributes);

}  // namespace zorvan::devstore
