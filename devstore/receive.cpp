// Bodies in: see receive.h. MD5 and SHA-256 are fed piece by piece as the
// bytes arrive, while they are still in the cache.
#include "receive.h"

#include <array>

#include "aws_chunked.h"
#include "digest.h"
#include "text.h"

namespace zorvan::devstore {
namespace {

constexpr std::size_t longest_document = 8U << 20U;

// What the head promises about the body.
struct promises {
    std::optional<std::uint64_t> length;
    std::optional<std::string> md5;
    std::optional<std::string> sha256;
};

promises promises_of(const exchange& x) {
    promises out;
    const auto& request = x.request;
    if (!request.content_length && !request.chunked) throw s3_failure("MissingContentLength");
    out.length = request.content_length;
    if (x.auth.payload == payload_signing::chunked) {
        out.length = parse_number(request.header("x-amz-decoded-content-length"));
        if (!out.length) throw s3_failure("MissingContentLength");
    }
    if (out.length && *out.length > x.data.config.max_put_size) throw s3_failure("EntityTooLarge");
    if (request.has_header("content-md5")) {
        out.md5 = base64_decode(trim(request.header("content-md5")));
        if (!out.md5 || out.md5->size() != 16) throw s3_failure("InvalidDigest");
    }
    if (x.auth.payload == payload_signing::whole) out.sha256 = x.auth.payload_sha256;
    return out;
}

void check_digests(const promises& promised, const std::string& md5, std::optional<digest>& sha) {
    if (promised.sha256 && hex(sha->finish()) != *promised.sha256)
        throw s3_failure("XAmzContentSHA256Mismatch");
    if (promised.md5 && md5 != *promised.md5) throw s3_failure("BadDigest");
}

// Hands each piece that arrives to `room`/`take`; checks length and digests.
template <class Room, class Take>
boost::asio::awaitable<std::string> pump(exchange& x, const promises& promised, std::uint64_t limit,
                                         Room room, Take take) {
    std::optional<aws_chunked_reader> decoder;
    body_reader* source = &x.body;
    if (x.auth.payload == payload_signing::chunked) source = &decoder.emplace(x.body, x.auth);
    auto md5 = digest::md5();
    std::optional<digest> sha;
    if (promised.sha256) sha = digest::sha256();
    std::uint64_t total = 0;
    std::array<char, 1> beyond{};
    for (;;) {
        // A complete body still has its end to be read: the last chunk's signature stands there.
        const bool complete = promised.length && total == *promised.length;
        const std::span<char> space = complete ? std::span<char>(beyond) : room();
        const auto n = co_await source->read_some(space);
        if (n == 0) break;
        if (complete) throw s3_failure("IncompleteBody");
        total += n;
        if (total > limit) throw s3_failure("EntityTooLarge");
        const std::string_view piece(space.data(), n);
        md5.update(piece);
        if (sha) sha->update(piece);
        take(n);
    }
    if (promised.length && total != *promised.length) throw s3_failure("IncompleteBody");
    auto sum = md5.finish();
    check_digests(promised, sum, sha);
    co_return sum;
}

}  // namespace

boost::asio::awaitable<received> receive_blob(exchange& x) {
    const auto promised = promises_of(x);
    auto writer = x.data.blobs->create(promised.length);
    received out;
    out.md5 = co_await pump(
        x, promised, x.data.config.max_put_size, [&] { return writer->prepare(); },
        [&](std::size_t n) { writer->commit(n); });
    out.body = content(writer->finish());
    co_return out;
}

boost::asio::awaitable<std::string> receive_text(exchange& x) {
    std::string out;
    // A request without a body announces nothing.
    if (!x.request.content_length && !x.request.chunked) co_return out;
    const auto promised = promises_of(x);
    if (promised.length && *promised.length > longest_document) throw s3_failure("EntityTooLarge");
    std::array<char, 16 * 1024> piece{};
    co_await pump(
        x, promised, longest_document, [&] { return std::span<char>(piece); },
        [&](std::size_t n) { out.append(piece.data(), n); });
    co_return out;
}

}  // namespace zorvan::devstore
