// Handles grow through 32 bits, wrap, and skip what is reserved or still in use.

#include "handle_counter.h"

#include <set>

#include "support.h"

namespace {

using zorvan::common::HandleCounter;
using zorvan::common::kOutOfMemoryHandle;

constexpr auto kNothingLive = [](zorvan_result_t) { return false; };

TEST(HandleCounterTest, StartsAtOneAndGrows) {
    HandleCounter counter;
    EXPECT_EQ(counter.next(kNothingLive), 1U);
    EXPECT_EQ(counter.next(kNothingLive), 2U);
    EXPECT_EQ(counter.next(kNothingLive), 3U);
}

TEST(HandleCounterTest, WrapsPastTheReservedValues) {
    HandleCounter counter(0xfffffffcU);
    EXPECT_EQ(counter.next(kNothingLive), 0xfffffffdU);
    EXPECT_EQ(counter.next(kNothingLive), 1U);
    EXPECT_TRUE(HandleCounter::is_reserved(ZORVAN_SUCCESS));
    EXPECT_TRUE(HandleCounter::is_reserved(ZORVAN_FAILURE));
    EXPECT_TRUE(HandleCounter::is_reserved(kOutOfMemoryHandle));
    EXPECT_FALSE(HandleCounter::is_reserved(1));
}

TEST(HandleCounterTest, SkipsLiveHandlesAfterAWrap) {
    HandleCounter counter(0xfffffffcU);
    const std::set<zorvan_result_t> live{0xfffffffdU, 1, 2, 4};
    const auto is_live = [&live](zorvan_result_t value) { return live.contains(value); };
    EXPECT_EQ(counter.next(is_live), 3U);
    EXPECT_EQ(counter.next(is_live), 5U);
}

}  // namespace
