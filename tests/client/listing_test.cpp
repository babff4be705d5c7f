// Lines of MLSD listings.
#include <gtest/gtest.h>

#include "failure.h"
#include "session.h"

namespace zorvan::copy {
namespace {

TEST(ListingLine, IsAFileOrAFolder) {
    EXPECT_EQ(parse_listing_line("type=file;size=3; a b"), (listed_name{"a b", false}));
    EXPECT_EQ(parse_listing_line("size=3;Type=DIR;UNIX.mode=0755; x"), (listed_name{"x", true}));
    EXPECT_EQ(parse_listing_line("type=dir;  leading"), (listed_name{" leading", true}));
}

TEST(ListingLine, IsNothingToCopy) {
    EXPECT_FALSE(parse_listing_line("type=cdir; ."));
    EXPECT_FALSE(parse_listing_line("type=pdir; .."));
    EXPECT_FALSE(parse_listing_line("type=OS.unix=socket; s"));
}

TEST(ListingLine, LeadsNowhereElse) {
    for (const std::string line : {"type=file; ..", "type=dir; ..", "type=dir; .",
                                   "type=file; ../../etc/passwd", "type=file; /etc/passwd", "type=file; a/b",
                                   "type=file; ", "type=file;", "", "no facts", "type=file; a\rb"}) {
        try {
            parse_listing_line(line);
            ADD_FAILURE() << line;
        } catch (const failure& error) {
            EXPECT_EQ(error.status(), exit_status::weird_reply);
        }
    }
    EXPECT_THROW(parse_listing_line(std::string("type=file; a\0b", 14)), failure);
}

}  // namespace
}  // namespace zorvan::copy
