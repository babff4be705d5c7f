// AWS Signature Version 4: canonical request, string to sign, derived key, Authorization header.
#include "signature_v4.h"

#include <openssl/evp.h>

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
const EVP_MD* sha256_algorithm() {
    static const EVP_MD* const fetched = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    return fetched != nullptr ? fetched : EVP_sha256();
}

// SHA-256 and its HMAC (RFC 2104) with one context for all of a signature.
class Sha256 {
  public:
    Sha256() : context_(EVP_MD_CTX_new()) {
        if (context_ == nullptr) throw std::bad_alloc();
    }

    Key hash(std::string_view first, std::string_view second = {}) {
        Key out{};
        if (EVP_DigestInit_ex(context_.get(), sha256_algorithm(), nullptr) != 1 ||
            EVP_DigestUpdate(context_.get(), first.data(), first.size()) != 1 ||
            EVP_DigestUpdate(context_.get(), second.data(), second.size()) != 1 ||
            EVP_DigestFinal_ex(context_.get(), out.data(), nullptr) != 1)
            throw std::bad_alloc();
        return out;
    }

    Key hmac(std::string_view key, std::string_view data) {
        constexpr size_t block = 64;
        std::array<char, block> inner{};
        if (key.size() > block) {
            const Key shorter = hash(key);
            std::copy(shorter.begin(), shorter.end(), inner.begin());
        } else {
            std::copy(key.begin(), key.end(), inner.begin());
        }
        std::array<char, block> outer = inner;
        for (char& c : inner)
            c = static_cast<char>(c ^ 0x36);
        for (char& c : outer)
            c = static_cast<char>(c ^ 0x5c);
        const Key within = hash({inner.data(), block}, data);
        return hash({outer.data(), block}, view(within));
    }

    Key hmac(const Key& key, std::string_view data) { return hmac(view(key), data); }

  private:
    struct Free {
        void operator()(EVP_MD_CTX* context) const noexcept { EVP_MD_CTX_free(context); }
    };
    static std::string_view view(const Key& key) {
        return {reinterpret_cast<const char*>(key.data()), key.size()};
    }

    std::unique_ptr<EVP_MD_CTX, Free> context_;
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
    Sha256 sha;
    to_sign += to_hex(sha.hash(build_canonical_request(input, sorted)));

    std::string secret = "AWS4";
    secret.append(input.secret_key);
    const Key date_key = sha.hmac(secret, date);
    const Key region_key = sha.hmac(date_key, input.region);
    const Key service_key = sha.hmac(region_key, input.service);
    const Key signing_key = sha.hmac(service_key, "aws4_request");

    std::string out = "AWS4-HMAC-SHA256 Credential=";
    out.append(input.access_key).append("/").append(scope).append(",SignedHeaders=");
    out += signed_header_names(sorted);
    out += ",Signature=";
    out += to_hex(sha.hmac(signing_key, to_sign));
    return out;
}

}  // namespace s3
