/*
 * MD5 (RFC 1321, section 3.4) of two contexts side by side: the steps of both are independent of each other,
 * and the message word and constant of each step are the same for both.
 */
#include "md5_pair.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <utility>

namespace {
static_assert(sizeof(MD5_LONG) == sizeof(uint32_t));

constexpr size_t block_size = MD5_CBLOCK;
constexpr size_t step_count = 64;

/** T[i] of the RFC: the first 32 bits of the fraction of abs(sin(i + 1)). */
constexpr std::array<uint32_t, step_count> sines{
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};
constexpr int rotations[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

struct lane_t {
    uint32_t a, b, c, d;
};

lane_t operator+(const lane_t& left, const lane_t& right) noexcept {
    return {.a = left.a + right.a, .b = left.b + right.b, .c = left.c + right.c, .d = left.d + right.d};
}

lane_t lane_of(const MD5_CTX& context) noexcept {
    return {.a = context.A, .b = context.B, .c = context.C, .d = context.D};
}

void store(const lane_t& lane, MD5_CTX& context) noexcept {
    context.A = lane.a;
    context.B = lane.b;
    context.C = lane.c;
    context.D = lane.d;
}

uint32_t word_at(const unsigned char* block, size_t index) noexcept {
    uint32_t word;
    std::memcpy(&word, block + index * sizeof word, sizeof word);
    return std::endian::native == std::endian::little ? word : __builtin_bswap32(word);
}

/** Which word of the block a step takes. */
constexpr size_t word_of(size_t step) noexcept {
    constexpr size_t factor[] = {1, 5, 3, 7};
    constexpr size_t first[] = {0, 1, 5, 0};
    return (first[step / 16] + factor[step / 16] * step) % 16;
}

/** One step: a = b + ((a + f(b, c, d) + addend) <<< s), where addend = X[k] + T[i]; then the names move on.
 */
template <size_t Step>
[[gnu::always_inline]] inline void advance(lane_t& lane, uint32_t addend) noexcept {
    const auto [a, b, c, d] = lane;
    uint32_t sum = a + addend;
    // c and d are known before b is: what needs b comes last.
    if constexpr (Step < 16)
        sum += d ^ (b & (c ^ d));
    else if constexpr (Step < 32)
        sum = (sum + (c & ~d)) + (b & d);  // the two have no bit in common
    else if constexpr (Step < 48)
        sum += b ^ (c ^ d);
    else
        sum += c ^ (b | ~d);
    lane = {.a = d, .b = b + std::rotl(sum, rotations[Step / 16][Step % 4]), .c = b, .d = c};
}

template <size_t... Steps>
[[gnu::always_inline]] inline void transform(lane_t& first, lane_t& second, const unsigned char* block,
                                             std::index_sequence<Steps...>) noexcept {
    const auto both = [&]<size_t Step>(std::integral_constant<size_t, Step>) __attribute__((always_inline)) {
        const uint32_t addend = word_at(block, word_of(Step)) + sines[Step];
        advance<Step>(first, addend);
        advance<Step>(second, addend);
    };
    (both(std::integral_constant<size_t, Steps>{}), ...);
}

/** Count bytes: the length in bits, as two words (RFC 1321, section 3.2). */
void count_bytes(MD5_CTX& context, uint64_t bytes) noexcept {
    const uint64_t bits = (static_cast<uint64_t>(context.Nh) << 32 | context.Nl) + (bytes << 3);
    context.Nl = static_cast<MD5_LONG>(bits);
    context.Nh = static_cast<MD5_LONG>(bits >> 32);
}

/** Take in whole blocks; both contexts stand at the beginning of one. */
void take_blocks(MD5_CTX& first, MD5_CTX& second, const unsigned char* bytes, size_t count) noexcept {
    lane_t one = lane_of(first);
    lane_t other = lane_of(second);
    for (size_t block = 0; block < count; ++block) {
        const lane_t one_before = one;
        const lane_t other_before = other;
        transform(one, other, bytes + block * block_size, std::make_index_sequence<step_count>{});
        one = one + one_before;
        other = other + other_before;
    }
    store(one, first);
    store(other, second);
    count_bytes(first, count * block_size);
    count_bytes(second, count * block_size);
}

int update_each(MD5_CTX* first, MD5_CTX* second, const void* bytes, size_t length) noexcept {
    return MD5_Update(first, bytes, length) == 1 && MD5_Update(second, bytes, length) == 1 ? 1 : 0;
}
}  // namespace

int zorvan_i_s3_md5_update_both(MD5_CTX* first, MD5_CTX* second, const void* bytes, size_t length) noexcept {
    if (first->num != second->num) return update_each(first, second, bytes, length);
    const auto* next = static_cast<const unsigned char*>(bytes);
    const size_t head = std::min(length, (block_size - first->num) % block_size);
    if (update_each(first, second, next, head) != 1) return 0;
    next += head;
    length -= head;
    const size_t whole = length - length % block_size;
    take_blocks(*first, *second, next, whole / block_size);
    return update_each(first, second, next + whole, length - whole);
}
