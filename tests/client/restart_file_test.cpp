// Restart files: written, read, and read when they are something else.
#include "restart_file.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <random>

#include "failure.h"
#include "temporary_folder.h"

namespace zorvan::copy {
namespace {

restart_record sample() {
    restart_record record;
    record.upload = true;
    record.remote = "ftp://host/a%20b";
    record.local = "/tmp/line\nend %41 \x7f";
    record.size = 1000;
    record.stamp = "1700000000.5";
    record.ranges.add(0, 100);
    record.ranges.add(200, 1000);
    return record;
}

TEST(RestartFile, ReadsWhatItWrote) {
    const auto found = parse_restart(format_restart(sample()));
    ASSERT_TRUE(found);
    EXPECT_TRUE(found->same_transfer(sample()));
    EXPECT_EQ(found->local, sample().local);
    EXPECT_EQ(found->ranges.text(), "0-100,200-1000");
    restart_record empty;
    ASSERT_TRUE(parse_restart(format_restart(empty)));
    EXPECT_TRUE(parse_restart(format_restart(empty))->ranges.empty());
}

TEST(RestartFile, IsNoneWhenCut) {
    const auto text = format_restart(sample());
    for (std::size_t length = 0; length < text.size(); ++length) {
        EXPECT_FALSE(parse_restart(text.substr(0, length))) << length;
    }
    EXPECT_FALSE(parse_restart(text + "x"));
}

TEST(RestartFile, IsNoneWhenGarbled) {
    const auto change = [](const std::string& from, const std::string& to) {
        auto text = format_restart(sample());
        const auto at = text.find(from);
        EXPECT_NE(at, std::string::npos) << from;
        return text.replace(at, from.size(), to);
    };
    EXPECT_FALSE(parse_restart(change("version 1", "version 2")));
    EXPECT_FALSE(parse_restart(change("direction upload", "direction up")));
    EXPECT_FALSE(parse_restart(change("size 1000", "size -1")));
    EXPECT_FALSE(parse_restart(change("size 1000", "size 99999999999999999999")));
    EXPECT_FALSE(parse_restart(change("size 1000", "size 999")));  // less than the ranges
    EXPECT_FALSE(parse_restart(change("0-100", "100-0")));
    EXPECT_FALSE(parse_restart(change("0-100", "0-x")));
    EXPECT_FALSE(parse_restart(change("%0a", "%zz")));
    EXPECT_FALSE(parse_restart(change("%7f\nsize", "%7\nsize")));
    EXPECT_FALSE(parse_restart(change("remote ", "remote")));
    EXPECT_FALSE(parse_restart(change("remote ", "")));
}

TEST(RestartFile, SurvivesAnyBytes) {
    std::mt19937 random(7);
    const auto good = format_restart(sample());
    for (int round = 0; round < 2000; ++round) {
        auto text = good;
        for (int changes = 0; changes < 3; ++changes) {
            text[random() % text.size()] = static_cast<char>(random());
        }
        if (const auto found = parse_restart(text)) {
            // A change in a path or a stamp cannot be seen; what is used stays within the file.
            EXPECT_TRUE(found->ranges.empty() || found->ranges.ranges().back().second <= found->size);
        }
    }
}

TEST(RestartFile, IsOfOneTransferOnly) {
    const auto one = sample();
    for (int which = 0; which < 5; ++which) {
        auto other = sample();
        if (which == 0) other.upload = false;
        if (which == 1) other.remote += "x";
        if (which == 2) other.local += "x";
        if (which == 3) other.size += 1;
        if (which == 4) other.stamp += "1";
        EXPECT_FALSE(one.same_transfer(other)) << which;
    }
    auto other = sample();
    other.ranges = {};
    EXPECT_TRUE(one.same_transfer(other));
}

TEST(RestartFile, LivesOnDisk) {
    const temporary_folder folder;
    const auto path = folder.path("x.restart");
    EXPECT_FALSE(read_restart_file(path));
    write_restart_file(path, sample());
    auto second = sample();
    second.ranges.add(100, 150);
    write_restart_file(path, second);
    EXPECT_TRUE(is_restart_file(path));
    EXPECT_EQ(read_restart_file(path)->ranges.text(), "0-150,200-1000");
    EXPECT_EQ(folder.names(), std::vector<std::string>{"x.restart"});
    remove_restart_file(path);
    EXPECT_TRUE(folder.names().empty());
}

TEST(RestartFile, IsNotAnybodysFile) {
    const temporary_folder folder;
    folder.write("notes.restart", "my own notes");
    EXPECT_FALSE(is_restart_file(folder.path("notes.restart")));
    EXPECT_FALSE(read_restart_file(folder.path("notes.restart")));
    remove_restart_file(folder.path("notes.restart"));
    EXPECT_EQ(folder.read("notes.restart"), "my own notes");
    EXPECT_FALSE(read_restart_file(folder.path("")));
    folder.write("big", std::string(20U << 20U, 'x'));
    EXPECT_FALSE(read_restart_file(folder.path("big")));
}

TEST(RestartFile, SaysWhenItCannotBeWritten) {
    const temporary_folder folder;
    try {
        write_restart_file(folder.path("missing/x"), sample());
        FAIL();
    } catch (const failure& error) {
        EXPECT_EQ(error.status(), exit_status::write_failed);
    }
}

}  // namespace
}  // namespace zorvan::copy
