// Local files: what is sent must not change, what is received shows only when it is complete.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <thread>

#include "failure.h"
#include "local_file.h"
#include "temporary_folder.h"

namespace zorvan::copy {
namespace {

std::string read_all(source_file& file, std::size_t piece = 3) {
    std::string text;
    std::vector<unsigned char> buffer(piece);
    while (const auto count = file.next(buffer, {}).size) {
        text.append(reinterpret_cast<const char*>(buffer.data()), count);
    }
    return text;
}

exit_status status_of(const std::function<void()>& action) {
    try {
        action();
        return exit_status::ok;
    } catch (const failure& error) {
        return error.status();
    }
}

TEST(SourceFile, IsReadAndSummed) {
    const temporary_folder folder;
    folder.write("x", "abcdefgh");
    source_file file(folder.path("x"));
    EXPECT_EQ(file.size(), 8U);
    file.start(0, true, {});
    EXPECT_EQ(read_all(file), "abcdefgh");
    EXPECT_EQ(file.md5(), "e8dc4081b13434b45189a720b77b6818");
    file.start(5, true, {});
    EXPECT_EQ(read_all(file), "fgh");
    EXPECT_EQ(file.md5(), "e8dc4081b13434b45189a720b77b6818");
    file.start(8, false, {});
    EXPECT_EQ(read_all(file), "");
}

TEST(SourceFile, MayBeEmpty) {
    const temporary_folder folder;
    folder.write("x", "");
    source_file file(folder.path("x"));
    file.start(0, true, {});
    EXPECT_EQ(read_all(file), "");
    EXPECT_EQ(file.md5(), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(SourceFile, GivesEachByteOnceToManyThreads) {
    const temporary_folder folder;
    const std::string content(300000, 'x');
    folder.write("x", content);
    source_file file(folder.path("x"));
    file.start(0, true, {});
    std::array<std::uint64_t, 4> counts{};
    std::vector<std::thread> threads;
    threads.reserve(counts.size());
    for (auto& count : counts) {
        threads.emplace_back([&] { count = read_all(file, 1000).size(); });
    }
    for (auto& each : threads) {
        each.join();
    }
    EXPECT_EQ(counts[0] + counts[1] + counts[2] + counts[3], content.size());
}

TEST(SourceFile, TellsThatItChanged) {
    const temporary_folder folder;
    std::vector<unsigned char> buffer(3);
    const std::vector<std::function<void()>> changes{
        [&] { folder.write("x", "abc"); },
        [&] { folder.write("x", "abcdefghi"); },
        [&] { ASSERT_EQ(::truncate(folder.path("x").c_str(), 2), 0); },
        [&] {
            // Of the same length: only the time tells.
            folder.write("x", "ABCDEFGH");
            const std::array<timespec, 2> times{timespec{1, 0}, timespec{1, 0}};
            ASSERT_EQ(::utimensat(AT_FDCWD, folder.path("x").c_str(), times.data(), 0), 0);
        },
    };
    for (const auto& change : changes) {
        folder.write("x", "abcdefgh");
        source_file file(folder.path("x"));
        file.start(0, false, {});
        EXPECT_EQ(file.next(buffer, {}).size, 3U);
        change();
        EXPECT_EQ(status_of([&] { read_all(file); }), exit_status::read_failed);
    }
}

TEST(SourceFile, HasToBeAFile) {
    const temporary_folder folder;
    EXPECT_EQ(status_of([&] { source_file(folder.path("none")); }), exit_status::read_failed);
    EXPECT_EQ(status_of([&] { source_file{folder.path()}; }), exit_status::read_failed);
}

TEST(PartFile, ShowsWhenItIsPublished) {
    const temporary_folder folder;
    folder.write("x", "old");
    part_file file(folder.path("x"), false);
    const std::string text = "new content";
    file.write_at(4, {reinterpret_cast<const unsigned char*>(text.data()) + 4, text.size() - 4});
    file.write_at(0, {reinterpret_cast<const unsigned char*>(text.data()), 4});
    EXPECT_EQ(folder.read("x"), "old");
    EXPECT_EQ(file.md5({}), "96c15c2bb2921193bf290df8cd85e2ba");
    file.publish();
    EXPECT_EQ(folder.read("x"), text);
    EXPECT_EQ(folder.names(), std::vector<std::string>{"x"});
}

TEST(PartFile, IsKeptOrBegunAnew) {
    const temporary_folder folder;
    folder.write("x.part", "left over");
    EXPECT_EQ(part_file(folder.path("x"), true).size(), 9U);
    part_file file(folder.path("x"), false);
    EXPECT_EQ(file.size(), 0U);
    file.remove();
    EXPECT_TRUE(folder.names().empty());
}

TEST(PartFile, FollowsNoLink) {
    const temporary_folder folder;
    folder.write("other", "precious");
    ASSERT_EQ(::symlink("other", folder.path("x.part").c_str()), 0);
    EXPECT_EQ(status_of([&] { part_file(folder.path("x"), false); }), exit_status::write_failed);
    EXPECT_EQ(folder.read("other"), "precious");
}

TEST(PartFile, SaysWhenItCannotBeWritten) {
    const temporary_folder folder;
    EXPECT_EQ(status_of([&] { part_file(folder.path("none/x"), false); }), exit_status::write_failed);
    ::mkdir(folder.path("folder").c_str(), 0700);
    part_file file(folder.path("folder"), false);
    EXPECT_EQ(status_of([&] { file.publish(); }), exit_status::write_failed);
}

}  // namespace
}  // namespace zorvan::copy
