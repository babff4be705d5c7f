// MD5 on OpenSSL.
#include "digest.h"

#include <algorithm>
#include <array>
#include <new>

namespace zorvan::gridftp {
namespace {

constexpr char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool same_text(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return lower(a) == lower(b); });
}

}  // namespace

md5_digest::md5_digest() : context_(EVP_MD_CTX_new()) {
    if (context_ == nullptr || EVP_DigestInit_ex(context_.get(), EVP_md5(), nullptr) != 1) {
        throw std::bad_alloc();
    }
}

void md5_digest::update(std::span<const unsigned char> data) {
    EVP_DigestUpdate(context_.get(), data.data(), data.size());
}

std::string md5_digest::finish() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> sum{};
    unsigned int length = 0;
    EVP_DigestFinal_ex(context_.get(), sum.data(), &length);
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < length; ++i) {
        text += digits[sum[i] >> 4];
        text += digits[sum[i] & 15];
    }
    return text;
}

bool same_checksum(std::string_view left, std::string_view right) {
    return same_text(left, right);
}

bool is_md5(std::string_view algorithm) {
    return same_text(algorithm, "MD5");
}

}  // namespace zorvan::gridftp
