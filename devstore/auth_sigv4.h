// Verification of AWS Signature Version 4, in the Authorization header and in
// the query (presigned URLs). Pure but for the look-up of the key; thread-safe.
// Source of the rules: "Authenticating Requests (AWS Signature Version 4)" of
// the S3 API reference.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "http_message.h"
#include "users.h"

namespace zorvan::devstore {

/// How the body of a request is covered by its signature.
enum class payload_signing {
    unsigned_payload,  ///< UNSIGNED-PAYLOAD, presigned, or no x-amz-content-sha256 at all
    whole,             ///< hex SHA-256 of the body
    chunked,           ///< STREAMING-AWS4-HMAC-SHA256-PAYLOAD
};

/// A verified request.
struct authentication {
    user_ptr caller;  ///< null for an anonymous request
    payload_signing payload = payload_signing::unsigned_payload;
    std::string payload_sha256;  ///< hex, for payload_signing::whole
    std::string region;          ///< of the credential scope
    // What the chunk signatures are chained to.
    std::string seed_signature;
    std::string signing_key;
    std::string timestamp;
    std::string scope;
};

/// Verifies `request` against the keys of `users`. `now` is the store's time for judging the request's, in
/// seconds since the epoch; more than 15 minutes apart is refused. Throws s3_failure: InvalidAccessKeyId,
/// SignatureDoesNotMatch, RequestTimeTooSkewed, AccessDenied (expired presigned URL, an x-amz header left
/// unsigned, suspended user), InvalidArgument (malformed), XAmzContentSHA256Mismatch (unknown payload form).
/// An unsigned request is returned as anonymous.
authentication authenticate(const http_request& request, const user_registry& users, std::int64_t now);

}  // namespace zorvan::devstore
