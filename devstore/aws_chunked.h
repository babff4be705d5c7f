// The aws-chunked body coding with chunk signatures: takes the framing off
// and verifies every chunk. Source: "Signature Calculations for the
// Authorization Header: Transferring Payload in Multiple Chunks", S3 API.
#pragma once

#include <string>

#include "auth_sigv4.h"
#include "body_reader.h"
#include "digest.h"

namespace zorvan::devstore {

/// Decodes the body of `inner`. Bytes are handed out before their chunk is verified, so a caller must not
/// keep them unless read_some() reached the end without an exception. Borrows both arguments.
class aws_chunked_reader final : public body_reader {
  public:
    aws_chunked_reader(body_reader& inner, const authentication& auth);
    /// Throws s3_failure SignatureDoesNotMatch for a spoiled chunk, IncompleteBody for a broken frame.
    boost::asio::awaitable<std::size_t> read_some(std::span<char> room) override;

  private:
    boost::asio::awaitable<void> fill();
    boost::asio::awaitable<std::string> read_line();
    boost::asio::awaitable<void> next_chunk();
    void verify_chunk();

    body_reader& inner_;
    const authentication& auth_;
    std::string previous_signature_;
    std::string chunk_signature_;
    digest chunk_digest_ = digest::sha256();
    std::string buffer_;
    std::size_t position_ = 0;
    std::uint64_t remaining_ = 0;
    bool started_ = false;
    bool finished_ = false;
};

}  // namespace zorvan::devstore
