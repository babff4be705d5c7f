// The table of error codes. Texts are sent only in the AWS-like mode: the
// RADOS Gateway leaves the message empty.
#include "errors.h"

#include <algorithm>
#include <array>

namespace zorvan::devstore {
namespace {

constexpr auto table = std::to_array<error_entry>({
    {"AccessDenied", 403, "Access Denied"},
    {"AuthorizationHeaderMalformed", 400, "The authorization header you provided is invalid."},
    {"BadDigest", 400, "The Content-MD5 you specified did not match what we received."},
    {"BucketAlreadyExists", 409, "The requested bucket name is not available."},
    {"BucketNotEmpty", 409, "The bucket you tried to delete is not empty."},
    {"EntityTooLarge", 400, "Your proposed upload exceeds the maximum allowed size."},
    {"EntityTooSmall", 400, "Your proposed upload is smaller than the minimum allowed size."},
    {"IncompleteBody", 400, "You did not provide the number of bytes given by the Content-Length header."},
    {"InternalError", 500, "We encountered an internal error. Please try again."},
    {"InvalidAccessKeyId", 403, "The access key you provided does not exist in our records."},
    {"InvalidArgument", 400, "Invalid argument."},
    {"InvalidBucketName", 400, "The specified bucket is not valid."},
    {"InvalidDigest", 400, "The Content-MD5 you specified is not valid."},
    {"InvalidLocationConstraint", 400, "The specified location constraint is not valid."},
    {"InvalidObjectState", 403, "The operation is not valid for the object's storage class."},
    {"InvalidPart", 400, "One or more of the specified parts could not be found."},
    {"InvalidPartOrder", 400, "The list of parts was not in ascending order."},
    {"InvalidRange", 416, "The requested range is not satisfiable."},
    {"InvalidRequest", 400, "The request is not valid."},
    {"InvalidURI", 400, "Couldn't parse the specified URI."},
    {"KeyTooLongError", 400, "Your key is too long."},
    {"MalformedXML", 400, "The XML you provided was not well-formed or did not validate."},
    {"MethodNotAllowed", 405, "The specified method is not allowed against this resource."},
    {"MissingContentLength", 411, "You must provide the Content-Length HTTP header."},
    {"NoSuchBucket", 404, "The specified bucket does not exist."},
    {"NoSuchKey", 404, "The specified key does not exist."},
    {"NoSuchUpload", 404, "The specified multipart upload does not exist."},
    {"NoSuchUser", 404, "The specified user does not exist."},
    {"NotImplemented", 501, "A header or query you provided asks for something that is not implemented."},
    {"NotModified", 304, "Not Modified"},
    {"PermanentRedirect", 301, "The bucket must be addressed using its own endpoint."},
    {"PreconditionFailed", 412, "At least one of the preconditions you specified did not hold."},
    {"RequestTimeTooSkewed", 403,
     "The difference between the request time and the server's time is too large."},
    {"RequestTimeout", 400, "Your socket connection was not read from or written to within the time limit."},
    {"RestoreAlreadyInProgress", 409, "Object restore is already in progress."},
    {"ServiceUnavailable", 503, "Please reduce your request rate."},
    {"SignatureDoesNotMatch", 403,
     "The request signature we calculated does not match the one you provided."},
    {"XAmzContentSHA256Mismatch", 400, "The provided x-amz-content-sha256 header does not match the body."},
});

static_assert(std::is_sorted(table.begin(), table.end(),
                             [](const error_entry& a, const error_entry& b) { return a.code < b.code; }));

}  // namespace

const error_entry& error_for(std::string_view code) {
    const auto at =
        std::lower_bound(table.begin(), table.end(), code,
                         [](const error_entry& entry, std::string_view name) { return entry.code < name; });
    if (at != table.end() && at->code == code) return *at;
    return error_for("InternalError");
}

s3_failure::s3_failure(std::string_view code, elements details, elements headers)
    : entry_(&error_for(code)), details_(std::move(details)), headers_(std::move(headers)) {}

}  // namespace zorvan::devstore
