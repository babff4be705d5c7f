// The control line parser: the same lines however the bytes are cut, Telnet out, long lines reported once.
#include "control_line.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using namespace zorvan::gridftp;

namespace {

struct parsed {
    std::vector<std::string> lines;  // "<too long>" stands for a reported long line
    std::string answers;
};

parsed parse(std::string_view bytes, const std::vector<std::size_t>& pieces = {}) {
    control_line_state state;
    parsed result;
    std::size_t begin = 0;
    std::size_t index = 0;
    while (begin < bytes.size()) {
        const std::size_t length = index < pieces.size() ? pieces[index++] : bytes.size() - begin;
        std::string_view rest = bytes.substr(begin, length);
        begin += rest.size();
        while (!rest.empty()) {
            control_line_step step = parse_control_line(state, rest);
            EXPECT_GT(step.consumed, 0U);
            rest.remove_prefix(step.consumed);
            result.answers += step.answer;
            if (step.complete) result.lines.push_back(step.too_long ? "<too long>" : step.line);
        }
    }
    return result;
}

using lines = std::vector<std::string>;

}  // namespace

TEST(ControlLine, EndsInCrLfOrBareLf) {
    EXPECT_EQ(parse("USER a\r\nPASS b\nNOOP\r\n").lines, (lines{"USER a", "PASS b", "NOOP"}));
}

TEST(ControlLine, AnUnfinishedLineIsNotALine) {
    EXPECT_TRUE(parse("USER a\r").lines.empty());
}

TEST(ControlLine, KeepsACrInsideALine) {
    EXPECT_EQ(parse("A\rB\r\n").lines, (lines{"A\rB"}));
}

TEST(ControlLine, ReportsALongLineOnceAndSkipsItsRest) {
    const std::string most(control_line_limit, 'x');
    EXPECT_EQ(parse(most + "\r\nNOOP\r\n").lines, (lines{most, "NOOP"}));
    EXPECT_EQ(parse(most + "\nNOOP\r\n").lines, (lines{most, "NOOP"}));
    EXPECT_EQ(parse(most + "y\r\nNOOP\r\n").lines, (lines{"<too long>", "NOOP"}));
    EXPECT_EQ(parse(std::string(1000000, 'x') + "\nNOOP\n").lines, (lines{"<too long>", "NOOP"}));
}

TEST(ControlLine, MemoryStaysBounded) {
    control_line_state state;
    const std::string chunk(65536, 'x');
    for (int round = 0; round < 100; ++round)
        parse_control_line(state, chunk);
    EXPECT_LE(state.line.capacity(), 4 * control_line_limit);
}

TEST(ControlLine, TelnetCommandsAreTakenOut) {
    EXPECT_EQ(parse("\xff\xf4\xff\xf2"
                    "ABOR\r\n")
                  .lines,
              (lines{"ABOR"}));
    // The urgent byte went missing: the lone IAC must not eat the first letter.
    EXPECT_EQ(parse("\xff\xf4\xff"
                    "ABOR\r\n")
                  .lines,
              (lines{"ABOR"}));
    EXPECT_EQ(parse("CWD a\xff\xff"
                    "b\r\n")
                  .lines,
              (lines{"CWD a\xff"
                     "b"}));
}

TEST(ControlLine, TelnetOptionsAreRefused) {
    const parsed result = parse("\xff\xfb\x01\xff\xfd\x03\xff\xfc\x05\xff\xfe\x06NOOP\r\n");
    EXPECT_EQ(result.lines, (lines{"NOOP"}));
    EXPECT_EQ(result.answers, "\xff\xfe\x01\xff\xfc\x03");
}

TEST(ControlLine, TelnetSubnegotiationIsSkipped) {
    EXPECT_EQ(parse("NO\xff\xfa\x18\x01xyz\xff\xf0OP\r\n").lines, (lines{"NOOP"}));
    EXPECT_EQ(parse("\xff\xfa\x18never ended\nNOOP\r\n").lines.back(), "NOOP");
}

TEST(ControlLine, AnIacInFrontOfTheLineEndDoesNotSwallowIt) {
    EXPECT_EQ(parse("NOOP\xff\r\nSYST\r\n").lines, (lines{"NOOP", "SYST"}));
    EXPECT_EQ(parse("NOOP\xff\nSYST\r\n").lines, (lines{"NOOP", "SYST"}));
}

TEST(ControlLine, IsAFunctionOfTheBytesAlone) {
    std::mt19937 random(20240607);
    const std::string alphabet = std::string("AB \r\n\xff\xfa\xf0\xfb\xfd\xf4") + '\0';
    for (int round = 0; round < 300; ++round) {
        std::string bytes;
        for (int index = 0; index < 200; ++index)
            bytes += alphabet[random() % alphabet.size()];
        std::vector<std::size_t> pieces;
        for (std::size_t sum = 0; sum < bytes.size();) {
            pieces.push_back(1 + random() % 7);
            sum += pieces.back();
        }
        const parsed whole = parse(bytes);
        const parsed cut = parse(bytes, pieces);
        ASSERT_EQ(whole.lines, cut.lines);
        ASSERT_EQ(whole.answers, cut.answers);
    }
}

TEST(ControlLine, SplitsAtTheFirstBlank) {
    EXPECT_EQ(split_command_line("CWD  a b ").verb, "CWD");
    EXPECT_EQ(split_command_line("CWD  a b ").argument, " a b ");
    EXPECT_EQ(split_command_line("  NOOP").verb, "NOOP");
    EXPECT_EQ(split_command_line("NOOP").argument, "");
    EXPECT_EQ(split_command_line(" \t ").verb, "");
}

TEST(ControlLine, LogsNoPasswordAndNoControlByte) {
    EXPECT_EQ(loggable_line("PASS secret"), "PASS ****");
    EXPECT_EQ(loggable_line("pass secret"), "PASS ****");
    EXPECT_EQ(loggable_line("CWD a\rb\x1b"), "CWD a\\x0db\\x1b");
    EXPECT_EQ(loggable_line("CWD \xc3\xa4\xff"), "CWD \xc3\xa4\\xff");
}
