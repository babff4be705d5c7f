// Paths: what clients type against what reaches the back end.
#include "path.h"

#include <gtest/gtest.h>

#include <random>

using namespace zorvan::gridftp;

namespace {

std::string resolved(std::string_view directory, std::string_view typed) {
    const auto path = resolve_path(directory, typed);
    return path ? path->path : "<refused>";
}

bool names_directory(std::string_view directory, std::string_view typed) {
    return resolve_path(directory, typed)->names_directory;
}

}  // namespace

TEST(Path, ResolvesAgainstTheWorkingDirectory) {
    EXPECT_EQ(resolved("/", "a"), "/a");
    EXPECT_EQ(resolved("/b", "a"), "/b/a");
    EXPECT_EQ(resolved("/b", "/a"), "/a");
    EXPECT_EQ(resolved("/b/c", ""), "/b/c");
    EXPECT_EQ(resolved("/b/c", "."), "/b/c");
    EXPECT_EQ(resolved("/b/c", ".."), "/b");
    EXPECT_EQ(resolved("/b/c", "../../../../x"), "/x");
    EXPECT_EQ(resolved("/b", ".."), "/");
    EXPECT_EQ(resolved("/", ".."), "/");
    EXPECT_EQ(resolved("/b", "//a///c//"), "/a/c");
    EXPECT_EQ(resolved("/b", "a/./c/../d"), "/b/a/d");
}

TEST(Path, KeepsNamesThatOnlyLookSpecial) {
    EXPECT_EQ(resolved("/", "..."), "/...");
    EXPECT_EQ(resolved("/", "a b "), "/a b ");
    EXPECT_EQ(resolved("/", "~"), "/~");
    EXPECT_EQ(resolved("/", "a\\b"), "/a\\b");
    EXPECT_EQ(resolved("/", "\xff\xfe"), "/\xff\xfe");
}

TEST(Path, RemembersThatADirectoryWasMeant) {
    EXPECT_FALSE(names_directory("/b", "a"));
    EXPECT_TRUE(names_directory("/b", "a/"));
    EXPECT_TRUE(names_directory("/b", "a//"));
    EXPECT_TRUE(names_directory("/b", "a/."));
    EXPECT_TRUE(names_directory("/b", "a/.."));
    EXPECT_TRUE(names_directory("/b", ""));
    EXPECT_TRUE(names_directory("/b", "/"));
    EXPECT_FALSE(names_directory("/b", "a/../c"));
}

TEST(Path, RefusesLineEndsAndNul) {
    EXPECT_EQ(resolved("/", "a\rb"), "<refused>");
    EXPECT_EQ(resolved("/", "a\nb"), "<refused>");
    EXPECT_EQ(resolved("/", std::string_view("a\0b", 3)), "<refused>");
}

TEST(Path, TellsTheRootAndItsChildren) {
    EXPECT_TRUE(resolve_path("/", "/")->is_root());
    EXPECT_FALSE(resolve_path("/", "/")->is_below_root());
    EXPECT_TRUE(resolve_path("/", "a")->is_below_root());
    EXPECT_FALSE(resolve_path("/", "a/b")->is_below_root());
}

TEST(Path, WhateverIsTypedTheFormIsCanonical) {
    std::mt19937 random(7);
    constexpr std::string_view pieces[] = {"/", ".", "..", "a", "//", "b c", "..."};
    for (int round = 0; round < 2000; ++round) {
        std::string typed;
        for (unsigned index = 0; index < random() % 12; ++index)
            typed += pieces[random() % std::size(pieces)];
        const auto result = resolve_path("/home/x", typed);
        ASSERT_TRUE(result);
        const std::string& path = result->path;
        ASSERT_EQ(path.front(), '/') << typed;
        ASSERT_TRUE(path == "/" || path.back() != '/') << typed;
        ASSERT_EQ(path.find("//"), std::string::npos) << typed;
        const std::string framed = path + "/";
        ASSERT_EQ(framed.find("/./"), std::string::npos) << typed;
        ASSERT_EQ(framed.find("/../"), std::string::npos) << typed;
        // Resolving a canonical path changes nothing.
        ASSERT_EQ(resolve_path("/elsewhere", path)->path, path);
    }
}

TEST(Path, LastComponent) {
    EXPECT_EQ(last_component("/"), "/");
    EXPECT_EQ(last_component("/a"), "a");
    EXPECT_EQ(last_component("/a/b"), "b");
}

TEST(Path, QuotesAsIn257) {
    EXPECT_EQ(quoted_path("/a"), "\"/a\"");
    EXPECT_EQ(quoted_path("/a\"b"), "\"/a\"\"b\"");
    EXPECT_EQ(quoted_path("/a\r\n257 x"), "\"/a??257 x\"");
}
