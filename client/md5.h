// MD5 sums, on OpenSSL. A value for one thread.
#pragma once

#include <openssl/evp.h>

#include <memory>
#include <span>
#include <string>

namespace zorvan::copy {

class md5_sum {
  public:
    md5_sum();
    void add(std::span<const unsigned char> bytes);
    /// 32 digits in lower case; once.
    std::string finish();

  private:
    struct free_context {
        void operator()(EVP_MD_CTX* context) const noexcept { EVP_MD_CTX_free(context); }
    };
    std::unique_ptr<EVP_MD_CTX, free_context> context_;
};

}  // namespace zorvan::copy
