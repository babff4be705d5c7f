// MD5 of data as it passes. One object per upload, used by one thread at a time.
#pragma once

#include <openssl/evp.h>

#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace zorvan::gridftp {

class md5_digest {
  public:
    md5_digest();
    void update(std::span<const unsigned char> data);
    /// End the sum; once. @return 32 lower-case hexadecimal digits
    std::string finish();

  private:
    struct free_context {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };
    std::unique_ptr<EVP_MD_CTX, free_context> context_;
};

/// Do two sums agree, whatever the case of their digits?
bool same_checksum(std::string_view left, std::string_view right);

/// Is this algorithm word MD5?
bool is_md5(std::string_view algorithm);

}  // namespace zorvan::gridftp
