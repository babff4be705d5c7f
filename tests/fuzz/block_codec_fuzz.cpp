// Block headers of extended mode: any seventeen bytes are one, and are the bytes of that one again; what is
// judged good lies within a file.
#include "block_codec.h"

#include <algorithm>
#include <limits>

#include "fuzz.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace zorvan::gridftp;
    for (; size >= block_header_size; data += block_header_size, size -= block_header_size) {
        const block_header header =
            decode(std::span<const unsigned char, block_header_size>(data, block_header_size));
        const auto bytes = encode(header);
        FUZZ_CHECK(std::equal(bytes.begin(), bytes.end(), data));
        FUZZ_CHECK(decode(bytes) == header);
        if (judge(header) != header_verdict::good) continue;
        FUZZ_CHECK((header.bits & (block_suspect | block_restart_marker)) == 0);
        if ((header.bits & block_end_of_file) != 0) {
            FUZZ_CHECK(header.count == 0);
        } else if (header.count > 0) {
            constexpr auto largest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
            FUZZ_CHECK(header.offset <= largest && header.offset + header.count <= largest);
        }
    }
    return 0;
}
