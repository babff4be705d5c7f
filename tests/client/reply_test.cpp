// Replies and what is in them, good ones and others.
#include "reply.h"

#include <gtest/gtest.h>

#include "failure.h"

namespace zorvan::copy {
namespace {

reply only(const std::string& text) {
    reply_parser parser;
    parser.feed(text);
    auto found = parser.take();
    EXPECT_TRUE(found) << text;
    return found.value_or(reply{});
}

bool is_weird(const std::string& text) {
    reply_parser parser;
    try {
        parser.feed(text);
        return false;
    } catch (const failure& error) {
        return error.status() == exit_status::weird_reply;
    }
}

TEST(Reply, IsOneLine) {
    const auto found = only("220 Ready.\r\n");
    EXPECT_EQ(found.code, 220);
    EXPECT_EQ(found.last(), "Ready.");
    EXPECT_TRUE(found.good());
    EXPECT_EQ(found.summary(), "220 Ready.");
}

TEST(Reply, MayBeBare) {
    EXPECT_EQ(only("200\n").last(), "");
    EXPECT_EQ(only("200 \n").summary(), "200");
}

TEST(Reply, ComesInPieces) {
    reply_parser parser;
    const std::string text = "150 Here.\r\n226 Done.\r\n";
    for (const char byte : text) {
        parser.feed({&byte, 1});
    }
    EXPECT_EQ(parser.take()->code, 150);
    EXPECT_EQ(parser.take()->code, 226);
    EXPECT_FALSE(parser.take());
}

TEST(Reply, HasLinesOfAnyKindInBetween) {
    const auto found =
        only("550-PATH_NOT_FOUND\r\n550-more\r\n 226 not the end\r\n226 nor this\r\n550 no such\r\n");
    EXPECT_EQ(found.code, 550);
    EXPECT_EQ(found.lines.size(), 5U);
    EXPECT_EQ(found.word(), "PATH_NOT_FOUND");
    EXPECT_EQ(found.last(), "no such");
    EXPECT_EQ(found.summary(), "550 PATH_NOT_FOUND: no such");
}

TEST(Reply, IsShownWithoutControlBytes) {
    EXPECT_EQ(only("550 \x1b[2Jgone\r\n").summary(), "550 \\x1b[2Jgone");
    EXPECT_LT(only("550 " + std::string(60000, 'x') + "\r\n").summary().size(), 600U);
}

TEST(Reply, IsNotAnything) {
    for (const char* text :
         {"\r\n", "hello\r\n", "99 x\r\n", "22\r\n", "220x\r\n", "020 x\r\n", "700 x\r\n", "2a0 x\r\n"}) {
        EXPECT_TRUE(is_weird(text)) << text;
    }
}

TEST(Reply, EndsSomewhere) {
    EXPECT_TRUE(is_weird(std::string(reply_parser::longest_line + 1, '2')));
    std::string many = "220-begin\r\n";
    while (many.size() < 2 * reply_parser::largest_reply) {
        many += "220-and on\r\n";
    }
    EXPECT_TRUE(is_weird(many));
}

TEST(Reply, MayBeARangeMarker) {
    EXPECT_EQ(range_marker(only("111 Range Marker 0-29,40-99\r\n")), "0-29,40-99");
    EXPECT_EQ(range_marker(only("111 range marker  0-29 \r\n")), "0-29");
    EXPECT_FALSE(range_marker(only("111 Range Marker\r\n")));
    EXPECT_FALSE(range_marker(only("112 Range Marker 0-29\r\n")));
    EXPECT_FALSE(range_marker(only("111 Other 0-29\r\n")));
}

TEST(Reply, NamesAPort) {
    EXPECT_EQ(extended_passive_port(only("229 Entering (|||6446|)\r\n")), 6446U);
    EXPECT_EQ(extended_passive_port(only("229 ($$$1$)\r\n")), 1U);
    EXPECT_EQ(passive_port(only("227 Entering Passive Mode (127,0,0,1,25,46).\r\n")), 25U * 256 + 46);
    EXPECT_EQ(passive_port(only("227 =10,1,2,3,255,255\r\n")), 65535U);
}

TEST(Reply, NamesNoPort) {
    for (const char* text : {"229 ok", "229 ()", "229 (||||)", "229 (|||0|)", "229 (|||65536|)",
                             "229 (|||12x|)", "229 (|||-1|)", "229 (|||99999999999999999999|)",
                             "229 (|1|2|3|)", "229 )|||12|(", "229 (111131)", "228 (|||12|)"}) {
        EXPECT_FALSE(extended_passive_port(only(std::string(text) + "\r\n"))) << text;
    }
    for (const char* text :
         {"227 ok", "227 1,2,3,4,5", "227 (1,2,3,4,5,256)", "227 (1,2,3,4,5,6", "227 1,2,3,4,0,0",
          "227 (1,2,3,4,5,)", "227 ,,,,,", "227 1,2,3,4,5,1000", "226 1,2,3,4,5,6"}) {
        const bool open_end = std::string_view(text) == "227 (1,2,3,4,5,6";
        EXPECT_EQ(passive_port(only(std::string(text) + "\r\n")).has_value(), open_end) << text;
    }
}

}  // namespace
}  // namespace zorvan::copy
