// OpenSSL's EVP interface behind small value types; see digest.h.
#include "digest.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <stdexcept>

#include "text.h"

namespace zorvan::devstore {
namespace {

// Fetched once: an implicit fetch by every new digest would cost more than a small object's MD5.
const EVP_MD* algorithm(std::string_view name) {
    static const EVP_MD* const md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);
    static const EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    return name == "MD5" ? md5 : sha256;
}

}  // namespace

void digest::context_deleter::operator()(evp_md_ctx_st* context) const {
    EVP_MD_CTX_free(context);
}

digest::digest(const char* name) : context_(EVP_MD_CTX_new()) {
    if (!context_ || EVP_DigestInit_ex(context_.get(), algorithm(name), nullptr) != 1)
        throw std::runtime_error("message digest not available");
}

digest digest::md5() {
    return digest("MD5");
}

digest digest::sha256() {
    return digest("SHA256");
}

void digest::update(std::string_view data) {
    if (EVP_DigestUpdate(context_.get(), data.data(), data.size()) != 1)
        throw std::runtime_error("message digest failed");
}

std::string digest::finish() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> out{};
    unsigned int size = 0;
    if (EVP_DigestFinal_ex(context_.get(), out.data(), &size) != 1)
        throw std::runtime_error("message digest failed");
    return {reinterpret_cast<const char*>(out.data()), size};
}

std::string hex(std::string_view bytes) {
    return to_hex({reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()});
}

std::string md5_of(std::string_view data) {
    auto running = digest::md5();
    running.update(data);
    return running.finish();
}

std::string sha256_hex(std::string_view data) {
    auto running = digest::sha256();
    running.update(data);
    return hex(running.finish());
}

std::string hmac_sha256(std::string_view key, std::string_view data) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> out{};
    unsigned int size = 0;
    if (HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
             reinterpret_cast<const unsigned char*>(data.data()), data.size(), out.data(), &size) == nullptr)
        throw std::runtime_error("HMAC failed");
    return {reinterpret_cast<const char*>(out.data()), size};
}

bool equal_in_constant_time(std::string_view a, std::string_view b) {
    return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace zorvan::devstore
