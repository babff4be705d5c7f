// The debug log: headers, levels, times, thread ids, what the environment variable decides.
#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>
#include <utility>

#include "module_fixture.h"

using namespace module_test;

namespace {

class DebugLog : public ModuleTest {
  protected:
    // One stat of the root: a few trace, info and debug statements from one thread after another.
    void work() {
        set_thread_mode(ThreadMode::deferred);
        login_with_deferred_thread();
        Operation op;
        call_stat(op, "/", true);
        run_deferred_threads();
        op.close();
        set_thread_mode(ThreadMode::real);
    }
    void login_with_deferred_thread() {
        s3_user("alice", {{"alice", "AK", "SK"}});
        Operation op;
        start(op, "alice");
        run_deferred_threads();
        ASSERT_TRUE(op.wait_finished());
        session = static_cast<zorvan_i_s3_handle_t*>(op.finish().session_handle);
        op.close();
    }
    std::vector<std::string> raw_lines() {
        std::vector<std::string> lines;
        std::istringstream text(log_text());
        for (std::string line; std::getline(text, line);)
            lines.push_back(line);
        return lines;
    }
};

TEST_F(DebugLog, UnsetVariablePrintsNothingAndOpensNoFile) {
    debug_value.reset();
    activate();
    EXPECT_EQ(zorvan_i_ZORVAN_S3_debug_handle.file, nullptr);
    work();
    EXPECT_FALSE(std::filesystem::exists(path_of("debug.log")));
}

TEST_F(DebugLog, LevelNamesStandAtTheirBits) {
    EXPECT_STREQ(zorvan_i_s3_debug_level_names[1], "TRACE");
    EXPECT_STREQ(zorvan_i_s3_debug_level_names[2], "INFO");
    EXPECT_STREQ(zorvan_i_s3_debug_level_names[4], "DEBUG");
    EXPECT_STREQ(zorvan_i_s3_debug_level_names[8], "WARN");
    EXPECT_STREQ(zorvan_i_s3_debug_level_names[16], "ERROR");
    for (const int i : {0, 3, 5, 6, 7, 9, 10, 11, 12, 13, 14, 15})
        EXPECT_TRUE(zorvan_i_s3_debug_level_names[i] == nullptr || *zorvan_i_s3_debug_level_names[i] == '\0')
            << i;
}

TEST_F(DebugLog, LevelsAreSwitchedOnByTheirWords) {
    uint32_t bit = 1;
    for (const char* word : {"TRACE", "INFO", "DEBUG", "WARNING", "ERROR"}) {
        debug_value = std::string(word) + ",%s,0," + word;
        activate();
        EXPECT_EQ(zorvan_i_ZORVAN_S3_debug_handle.levels, bit) << word;
        EXPECT_EQ(zorvan_i_ZORVAN_S3_debug_handle.timestamp_levels, bit) << word;
        deactivate();
        bit *= 2;
    }
}

TEST_F(DebugLog, HeaderHasTheLevelFiveWide) {
    activate();
    ZORVAN_S3_LOG_AS("f", ZORVAN_S3_TRACE, "one %d\n", 1);
    ZORVAN_S3_LOG_AS("f", ZORVAN_S3_INFO, "two\n");
    ZORVAN_S3_LOG_AS("f", ZORVAN_S3_DEBUG, "three\n");
    ZORVAN_S3_LOG_AS("f", ZORVAN_S3_WARN, "four\n");
    ZORVAN_S3_LOG_AS("f", ZORVAN_S3_ERROR, "five\n");
    EXPECT_TRUE(
        log_holds("s3: TRACE: f: one 1\ns3:  INFO: f: two\ns3: DEBUG: f: three\ns3:  WARN: f: four\n"
                  "s3: ERROR: f: five\n"))
        << log_text();
}

TEST_F(DebugLog, OnlyEnabledLevelsArePrinted) {
    debug_value = "INFO|ERROR,%s";
    activate();
    work();
    const auto lines = log_lines();
    EXPECT_FALSE(lines.empty());
    for (const auto& line : lines)
        EXPECT_TRUE(line.level == "INFO" || line.level == "ERROR") << line.level;
}

TEST_F(DebugLog, ArgumentsOfADisabledLevelAreNotEvaluated) {
    debug_value = "ERROR,%s";
    activate();
    int evaluated = 0;
    ZORVAN_S3_LOG_AS("f", ZORVAN_S3_TRACE, "%d\n", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    ZORVAN_S3_LOG_AS("f", ZORVAN_S3_ERROR, "%d\n", ++evaluated);
    EXPECT_GE(evaluated, 1);
}

TEST_F(DebugLog, TimesHaveNineDigitsOfWhichThreeAreZero) {
    debug_value = "ALL,%s,2";
    activate();
    work();
    const std::regex shape(R"(\d+\.\d{6}000::s3: +[A-Z]+: [^:]*: \d+\.\d{6}000::.*)");
    const auto lines = raw_lines();
    EXPECT_FALSE(lines.empty());
    for (const auto& line : lines)
        EXPECT_TRUE(std::regex_match(line, shape)) << line;
}

TEST_F(DebugLog, TimesOfOneLevelOnly) {
    debug_value = "ALL,%s,0,INFO";
    activate();
    work();
    const std::regex timed(R"(\d+\.\d{6}000::s3:  INFO: .*)");
    int timed_lines = 0;
    for (const auto& line : raw_lines()) {
        if (std::regex_match(line, timed))
            ++timed_lines;
        else
            EXPECT_TRUE(line.starts_with("s3: ")) << line;
    }
    EXPECT_GT(timed_lines, 0);
}

TEST_F(DebugLog, ThreadIdStandsBeforeHeaderAndMessage) {
    debug_value = "ALL,%s,1";
    activate();
    work();
    const std::regex shape(R"((\d+)::s3: +[A-Z]+: [^:]*: (\d+)::.*)");
    const auto lines = raw_lines();
    EXPECT_FALSE(lines.empty());
    for (const auto& line : lines) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, shape)) << line;
        EXPECT_EQ(match[1], match[2]);
    }
}

