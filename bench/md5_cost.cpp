// What two MD5 sums over the same bytes cost, one after the other and side by side: prints the processor
// seconds per GiB of each, one line, and fails when the sums differ. The bytes come from the cache, as blocks
// do that were just received.
#include <cstdio>
#include <cstring>
#include <ctime>
#include <numeric>
#include <vector>

#include "md5_pair.h"

namespace {
constexpr size_t gib = size_t{1} << 30;

double processor_seconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

struct Sums {
    MD5_CTX part, file;
    Sums() {
        MD5_Init(&part);
        MD5_Init(&file);
    }
    bool operator==(Sums other) {
        unsigned char mine[2][MD5_DIGEST_LENGTH], others[2][MD5_DIGEST_LENGTH];
        MD5_Final(mine[0], &part);
        MD5_Final(mine[1], &file);
        MD5_Final(others[0], &other.part);
        MD5_Final(others[1], &other.file);
        return std::memcmp(mine, others, sizeof mine) == 0;
    }
};

template <typename Update>
double cost_of(Update update, size_t block_size) {
    const double begin = processor_seconds();
    for (size_t done = 0; done < gib; done += block_size)
        update();
    return processor_seconds() - begin;
}
}  // namespace

int main() {
    std::vector<unsigned char> block(size_t{1} << 18);
    std::iota(block.begin(), block.end(), static_cast<unsigned char>(0));
    Sums apart, together;
    const double one_after_the_other = cost_of(
        [&] {
            MD5_Update(&apart.part, block.data(), block.size());
            MD5_Update(&apart.file, block.data(), block.size());
        },
        block.size());
    const double side_by_side = cost_of(
        [&] { zorvan_i_s3_md5_update_both(&together.part, &together.file, block.data(), block.size()); },
        block.size());
    if (!(apart == together)) {
        std::fputs("the sums differ\n", stderr);
        return 1;
    }
    std::printf("%.3f %.3f\n", one_after_the_other, side_by_side);
    return std::fflush(stdout) == 0 ? 0 : 1;
}
