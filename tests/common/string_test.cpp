// Texts on malloc'd memory.

#include "support.h"

namespace {

using zorvan::test::take;

std::string v_create(const char* format, ...) ZORVAN_PRINTF(1, 2);

std::string v_create(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string text = take(zorvan_common_v_create_string(format, arguments));
    va_end(arguments);
    return text;
}

class StringTest : public zorvan::test::CommonTest {};

TEST_F(StringTest, StrdupCopies) {
    const char original[] = "text";
    char* copy = zorvan_libc_strdup(original);
    EXPECT_NE(copy, original);
    EXPECT_EQ(take(copy), "text");
    EXPECT_EQ(take(zorvan_libc_strdup("")), "");
    EXPECT_EQ(zorvan_libc_strdup(nullptr), nullptr);
}

TEST_F(StringTest, CreateStringFormats) {
    EXPECT_EQ(take(zorvan_common_create_string("%s-%d%%", "a", -1)), "a--1%");
    EXPECT_EQ(take(zorvan_common_create_string("%s", "")), "");
    EXPECT_EQ(v_create("%s=%u", "x", 7U), "x=7");
}

TEST_F(StringTest, CreateStringHasNoLimitOfItsOwn) {
    const std::string half(300'000, 'h');
    EXPECT_EQ(take(zorvan_common_create_string("%s|%s", half.c_str(), half.c_str())), half + "|" + half);
}

}  // namespace
