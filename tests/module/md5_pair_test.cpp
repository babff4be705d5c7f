// Two MD5 sums in one pass are the sums that the library gives.
#include <algorithm>
#include <array>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "faults.h"
#include "md5_pair.h"

using namespace module_test;

namespace {

// Everything that a sum consists of; of the unfinished block only what was taken in.
using State = std::array<uint64_t, 7>;
State state_of(const MD5_CTX& context) {
    return {context.A, context.B, context.C, context.D, context.Nl, context.Nh, context.num};
}
std::string unfinished(const MD5_CTX& context) {
    return {reinterpret_cast<const char*>(context.data), context.num};
}
std::string digest(MD5_CTX context) {
    std::string digest(MD5_DIGEST_LENGTH, '\0');
    EXPECT_EQ(MD5_Final(reinterpret_cast<unsigned char*>(digest.data()), &context), 1);
    return digest;
}

class Md5Pair : public testing::Test {
  protected:
    void SetUp() override {
        faults_reset();
        std::generate(source_.begin(), source_.end(),
                      [this] { return static_cast<unsigned char>(random_()); });
        begin_anew();
    }
    void TearDown() override { faults_reset(); }

    void begin_anew() {
        for (auto* const context : {&first_, &second_, &first_alone_, &second_alone_})
            ASSERT_EQ(MD5_Init(context), 1);
    }
    // Begin the two at different places: what was fed to one is not fed to the other.
    void feed_apart(size_t first, size_t second) {
        for (auto* const context : {&first_, &first_alone_})
            ASSERT_EQ(MD5_Update(context, source_.data(), first), 1);
        for (auto* const context : {&second_, &second_alone_})
            ASSERT_EQ(MD5_Update(context, source_.data() + 1000, second), 1);
    }
    void feed_both(size_t from, size_t length) {
        ASSERT_EQ(zorvan_i_s3_md5_update_both(&first_, &second_, source_.data() + from, length), 1);
        ASSERT_EQ(MD5_Update(&first_alone_, source_.data() + from, length), 1);
        ASSERT_EQ(MD5_Update(&second_alone_, source_.data() + from, length), 1);
        ASSERT_EQ(state_of(first_), state_of(first_alone_)) << from << " " << length;
        ASSERT_EQ(state_of(second_), state_of(second_alone_)) << from << " " << length;
        ASSERT_EQ(unfinished(first_), unfinished(first_alone_)) << from << " " << length;
        ASSERT_EQ(unfinished(second_), unfinished(second_alone_)) << from << " " << length;
    }
    void expect_same_sums() {
        EXPECT_EQ(digest(first_), digest(first_alone_));
        EXPECT_EQ(digest(second_), digest(second_alone_));
    }
    size_t up_to(size_t most) { return random_() % (most + 1); }

    std::mt19937 random_{1};
    std::vector<unsigned char> source_ = std::vector<unsigned char>(1 << 17);
    MD5_CTX first_, second_, first_alone_, second_alone_;
};

TEST_F(Md5Pair, EveryLengthAtEveryPlaceInABlock) {
    for (size_t before = 0; before < 64; ++before) {
        for (size_t length = 0; length <= 200; ++length) {
            begin_anew();
            feed_apart(before, before);
            feed_both(length % 16, length);
            if (HasFatalFailure()) return;
        }
    }
}

TEST_F(Md5Pair, OtherThingsBeforeAreKept) {
    feed_apart(640, 64 * 5);
    feed_both(0, 64 * 100);
    EXPECT_NE(digest(first_), digest(second_));
    expect_same_sums();
}

TEST_F(Md5Pair, DifferentPlacesInABlock) {
    feed_apart(3, 61);
    feed_both(7, 5000);
    feed_both(1, 64);
    expect_same_sums();
}

TEST_F(Md5Pair, ManyPiecesOfAnyLengthAndAlignment) {
    for (int piece = 0; piece < 2000; ++piece) {
        const size_t length = up_to(piece % 10 == 0 ? 70000 : 300);
        feed_both(up_to(source_.size() - length), length);
        if (HasFatalFailure()) return;
    }
    expect_same_sums();
}

TEST_F(Md5Pair, TheLengthInBitsCarriesOver) {
    for (auto* const context : {&first_, &first_alone_})
        context->Nl = 0xFFFFFE00;  // 64 bytes before 512 MiB
    feed_both(0, 64);
    EXPECT_EQ(first_.Nh, 1u);
    EXPECT_EQ(first_.Nl, 0u);
    EXPECT_EQ(second_.Nh, 0u);
    feed_both(0, 640);
    expect_same_sums();
}

TEST_F(Md5Pair, NothingAtAll) {
    ASSERT_EQ(zorvan_i_s3_md5_update_both(&first_, &second_, nullptr, 0), 1);
    EXPECT_EQ(state_of(first_), state_of(first_alone_));
    EXPECT_EQ(state_of(second_), state_of(second_alone_));
}

TEST_F(Md5Pair, AFailureIsTold) {
    fail_md5(Md5Step::update);
    EXPECT_EQ(zorvan_i_s3_md5_update_both(&first_, &second_, source_.data(), 64), 0);
    EXPECT_EQ(zorvan_i_s3_md5_update_both(&first_, &second_, source_.data(), 10), 0);
    fail_md5(Md5Step::none);
    feed_apart(1, 0);
    fail_md5(Md5Step::update);
    EXPECT_EQ(zorvan_i_s3_md5_update_both(&first_, &second_, source_.data(), 64), 0);
}

}  // namespace