TEST_F(DebugLog, ThreadIdAndTimeTogether) {
    debug_value = "ALL,%s,3";
    activate();
    work();
    const std::regex shape(R"(\d+:\d+\.\d{6}000::s3: +[A-Z]+: [^:]*: \d+:\d+\.\d{6}000::.*)");
    const auto lines = raw_lines();
    EXPECT_FALSE(lines.empty());
    for (const auto& line : lines)
        EXPECT_TRUE(std::regex_match(line, shape)) << line;
}

TEST_F(DebugLog, LongFormatIsCutToTheBuffer) {
    debug_value = "ALL,%s,1";
    activate();
    const std::string format = std::string(6000, 'x') + "%d\n";
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    zorvan_i_ZORVAN_S3_debug_printf(format.c_str(), 5);
#pragma GCC diagnostic pop
    const auto text = log_text();
    const auto at = text.find("xxxx");
    ASSERT_NE(at, std::string::npos);
    EXPECT_LT(text.find_first_not_of('x', at) == std::string::npos ? text.size() - at : 0, 4096u);
    EXPECT_LT(text.size(), 4096u * 2 + at);
    EXPECT_FALSE(log_holds(std::string(4096, 'x')));
}

TEST_F(DebugLog, LongFormatIsCutWithATimeToo) {
    debug_value = "ALL,%s,2";
    activate();
    const std::string format = std::string(6000, 'x') + "%d\n";
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    zorvan_i_ZORVAN_S3_debug_time_printf(format.c_str(), 5);
#pragma GCC diagnostic pop
    const auto text = log_text();
    const auto at = text.rfind('.', text.find("xxxx"));
    ASSERT_NE(at, std::string::npos);
    const auto begin = text.rfind('\n', at) + 1;
    EXPECT_EQ(text.size() - begin, 4095u);
    EXPECT_EQ(text.back(), 'x');
}

TEST_F(DebugLog, WithoutAStreamNothingIsPrinted) {
    activate();
    FILE* const stream = std::exchange(zorvan_i_ZORVAN_S3_debug_handle.file, nullptr);
    zorvan_i_ZORVAN_S3_debug_printf("plain %d\n", 1);
    zorvan_i_ZORVAN_S3_debug_time_printf("timed %d\n", 2);
    ZORVAN_S3_LOG_AS("f", ZORVAN_S3_ERROR, "statement\n");
    zorvan_i_ZORVAN_S3_debug_handle.file = stream;
    EXPECT_FALSE(log_holds("plain 1"));
    EXPECT_FALSE(log_holds("timed 2"));
    EXPECT_FALSE(log_holds("statement"));
}

TEST_F(DebugLog, FractionHasItsLeadingZeros) {
    debug_value = "ALL,%s";
    activate();
    // The first tenth of a second is the one with zeros in front.
    timeval now{};
    while (gettimeofday(&now, nullptr) == 0 && now.tv_usec >= 50000)
        std::this_thread::sleep_for(std::chrono::microseconds(1000000 - now.tv_usec));
    zorvan_i_ZORVAN_S3_debug_time_printf("alone\n");
    zorvan_i_ZORVAN_S3_debug_handle.thread_ids = 1;
    zorvan_i_ZORVAN_S3_debug_time_printf("with the thread\n");
    const auto text = log_text();
    EXPECT_TRUE(std::regex_search(text, std::regex(R"(\n\d+\.\d{6}000::alone\n)"))) << text;
    EXPECT_TRUE(std::regex_search(text, std::regex(R"(\n\d+:\d+\.\d{6}000::with the thread\n)"))) << text;
}

