// The texts of the progress line.
#include "progress.h"

#include <gtest/gtest.h>

#include <limits>

namespace zorvan::copy {
namespace {

progress state(std::uint64_t done, std::optional<std::uint64_t> total, double rate = 0) {
    progress made;
    made.name = "file";
    made.done = done;
    made.total = total;
    made.rate = rate;
    return made;
}

TEST(Progress, CountsBytes) {
    EXPECT_EQ(format_bytes(0), "0 B");
    EXPECT_EQ(format_bytes(1023), "1023 B");
    EXPECT_EQ(format_bytes(1024), "1.0 KiB");
    EXPECT_EQ(format_bytes(1536), "1.5 KiB");
    EXPECT_EQ(format_bytes((1U << 20U) - 1), "1.0 MiB");
    EXPECT_EQ(format_bytes(20U << 20U), "20.0 MiB");
    EXPECT_EQ(format_bytes(std::numeric_limits<std::uint64_t>::max()), "16.0 EiB");
}

TEST(Progress, CountsTime) {
    EXPECT_EQ(format_time(0), "0:00");
    EXPECT_EQ(format_time(6.2), "0:07");
    EXPECT_EQ(format_time(720), "12:00");
    EXPECT_EQ(format_time(3 * 3600 + 61), "3:01:01");
    EXPECT_EQ(format_time(-1), "--:--");
    EXPECT_EQ(format_time(1e30), "--:--");
    EXPECT_EQ(format_time(std::numeric_limits<double>::quiet_NaN()), "--:--");
}

TEST(Progress, IsALine) {
    EXPECT_EQ(format_progress(state(512, 1024, 128), 79),
              "file                  [#########.........]  50%      512 B      128 B/s    0:04");
    auto last = state(1024, 1024, 512);
    last.finished = true;
    last.seconds = 2;
    EXPECT_EQ(format_progress(last, 79),
              "file                  [##################] 100%    1.0 KiB      512 B/s    0:02");
}

TEST(Progress, FitsAnyWidth) {
    auto long_name = state(1, 3);
    long_name.name = std::string(500, 'n');
    for (const auto& each : {state(0, std::nullopt), state(5, 10, 1), long_name}) {
        for (std::size_t width = 0; width < 300; ++width) {
            EXPECT_LE(format_progress(each, width).size(), width);
        }
    }
    EXPECT_EQ(format_progress(long_name, 79).size(), 79U);
}

TEST(Progress, KeepsTheEndOfALongName) {
    auto made = state(1, 2);
    made.name = "a/very/long/path/to/some/folder/of/results/run-0042.h5";
    EXPECT_EQ(format_progress(made, 60).find(".../results/run-0042.h5 "), 0U) << format_progress(made, 60);
}

TEST(Progress, ShowsNoControlBytes) {
    auto made = state(1, 2);
    made.name = "a\x1b[31m\r";
    EXPECT_EQ(format_progress(made, 100).find_first_of("\x1b\r"), std::string::npos);
}

TEST(Progress, SaysHundredPercentOnlyAtTheEnd) {
    EXPECT_NE(format_progress(state(99999, 100000), 79).find(" 99%"), std::string::npos);
    EXPECT_NE(format_progress(state(100000, 100000), 79).find("100%"), std::string::npos);
    // A file that grew over what was announced, and an empty one.
    EXPECT_NE(format_progress(state(11, 10), 79).find("100%"), std::string::npos);
    EXPECT_NE(format_progress(state(0, 0), 79).find("  0%"), std::string::npos);
    auto empty = state(0, 0);
    empty.finished = true;
    EXPECT_NE(format_progress(empty, 79).find("100%"), std::string::npos);
}

TEST(Progress, KnowsNoTimeLeftWithoutATotalOrARate) {
    EXPECT_NE(format_progress(state(5, std::nullopt, 100), 79).find("--:--"), std::string::npos);
    EXPECT_NE(format_progress(state(5, 10, 0), 79).find("--:--"), std::string::npos);
    EXPECT_EQ(format_progress(state(5, std::nullopt, 100), 79).find('%'), std::string::npos);
}

TEST(RateMeter, LooksAtTheLastSeconds) {
    rate_meter meter;
    EXPECT_EQ(meter.rate(), 0);
    meter.add(0, 0);
    EXPECT_EQ(meter.rate(), 0);
    meter.add(1, 100);
    EXPECT_DOUBLE_EQ(meter.rate(), 100);
    for (int second = 2; second <= 20; ++second) {
        meter.add(second, 100);
    }
    EXPECT_DOUBLE_EQ(meter.rate(), 0);
}

TEST(RateMeter, TakesClocksThatStandStill) {
    rate_meter meter;
    meter.add(3, 0);
    meter.add(3, 100);
    EXPECT_EQ(meter.rate(), 0);
    meter.add(4, 50);
    EXPECT_DOUBLE_EQ(meter.rate(), 50);
    meter.add(5, 0);
    EXPECT_EQ(meter.rate(), 0);
}

}  // namespace
}  // namespace zorvan::copy
