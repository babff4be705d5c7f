// AWS Signature Version 4 (S3 API reference: "Authenticating Requests: Using the Authorization Header").
// Pure functions; any thread.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace s3 {

/// Pairs in the order in which they are sent.
using NameValues = std::vector<std::pair<std::string, std::string>>;

/// Hash of an empty body.
inline constexpr std::string_view kEmptyPayloadHash =
    "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
/// Stands in the place of the hash when the body is not part of the signature.
inline constexpr std::string_view kUnsignedPayload = "UNSIGNED-PAYLOAD";

/// What is signed. Views must outlive the call only.
struct SigningInput {
    std::string_view method;
    std::string_view encoded_path;
    /// Encoded names and values, in any order.
    const NameValues* encoded_query = nullptr;
    /// Every header to sign, names in any case; must hold host and x-amz-date.
    const NameValues* headers = nullptr;
    std::string_view payload_hash;
    /// "20130524T000000Z".
    std::string_view timestamp;
    std::string_view access_key;
    std::string_view secret_key;
    std::string_view region;
    std::string_view service = "s3";
};

/// The canonical request, for the signature and for comparing with a store's idea of it.
std::string canonical_request(const SigningInput& input);

/// The value of the Authorization header. Throws std::bad_alloc.
std::string authorization(const SigningInput& input);

}  // namespace s3
