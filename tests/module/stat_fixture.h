// What the tests of stat and listing share: a logged-in session, one call to its end, expectations on
// entries.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "module_fixture.h"

namespace module_test {

class StatTest : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        activate();
        login();
    }

    void TearDown() override {
        expect_handlers_told();
        ModuleTest::TearDown();
    }

    /// Stat a path to its end; the log is in order because the worker runs after the entry.
    std::unique_ptr<Operation> stat(const std::string& path, bool file_only) {
        auto op = std::make_unique<Operation>();
        set_thread_mode(ThreadMode::deferred);
        call_stat(*op, path, file_only);
        run_deferred_threads();
        EXPECT_TRUE(op->wait_finished());
        op->close();
        set_thread_mode(ThreadMode::real);
        EXPECT_EQ(op->finish().kind, Ending::stat);
        return op;
    }

    /// Switch the debug log off without a new activation.
    static void deactivate_quietly() { zorvan_i_ZORVAN_S3_debug_handle.levels = 0; }

    static std::string key_name(int number) {
        char text[16];
        std::snprintf(text, sizeof text, "k%06d", number);
        return text;
    }
    /// A bucket with so many objects.
    static void fill(const std::string& bucket, int objects) {
        s3_bucket(bucket);
        for (int i = 0; i < objects; ++i)
            s3_object(bucket, key_name(i), "data");
    }
    static std::vector<std::string> names(const Operation& op) {
        std::vector<std::string> all;
        for (const auto& entry : op.entries)
            all.push_back(entry.name);
        return all;
    }

    static void expect_common(const StatEntry& entry) {
        EXPECT_EQ(entry.nlink, 1u);
        EXPECT_EQ(entry.symlink_target, std::nullopt);
        EXPECT_EQ(entry.uid, 0u);
        EXPECT_EQ(entry.gid, 0u);
        EXPECT_EQ(entry.atime, -1);
        EXPECT_EQ(entry.reserved, 0u);
    }
    static void expect_directory(const StatEntry& entry, const std::string& name, uint32_t dev, uint32_t ino,
                                 int64_t ctime = -1) {
        SCOPED_TRACE("directory " + name);
        expect_common(entry);
        EXPECT_EQ(entry.name, name);
        EXPECT_EQ(entry.mode, 040700u);
        EXPECT_EQ(entry.size, 0);
        EXPECT_EQ(entry.ctime, ctime);
        EXPECT_EQ(entry.mtime, -1);
        EXPECT_EQ(entry.dev, dev);
        EXPECT_EQ(entry.ino, ino);
    }
    static void expect_file(const StatEntry& entry, const std::string& name, int64_t size, int64_t mtime,
                            uint32_t dev, uint32_t ino) {
        SCOPED_TRACE("file " + name);
        expect_common(entry);
        EXPECT_EQ(entry.name, name);
        EXPECT_EQ(entry.mode, 0100700u);
        EXPECT_EQ(entry.size, size);
        EXPECT_EQ(entry.ctime, -1);
        EXPECT_EQ(entry.mtime, mtime);
        EXPECT_EQ(entry.dev, dev);
        EXPECT_EQ(entry.ino, ino);
    }
};

}  // namespace module_test
