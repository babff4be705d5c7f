// AWS Signature Version 4: canonical request, string to sign, derived key, Authorization header.
#include "signature_v4.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <array>
#include <new>

#include "text.h"

namespace s3 {
namespace {

using Key = std::array<unsigned char, 32>;

Key hmac_sha256(const void* key, size_t key_size, std::string_view data) {
    Key out{};
    unsigned int size = 0;
    if (HMAC(EVP_sha256(), key, static_cast<int>(key_size),
             reinterpret_cast<const unsigned char*>(data.data()), data.size(), out.data(), &size) == nullptr)
        throw std::bad_alloc();
    return out;
}

Key hmac_sha256(const Key& key, std::string_view data) {
    return hmac_sha256(key.data(), key.size(), data);
}

// Blanks at the ends go, runs of blanks inside become one.
std::string canonical_value(std::string_view value) {
    std::string out;
    out.reserve(value.size());
    for (const char c : trim(value)) {
        const bool blank = c == ' ' || c == '\t';
        if (!blank) {
            out.push_back(c);
        } else if (out.back() != ' ') {
            out.push_back(' ');
        }
    }
    return out;
}

NameValues canonical_headers(const NameValues& headers) {
    NameValues out;
    out.reserve(headers.size());
    for (const auto& [name, value] : headers)
        out.emplace_back(to_lower(name), canonical_value(value));
    std::stable_sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    return out;
}

std::string signed_header_names(const NameValues& sorted) {
    std::string out;
    for (const auto& [name, value] : sorted) {
        if (!out.empty()) out += ';';
        out += name;
    }
    return out;
}

std::string build_canonical_request(const SigningInput& input, const NameValues& sorted_headers) {
    std::string out;
    out.reserve(512);
    out.append(input.method).append("\n").append(input.encoded_path).append("\n");
    NameValues query = *input.encoded_query;
    std::sort(query.begin(), query.end());
    for (size_t i = 0; i < query.size(); ++i) {
        if (i > 0) out += '&';
        out.append(query[i].first).append("=").append(query[i].second);
    }
    out += '\n';
    for (const auto& [name, value] : sorted_headers)
        out.append(name).append(":").append(value).append("\n");
    out.append("\n").append(signed_header_names(sorted_headers)).append("\n").append(input.payload_hash);
    return out;
}

}  // namespace

std::string canonical_request(const SigningInput& input) {
    return build_canonical_request(input, canonical_headers(*input.headers));
}

std::string authorization(const SigningInput& input) {
    const NameValues sorted = canonical_headers(*input.headers);
    const std::string_view date = input.timestamp.substr(0, 8);
    std::string scope(date);
    scope.append("/").append(input.region).append("/").append(input.service).append("/aws4_request");

    std::string to_sign = "AWS4-HMAC-SHA256\n";
    to_sign.append(input.timestamp).append("\n").append(scope).append("\n");
    to_sign += to_hex(sha256(build_canonical_request(input, sorted)));

    std::string secret = "AWS4";
    secret.append(input.secret_key);
    const Key date_key = hmac_sha256(secret.data(), secret.size(), date);
    const Key region_key = hmac_sha256(date_key, input.region);
    const Key service_key = hmac_sha256(region_key, input.service);
    const Key signing_key = hmac_sha256(service_key, "aws4_request");

    std::string out = "AWS4-HMAC-SHA256 Credential=";
    out.append(input.access_key).append("/").append(scope).append(",SignedHeaders=");
    out += signed_header_names(sorted);
    out += ",Signature=";
    out += to_hex(hmac_sha256(signing_key, to_sign));
    return out;
}

}  // namespace s3
