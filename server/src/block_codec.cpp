// Headers to bytes and back; see block_codec.h.
#include "block_codec.h"

#include <limits>

namespace zorvan::gridftp {
namespace {

constexpr std::uint8_t understood =
    block_closes | block_end_of_data | block_suspect | block_end_of_file | block_end_of_record;

void put(std::uint64_t value, unsigned char* bytes) noexcept {
    for (int i = 7; i >= 0; --i) {
        bytes[i] = static_cast<unsigned char>(value & 0xffU);
        value >>= 8U;
    }
}

std::uint64_t get(const unsigned char* bytes) noexcept {
    std::uint64_t value = 0;
    for (int i = 0; i < 8; ++i) {
        value = value << 8U | bytes[i];
    }
    return value;
}

}  // namespace

std::array<unsigned char, block_header_size> encode(const block_header& header) noexcept {
    std::array<unsigned char, block_header_size> bytes{};
    bytes[0] = header.bits;
    put(header.count, bytes.data() + 1);
    put(header.offset, bytes.data() + 9);
    return bytes;
}

block_header decode(std::span<const unsigned char, block_header_size> bytes) noexcept {
    return {bytes[0], get(bytes.data() + 1), get(bytes.data() + 9)};
}

header_verdict judge(const block_header& header) noexcept {
    constexpr auto largest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    if ((header.bits & ~understood) != 0) {
        return header_verdict::unknown_bits;
    }
    if ((header.bits & block_suspect) != 0) {
        return header_verdict::suspect;
    }
    if ((header.bits & block_end_of_file) != 0) {
        return header.count == 0 ? header_verdict::good : header_verdict::bad_count;
    }
    if (header.count > 0 && (header.offset > largest || header.count > largest - header.offset)) {
        return header_verdict::bad_offset;
    }
    return header_verdict::good;
}

}  // namespace zorvan::gridftp
