// Message digests by OpenSSL: MD5 for ETags, SHA-256 and HMAC for Signature
// V4. A digest object belongs to one thread at a time.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace zorvan::devstore {

/// A running digest. Throws std::runtime_error when OpenSSL refuses (out of memory).
class digest {
  public:
    /// A fresh MD5.
    static digest md5();
    /// A fresh SHA-256.
    static digest sha256();

    /// Adds bytes; `data` is only read during the call.
    void update(std::string_view data);
    /// Ends the digest and returns its raw bytes; the object must not be used afterwards.
    std::string finish();

  private:
    struct context_deleter {
        void operator()(evp_md_ctx_st* context) const;
    };
    explicit digest(const char* name);
    std::unique_ptr<evp_md_ctx_st, context_deleter> context_;
};

/// Raw bytes as lower-case hex.
std::string hex(std::string_view bytes);
/// Raw MD5 of a text.
std::string md5_of(std::string_view data);
/// Hex SHA-256 of a text.
std::string sha256_hex(std::string_view data);
/// Raw HMAC-SHA256 (32 bytes).
std::string hmac_sha256(std::string_view key, std::string_view data);
/// Compares without an early exit, so that timing tells nothing about a signature.
bool equal_in_constant_time(std::string_view a, std::string_view b);

}  // namespace zorvan::devstore
