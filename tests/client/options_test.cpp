// The command line.
#include "options.h"

#include <gtest/gtest.h>

#include "failure.h"

namespace zorvan::copy {
namespace {

settings parsed(std::vector<std::string> arguments) {
    auto line = parse_command_line(std::move(arguments));
    EXPECT_TRUE(line.wanted);
    return line.wanted.value_or(settings{});
}

exit_status refused(std::vector<std::string> arguments) {
    try {
        parse_command_line(std::move(arguments));
        return exit_status::ok;
    } catch (const failure& error) {
        return error.status();
    }
}

TEST(Options, HaveDefaults) {
    const auto found = parsed({"file", "ftp://host/x"});
    EXPECT_FALSE(found.extended);
    EXPECT_EQ(found.parallel, 1U);
    EXPECT_EQ(found.sources.size(), 1U);
    EXPECT_EQ(found.sources[0].path, "file");
    EXPECT_TRUE(found.destination.remote());
    EXPECT_EQ(found.checksum, checksum_choice::automatic);
    EXPECT_EQ(found.limits.stall, std::chrono::seconds(120));
}

TEST(Options, ChooseTheMode) {
    EXPECT_TRUE(parsed({"--parallel", "4", "f", "ftp://h/x"}).extended);
    EXPECT_TRUE(parsed({"--mode", "extended", "f", "ftp://h/x"}).extended);
    EXPECT_FALSE(parsed({"--mode", "stream", "--active", "f", "ftp://h/x"}).extended);
}

TEST(Options, TakeSizesAndTimes) {
    const auto found = parsed({"--block-size", "256K", "--timeout", "7", "--retry", "3", "ftp://h/x", "f"});
    EXPECT_EQ(found.block_size, 256U * 1024);
    EXPECT_EQ(found.limits.stall, std::chrono::seconds(7));
    EXPECT_EQ(found.limits.connect, std::chrono::seconds(7));
    EXPECT_EQ(found.retries, 3U);
}

TEST(Options, TakeARestartFile) {
    EXPECT_TRUE(parsed({"--restart-file", "r", "f", "ftp://h/x"}).resume);
    EXPECT_EQ(refused({"--restart-file", "r", "f", "g", "ftp://h/x/"}), exit_status::bad_usage);
    EXPECT_EQ(refused({"--restart-file", "r", "--recursive", "f", "ftp://h/x/"}), exit_status::bad_usage);
}

TEST(Options, RefuseWhatMakesNoSense) {
    const std::vector<std::vector<std::string>> wrong{
        {},
        {"one"},
        {"a", "b"},
        {"ftp://h/x", "ftp://i/y"},
        {"a", "ftp://h/x", "b"},
        {"a", "b", "ftp://h/x"},
        {"a", "-", "ftp://h/x/"},
        {"--parallel", "0", "a", "ftp://h/x"},
        {"--parallel", "65", "a", "ftp://h/x"},
        {"--parallel", "x", "a", "ftp://h/x"},
        {"--mode", "block", "a", "ftp://h/x"},
        {"--mode", "stream", "--parallel", "2", "a", "ftp://h/x"},
        {"--active", "--parallel", "2", "a", "ftp://h/x"},
        {"--block-size", "1", "a", "ftp://h/x"},
        {"--block-size", "1T", "a", "ftp://h/x"},
        {"--checksum", "crc", "a", "ftp://h/x"},
        {"--timeout", "0", "a", "ftp://h/x"},
        {"--no-such-option", "a", "ftp://h/x"},
        {"ftp://h/x", "ftp://h/y", "-"},
    };
    for (const auto& each : wrong) {
        EXPECT_EQ(refused(each), exit_status::bad_usage) << testing::PrintToString(each);
    }
    EXPECT_EQ(refused({"a", "gopher://h/x"}), exit_status::malformed_url);
}

TEST(Options, TellAllThatOneNeeds) {
    const auto help = parse_command_line({"--help"});
    EXPECT_FALSE(help.wanted);
    for (const char* word :
         {"--parallel", "--resume", "--checksum", "--retry", "ZORVAN_COPY_PASSWORD", "--recursive",
          "  67  login denied", " 100  checksums differ", "ftp://host/bucket/key is /bucket/key"}) {
        EXPECT_NE(help.text.find(word), std::string::npos) << word;
    }
    EXPECT_EQ(parse_command_line({"--version"}).text.find("zorvan-copy "), 0U);
}

}  // namespace
}  // namespace zorvan::copy
