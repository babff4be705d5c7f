// MD5 sums; see md5.h.
#include "md5.h"

#include <array>
#include <stdexcept>

namespace zorvan::copy {
namespace {

void check(int result) {
    if (result != 1) throw std::runtime_error("MD5 is not available");
}

}  // namespace

md5_sum::md5_sum() : context_(EVP_MD_CTX_new()) {
    check(context_ ? EVP_DigestInit_ex(context_.get(), EVP_md5(), nullptr) : 0);
}

void md5_sum::add(std::span<const unsigned char> bytes) {
    check(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()));
}

std::string md5_sum::finish() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned length = 0;
    check(EVP_DigestFinal_ex(context_.get(), digest.data(), &length));
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (unsigned i = 0; i < length; ++i) {
        text += digits[digest[i] >> 4U];
        text += digits[digest[i] & 15U];
    }
    return text;
}

}  // namespace zorvan::copy