TEST_F(DebugLog, ThreadAndTimeAreThoseOfTheCall) {
    debug_value = "ALL,%s,3";
    activate();
    // Not time(): its clock may lag behind by a tick.
    timeval before{};
    timeval after{};
    gettimeofday(&before, nullptr);
    zorvan_i_ZORVAN_S3_debug_time_printf("the call\n");
    gettimeofday(&after, nullptr);
    std::smatch match;
    const auto text = log_text();
    ASSERT_TRUE(std::regex_search(text, match, std::regex(R"((\d+):(\d+)\.\d{9}::the call)"))) << text;
    EXPECT_EQ(std::stoull(match[1]), static_cast<unsigned long long>(pthread_self()));
    EXPECT_GE(std::stoll(match[2]), before.tv_sec);
    EXPECT_LE(std::stoll(match[2]), after.tv_sec);
}

TEST_F(DebugLog, NobodyWritesBetweenAHeaderAndItsMessage) {
    debug_value = "INFO,%s,1";
    activate();
    constexpr int count = 20000;
    const auto write = [] {
        for (int i = 0; i < count; ++i)
            ZORVAN_S3_LOG_AS("f", ZORVAN_S3_INFO, "statement\n");
    };
    std::thread other(write);
    write();
    other.join();
    const auto lines = raw_lines();
    EXPECT_EQ(lines.size(), 2U * count);
    for (const auto& line : lines) {
        const auto id = line.substr(0, line.find(':'));
        ASSERT_EQ(line, id + "::s3:  INFO: f: " + id + "::statement");
    }
}

TEST_F(DebugLog, EntryAndExitOfAFunctionAreTraced) {
    activate();
    EXPECT_TRUE(logged("TRACE", "zorvan_i_s3_stat", "enter") == false);
    work();
    EXPECT_TRUE(logged("TRACE", "zorvan_i_s3_stat", "enter"));
    EXPECT_TRUE(logged("TRACE", "zorvan_i_s3_stat", "exit"));
    EXPECT_TRUE(logged("TRACE", "zorvan_l_s3_stat_thread", "enter"));
}

TEST_F(DebugLog, SuccessAndFailureOfAResult) {
    activate();
    zorvan_i_s3_log_result("f", ZORVAN_SUCCESS);
    EXPECT_TRUE(logged("TRACE", "f", "result=ZORVAN_SUCCESS"));
    zorvan_i_s3_log_result("g", ZORVAN_SUCCESS, ZORVAN_S3_INFO, ZORVAN_S3_INFO);
    EXPECT_TRUE(logged("INFO", "g", "result=ZORVAN_SUCCESS"));
    const auto result = zorvan_error_put(
        zorvan_error_construct_error(nullptr, nullptr, 6, "file", "function", 1, "%s", "the text"));
    zorvan_i_s3_log_result("h", result);
    EXPECT_TRUE(logged("ERROR", "h", "result=" + result_text(result) + " message=the text"));
    EXPECT_NE(zorvan_error_peek(result), nullptr) << "the log must not take the object";
    release_result(result);
}

TEST_F(DebugLog, PlainFailureIsPrintedWithoutAnObject) {
    activate();
    zorvan_i_s3_log_result("f", ZORVAN_FAILURE);
    EXPECT_TRUE(log_says("f: result=0xffffffff message=")) << log_text();
}

TEST_F(DebugLog, HandlerExitNamesTheStatus) {
    activate();
    {
        zorvan_i_s3_trace_t scope("f");
        EXPECT_EQ(scope.exit_status(S3StatusErrorNoSuchKey), S3StatusErrorNoSuchKey);
    }
    EXPECT_TRUE(logged("TRACE", "f", "enter"));
    EXPECT_TRUE(logged("TRACE", "f", "exit status=102: ErrorNoSuchKey"));
    EXPECT_FALSE(logged("TRACE", "f", "exit"));
}

TEST_F(DebugLog, NumberExitIsPrinted) {
    activate();
    {
        zorvan_i_s3_trace_t("f").exit(17);
    }
    EXPECT_TRUE(logged("TRACE", "f", "exit: 17"));
}

}  // namespace
