// Walks through local folders.
#include "tree.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "restart_file.h"
#include "temporary_folder.h"

namespace zorvan::copy {
namespace {

TEST(LocalTree, HasFilesAndEmptyFolders) {
    const temporary_folder folder;
    folder.write("b/c/deep", "1");
    folder.write("a", "2");
    ::mkdir(folder.path("b/none").c_str(), 0700);
    const auto found = walk_local(folder.path(), [](const failure& error) { ADD_FAILURE() << error.what(); });
    EXPECT_EQ(found, (std::vector<tree_item>{{"a", false}, {"b/c/deep", false}, {"b/none", true}}));
}

TEST(LocalTree, MayBeEmpty) {
    const temporary_folder folder;
    EXPECT_EQ(walk_local(folder.path(), {}), (std::vector<tree_item>{{"", true}}));
}

TEST(LocalTree, LeavesRestartFilesOut) {
    const temporary_folder folder;
    folder.write("x", "1");
    write_restart_file(folder.path("x.restart"), {});
    folder.write("notes.restart", "mine");
    EXPECT_EQ(walk_local(folder.path(), {}),
              (std::vector<tree_item>{{"notes.restart", false}, {"x", false}}));
}

TEST(LocalTree, TellsOfWhatItCannotTakeAndGoesOn) {
    const temporary_folder folder;
    folder.write("good", "1");
    folder.write("sub/linked", "2");
    ::mkfifo(folder.path("pipe").c_str(), 0600);
    ASSERT_EQ(::symlink("nowhere", folder.path("dangling").c_str()), 0);
    ASSERT_EQ(::symlink("..", folder.path("sub/loop").c_str()), 0);
    ASSERT_EQ(::symlink("sub/linked", folder.path("link").c_str()), 0);
    std::vector<exit_status> problems;
    const auto found =
        walk_local(folder.path(), [&](const failure& error) { problems.push_back(error.status()); });
    EXPECT_EQ(found, (std::vector<tree_item>{{"good", false}, {"link", false}, {"sub/linked", false}}));
    EXPECT_EQ(problems, std::vector<exit_status>(3, exit_status::read_failed));
}

TEST(LocalTree, HasToBeThere) {
    std::vector<exit_status> problems;
    EXPECT_TRUE(walk_local("/nonexistent", [&](const failure& error) {
                    problems.push_back(error.status());
                }).empty());
    EXPECT_EQ(problems, std::vector<exit_status>{exit_status::read_failed});
}

}  // namespace
}  // namespace zorvan::copy
