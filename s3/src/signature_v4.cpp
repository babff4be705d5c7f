// AWS Signature Version 4: canonical request, string to sign, derived key, Authorization header.
#include "signature_v4.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <algorithm>
#include <array>
#include <memory>
#include <new>

#include "text.h"

namespace s3 {
namespace {

using Key = std::array<unsigned char, 32>;

// Looked up once: a look-up costs more than the few blocks of a signature. Never freed, as requests may run
// while the process ends.
EVP_MAC* hmac_algorithm() {
    static EVP_MAC* const fetched = [] {
        EVP_MAC* const found = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
        if (found == nullptr) throw std::bad_alloc();  // the next signature tries again
        return found;
    }();
    return fetched;
}

// HMAC-SHA-256 (RFC 2104) with one context, which knows its digest, for all keys of a signature.
class HmacSha256 {
  public:
    HmacSha256() : context_(EVP_MAC_CTX_new(hmac_algorithm())) {
        std::array<char, 7> digest{"SHA256"};
        const std::array<OSSL_PARAM, 2> parameters{
            OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest.data(), 0),
            OSSL_PARAM_construct_end()};
        if (context_ == nullptr || EVP_MAC_CTX_set_params(context_.get(), parameters.data()) != 1)
            throw std::bad_alloc();
    }

    Key operator()(std::string_view key, std::string_view data) {
        Key out{};
        size_t size = 0;
        if (EVP_MAC_init(context_.get(), bytes(key), key.size(), nullptr) != 1 ||
            EVP_MAC_update(context_.get(), bytes(data), data.size()) != 1 ||
            EVP_MAC_final(context_.get(), out.data(), &size, out.size()) != 1)
            throw std::bad_alloc();
        return out;
    }

    Key operator()(const Key& key, std::string_view data) {
        return (*this)({reinterpret_cast<const char*>(key.data()), key.size()}, data);
    }

  private:
    struct Free {
        void operator()(EVP_MAC_CTX* context) const noexcept { EVP_MAC_CTX_free(context); }
    };
    static const unsigned char* bytes(std::string_view text) {
        return reinterpret_cast<const unsigned char*>(text.data());
    }

    std::unique_ptr<EVP_MAC_CTX, Free> context_;
};

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
    HmacSha256 hmac;
    const Key date_key = hmac(secret, date);
    const Key region_key = hmac(date_key, input.region);
    const Key service_key = hmac(region_key, input.service);
    const Key signing_key = hmac(service_key, "aws4_request");

    std::string out = "AWS4-HMAC-SHA256 Credential=";
    out.append(input.access_key).append("/").append(scope).append(",SignedHeaders=");
    out += signed_header_names(sorted);
    out += ",Signature=";
    out += to_hex(hmac(signing_key, to_sign));
    return out;
}

}  // namespace s3
