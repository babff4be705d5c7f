// Headers of extended mode, byte by byte, and sets of ranges.
#include "block_codec.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <set>

#include "range_list.h"

using namespace zorvan::gridftp;

namespace {

TEST(BlockCodec, PutsBitsCountAndOffsetInNetworkOrder) {
    const auto bytes = encode({block_end_of_data, 0x0102030405060708, 0x1112131415161718});
    const std::array<unsigned char, 17> wanted{8,    1,    2,    3,    4,    5,    6,    7,   8,
                                               0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18};
    EXPECT_EQ(bytes, wanted);
}

TEST(BlockCodec, ReadsWhatItWrites) {
    std::mt19937_64 random(7);
    for (int round = 0; round < 1000; ++round) {
        const block_header header{static_cast<std::uint8_t>(random()), random(), random()};
        EXPECT_EQ(decode(encode(header)), header);
    }
    const block_header largest{0xff, ~0ULL, ~0ULL};
    EXPECT_EQ(decode(encode(largest)), largest);
}

TEST(BlockCodec, JudgesHeaders) {
    constexpr std::uint64_t top = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(judge({0, 10, 5}), header_verdict::good);
    EXPECT_EQ(judge({block_end_of_record | block_end_of_data | block_closes, 10, 5}), header_verdict::good);
    EXPECT_EQ(judge({block_end_of_file | block_end_of_data, 0, 4}), header_verdict::good);
    EXPECT_EQ(judge({0x01, 0, 0}), header_verdict::unknown_bits);
    EXPECT_EQ(judge({0x02, 0, 0}), header_verdict::unknown_bits);
    EXPECT_EQ(judge({block_restart_marker, 3, 0}), header_verdict::unknown_bits);
    EXPECT_EQ(judge({block_suspect, 3, 0}), header_verdict::suspect);
    EXPECT_EQ(judge({block_end_of_file, 1, 4}), header_verdict::bad_count);
    EXPECT_EQ(judge({0, top, 0}), header_verdict::good);
    EXPECT_EQ(judge({0, 1, top - 1}), header_verdict::good);
    EXPECT_EQ(judge({0, 1, top}), header_verdict::bad_offset);
    EXPECT_EQ(judge({0, ~0ULL, 2}), header_verdict::bad_offset);
    EXPECT_EQ(judge({0, 2, ~0ULL}), header_verdict::bad_offset);
    EXPECT_EQ(judge({0, 1, ~0ULL}), header_verdict::bad_offset);
    EXPECT_EQ(judge({0, 0, ~0ULL}), header_verdict::good) << "no byte lies anywhere";
}

TEST(RangeList, JoinsWhatTouchesAndOverlaps) {
    range_list list;
    list.add(10, 20);
    list.add(30, 40);
    EXPECT_EQ(list.text(), "10-20,30-40");
    list.add(20, 25);
    EXPECT_EQ(list.text(), "10-25,30-40");
    list.add(24, 30);
    EXPECT_EQ(list.text(), "10-40");
    list.add(0, 100);
    EXPECT_EQ(list.text(), "0-100");
    list.add(50, 60);
    list.add(7, 7);
    EXPECT_EQ(list.text(), "0-100");
    EXPECT_EQ(list.bytes(), 100U);
    EXPECT_EQ(list.run_end(0), 100U);
    EXPECT_EQ(list.run_end(100), 100U);
}

TEST(RangeList, RefusesBytesThatAreThere) {
    range_list list;
    EXPECT_TRUE(list.add_new(10, 20));
    for (const auto& [begin, end] : {range_list::range{10, 20}, {15, 16}, {5, 11}, {19, 30}, {0, 100}}) {
        EXPECT_FALSE(list.add_new(begin, end)) << begin;
    }
    EXPECT_EQ(list.text(), "10-20");
    EXPECT_TRUE(list.add_new(20, 30));
    EXPECT_TRUE(list.add_new(0, 10));
    EXPECT_EQ(list.text(), "0-30");
    EXPECT_EQ(list.size(), 1U);
}

// The same against the plainest set there is.
TEST(RangeList, AgreesWithASetOfBytes) {
    std::mt19937 random(11);
    for (int round = 0; round < 200; ++round) {
        range_list list;
        std::set<std::uint64_t> bytes;
        for (int step = 0; step < 30; ++step) {
            const std::uint64_t begin = random() % 60;
            const std::uint64_t end = begin + random() % 12;
            bool free = true;
            for (auto byte = begin; byte < end; ++byte)
                free = free && bytes.count(byte) == 0;
            if (step % 2 == 0) {
                ASSERT_EQ(list.add_new(begin, end), free || begin == end);
                if (!free) continue;
            } else {
                list.add(begin, end);
            }
            for (auto byte = begin; byte < end; ++byte)
                bytes.insert(byte);
            ASSERT_EQ(list.bytes(), bytes.size());
            for (std::uint64_t at = 0; at < 75; ++at) {
                auto run = at;
                while (bytes.count(run) != 0)
                    ++run;
                ASSERT_EQ(list.run_end(at), run) << list.text() << " at " << at;
            }
        }
    }
}

TEST(RangeList, ReadsTheListsOfRest) {
    const auto text = [](std::string_view list) {
        const auto parsed = range_list::parse(list);
        return parsed ? parsed->text() : "<none>";
    };
    EXPECT_EQ(text("0-29,40-99"), "0-29,40-99");
    EXPECT_EQ(text("40-99,0-29,29-40"), "0-99");
    EXPECT_EQ(text("0-0"), "");
    EXPECT_EQ(text("0-9223372036854775807"), "0-9223372036854775807");
    for (const auto* bad : {"", "-", "5", "5-4", "0-", "-4", "0-4,", ",0-4", "0-4;6-8", "a-b", "0--4",
                            "0-9223372036854775808", "0-18446744073709551616"}) {
        EXPECT_EQ(text(bad), "<none>") << bad;
    }
}

}  // namespace
