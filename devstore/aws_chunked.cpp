// Decoder of signed chunks; see aws_chunked.h. Frames look like
// "<hex size>;chunk-signature=<64 hex>\r\n<data>\r\n", the last one is empty.
#include "aws_chunked.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

#include "errors.h"

namespace zorvan::devstore {
namespace {

constexpr std::string_view empty_sha256 = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr std::size_t longest_line = 512;
constexpr std::size_t buffer_size = 64 * 1024;

}  // namespace

aws_chunked_reader::aws_chunked_reader(body_reader& inner, const authentication& auth)
    : inner_(inner), auth_(auth), previous_signature_(auth.seed_signature) {}

boost::asio::awaitable<void> aws_chunked_reader::fill() {
    buffer_.erase(0, position_);
    position_ = 0;
    const auto kept = buffer_.size();
    buffer_.resize(kept + buffer_size);
    const auto n = co_await inner_.read_some({buffer_.data() + kept, buffer_size});
    buffer_.resize(kept + n);
    if (n == 0) throw s3_failure("IncompleteBody");
}

boost::asio::awaitable<std::string> aws_chunked_reader::read_line() {
    for (;;) {
        const auto end = buffer_.find("\r\n", position_);
        if (end != std::string::npos) {
            auto line = buffer_.substr(position_, end - position_);
            position_ = end + 2;
            co_return line;
        }
        if (buffer_.size() - position_ > longest_line) throw s3_failure("IncompleteBody");
        co_await fill();
    }
}

boost::asio::awaitable<void> aws_chunked_reader::next_chunk() {
    if (started_) {
        const auto separator = co_await read_line();
        if (!separator.empty()) throw s3_failure("IncompleteBody");
    }
    started_ = true;
    const auto line = co_await read_line();
    const auto semicolon = line.find(";chunk-signature=");
    if (semicolon == std::string::npos) throw s3_failure("IncompleteBody");
    const auto [end, error] = std::from_chars(line.data(), line.data() + semicolon, remaining_, 16);
    if (error != std::errc{} || end != line.data() + semicolon) throw s3_failure("IncompleteBody");
    chunk_signature_ = line.substr(semicolon + 17);
    chunk_digest_ = digest::sha256();
    if (remaining_ > 0) co_return;
    verify_chunk();
    finished_ = true;
    // The frame's last line break; a client that leaves it out does no harm.
    std::array<char, 64> rest{};
    while (co_await inner_.read_some(rest) > 0) {
    }
}

void aws_chunked_reader::verify_chunk() {
    const std::string to_sign = "AWS4-HMAC-SHA256-PAYLOAD\n" + auth_.timestamp + "\n" + auth_.scope + "\n" +
                                previous_signature_ + "\n" + std::string(empty_sha256) + "\n" +
                                hex(chunk_digest_.finish());
    const auto expected = hex(hmac_sha256(auth_.signing_key, to_sign));
    if (!equal_in_constant_time(expected, chunk_signature_)) throw s3_failure("SignatureDoesNotMatch");
    previous_signature_ = expected;
}

boost::asio::awaitable<std::size_t> aws_chunked_reader::read_some(std::span<char> room) {
    if (!finished_ && remaining_ == 0) co_await next_chunk();
    if (finished_) co_return 0;
    if (position_ == buffer_.size()) co_await fill();
    const auto n = static_cast<std::size_t>(
        std::min<std::uint64_t>({room.size(), buffer_.size() - position_, remaining_}));
    std::memcpy(room.data(), buffer_.data() + position_, n);
    chunk_digest_.update({room.data(), n});
    position_ += n;
    remaining_ -= n;
    if (remaining_ == 0) verify_chunk();
    co_return n;
}

}  // namespace zorvan::devstore
