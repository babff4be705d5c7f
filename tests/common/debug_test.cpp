// The debug handle: every form of the value, every way to get it wrong, and where the lines go.

#include <ostream>

#include "support.h"

namespace {

using zorvan::test::Environment;
using zorvan::test::read_file;
using zorvan::test::TemporaryFolder;

constexpr char kVariable[] = "ZORVAN_DEBUG_TEST";
constexpr char kNames[] = "TRACE INFO DEBUG WARNING ERROR";

class DebugTest : public zorvan::test::CommonTest {
  protected:
    void TearDown() override {
        if (handle_.using_file != 0) std::fclose(handle_.file);
        CommonTest::TearDown();
    }
    int init(const std::string& value, const char* names = kNames) {
        const Environment environment(kVariable, value);
        return zorvan_debug_init(&handle_, kVariable, names);
    }

    zorvan_debug_handle_t handle_{};
};

struct LevelsCase {
    const char* value;
    uint32_t levels;
};

void PrintTo(const LevelsCase& test_case, std::ostream* out) {
    *out << test_case.value;
}

class DebugLevelsTest : public DebugTest, public ::testing::WithParamInterface<LevelsCase> {};

TEST_P(DebugLevelsTest, AreRead) {
    EXPECT_EQ(init(GetParam().value), 0);
    EXPECT_EQ(handle_.levels, GetParam().levels);
    EXPECT_EQ(handle_.timestamp_levels, 0U);
    EXPECT_EQ(handle_.file, stderr);
    EXPECT_EQ(handle_.thread_ids, 0);
    EXPECT_EQ(handle_.using_file, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Forms, DebugLevelsTest,
    ::testing::Values(LevelsCase{"1", 1}, LevelsCase{"31", 31}, LevelsCase{"4294967295", 0xffffffffU},
                      LevelsCase{"TRACE", 1}, LevelsCase{"error", 16}, LevelsCase{"Info|WARNING", 2 | 8},
                      LevelsCase{"TRACE|INFO|DEBUG|WARNING|ERROR", 31}, LevelsCase{"ALL", 0xffffffffU},
                      LevelsCase{"all", 0xffffffffU}, LevelsCase{"^TRACE", ~1U},
                      LevelsCase{"^TRACE|INFO", ~3U}, LevelsCase{"^1", ~1U}, LevelsCase{"^0", 0xffffffffU},
                      LevelsCase{"8|TRACE", 9}, LevelsCase{"1,", 1}, LevelsCase{"1,,", 1},
                      LevelsCase{"1,,,", 1}, LevelsCase{"1,,0,0", 1}));

class DebugUnreadableTest : public DebugTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(DebugUnreadableTest, LeavesLoggingOffAndSaysSoOnce) {
    handle_ = {1, 1, stderr, 1, 0};
    ::testing::internal::CaptureStderr();
    const int first = init(GetParam());
    const int second = init(GetParam());
    const std::string said = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(first, -1);
    EXPECT_EQ(second, -1);
    EXPECT_EQ(handle_.file, nullptr);
    EXPECT_EQ(handle_.levels, 0U);
    EXPECT_EQ(handle_.timestamp_levels, 0U);
    EXPECT_EQ(handle_.thread_ids, 0);
    EXPECT_EQ(handle_.using_file, 0);
    EXPECT_EQ(said, std::string(kVariable) + "=\"" + GetParam() +
                        "\": not of the form LEVELS[,FILE[,FLAGS[,TIMESTAMP_LEVELS]]]: logging is off\n");
}

INSTANTIATE_TEST_SUITE_P(Values, DebugUnreadableTest,
                         ::testing::Values("NOISE", "TRACE|NOISE", "TRACE|", "|", "^", "-1", "+1", "0x1f",
                                           "1 ", " 1", "4294967296", ",", ",file", "1,,x", "1,,1x", "1,,-1",
                                           "1,,,NOISE", "1,,,^", "1,#", "1,,,,", "1,,,1,1"));

TEST_F(DebugTest, AnotherUnreadableValueIsSaidAgain) {
    ::testing::internal::CaptureStderr();
    init("first bad value");
    init("second bad value");
    const std::string said = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(said.find("first bad value"), std::string::npos);
    EXPECT_NE(said.find("second bad value"), std::string::npos);
}

TEST_F(DebugTest, UnsetEmptyAndZeroLeaveLoggingOffInSilence) {
    ::testing::internal::CaptureStderr();
    handle_ = {1, 1, stderr, 1, 0};
    {
        const Environment environment(kVariable, std::nullopt);
        EXPECT_EQ(zorvan_debug_init(&handle_, kVariable, kNames), -1);
    }
    EXPECT_EQ(handle_.file, nullptr);
    EXPECT_EQ(handle_.levels, 0U);
    EXPECT_EQ(init(""), -1);
    EXPECT_EQ(init("0"), -1);
    EXPECT_EQ(init("^ALL"), -1);
    EXPECT_EQ(handle_.file, nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(DebugTest, NullArgumentsLeaveLoggingOff) {
    EXPECT_EQ(zorvan_debug_init(nullptr, kVariable, kNames), -1);
    EXPECT_EQ(zorvan_debug_init(&handle_, nullptr, kNames), -1);
    EXPECT_EQ(init("5", nullptr), 0);  // numbers need no words
    EXPECT_EQ(handle_.levels, 5U);
}

TEST_F(DebugTest, BlanksBetweenLevelWordsDoNotCount) {
    EXPECT_EQ(init("LOUD", "  QUIET   LOUD "), 0);
    EXPECT_EQ(handle_.levels, 2U);
}

TEST_F(DebugTest, FlagBitsTurnOnThreadIdsAndTimes) {
    EXPECT_EQ(init("6,,1"), 0);
    EXPECT_EQ(handle_.thread_ids, 1);
    EXPECT_EQ(handle_.timestamp_levels, 0U);
    EXPECT_EQ(init("6,,2"), 0);
    EXPECT_EQ(handle_.thread_ids, 0);
    EXPECT_EQ(handle_.timestamp_levels, 6U);  // every enabled level
    EXPECT_EQ(init("6,,3"), 0);
    EXPECT_EQ(handle_.thread_ids, 1);
    EXPECT_EQ(handle_.timestamp_levels, 6U);
}

TEST_F(DebugTest, TimestampLevelsAreReadLikeLevels) {
    EXPECT_EQ(init("ALL,,0,ERROR"), 0);
    EXPECT_EQ(handle_.timestamp_levels, 16U);
    EXPECT_EQ(init("ALL,,,TRACE|WARNING"), 0);
    EXPECT_EQ(handle_.timestamp_levels, 9U);
    EXPECT_EQ(init("ALL,,,^TRACE"), 0);
    EXPECT_EQ(handle_.timestamp_levels, ~1U);
    EXPECT_EQ(init("1,,2,4"), 0);
    EXPECT_EQ(handle_.timestamp_levels, 5U);
}

TEST_F(DebugTest, AFileIsTruncatedAndWrittenLineByLine) {
    const TemporaryFolder folder;
    const auto path = folder / "log";
    std::ofstream(path) << "old\n";
    ASSERT_EQ(init("TRACE," + path.string() + ",3"), 0);
    EXPECT_EQ(handle_.using_file, 1);
    ASSERT_NE(handle_.file, nullptr);
    std::fputs("new\n", handle_.file);
    EXPECT_EQ(read_file(path), "new\n");  // without a flush
}

TEST_F(DebugTest, ALeadingHashAppends) {
    const TemporaryFolder folder;
    const auto path = folder / "log";
    std::ofstream(path) << "old\n";
    ASSERT_EQ(init("TRACE,#" + path.string()), 0);
    std::fputs("new\n", handle_.file);
    EXPECT_EQ(read_file(path), "old\nnew\n");
}

TEST_F(DebugTest, AFileThatCannotBeOpenedLeavesLoggingOffAndSaysWhyOnce) {
    const TemporaryFolder folder;
    const std::string value = "TRACE," + (folder / "missing").string() + "/log";
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(init(value), -1);
    EXPECT_EQ(init(value), -1);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              std::string(kVariable) + "=\"" + value + "\": No such file or directory: logging is off\n");
    EXPECT_EQ(handle_.file, nullptr);
}

TEST_F(DebugTest, AnUnreadableValueDoesNotTouchTheFile) {
    const TemporaryFolder folder;
    const auto path = folder / "log";
    std::ofstream(path) << "old\n";
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(init("TRACE," + path.string() + ",x"), -1);
    EXPECT_NE(::testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(read_file(path), "old\n");
}

}  // namespace
