// Assertions stop the process with the promised line, in every build type.

#include "support.h"

namespace {

using zorvan::test::CommonTest;

class AssertionDeathTest : public CommonTest {
  protected:
    void SetUp() override {
        CommonTest::SetUp();
        ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    }
};

TEST_F(AssertionDeathTest, PrintsTheConditionFileAndLineAndAborts) {
    int answer = 41;
    const std::string line = std::to_string(__LINE__ + 1);
    EXPECT_EXIT(zorvan_assert(answer == 42), ::testing::KilledBySignal(SIGABRT),
                "^Assertion answer == 42 failed in file .*assertion_test\\.cpp at line " + line + "\n");
}

TEST_F(AssertionDeathTest, TheFormWithATextPrintsWhatItIsGiven) {
    EXPECT_EXIT(zorvan_assert_at(false, "res == ZORVAN_SUCCESS", "stat_list_buckets", 299),
                ::testing::KilledBySignal(SIGABRT),
                "^Assertion res == ZORVAN_SUCCESS failed in file stat_list_buckets at line 299\n");
}

TEST_F(AssertionDeathTest, NullTextsDoNotCrashTheReport) {
    EXPECT_EXIT(zorvan_i_assertion_failed(nullptr, nullptr, 7), ::testing::KilledBySignal(SIGABRT),
                "^Assertion \\(none\\) failed in file \\(none\\) at line 7\n");
}

class AssertionTest : public CommonTest {};

TEST_F(AssertionTest, ATrueConditionIsEvaluatedOnceAndPasses) {
    int evaluations = 0;
    zorvan_assert(++evaluations > 0);
    zorvan_assert_at(++evaluations > 0, "text", "file", 1);
    EXPECT_EQ(evaluations, 2);
}

}  // namespace
