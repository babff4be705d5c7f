// What the tests of downloads and uploads share.
#pragma once

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "module_fixture.h"

namespace module_test {

class TransferTest : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        activate(config());
        login();
    }
    virtual std::string config() { return standard_config; }

    /// Bytes that differ from block to block.
    static std::string bytes(size_t count, unsigned seed = 1) {
        std::string data(count, '\0');
        for (auto& byte : data) {
            seed = seed * 1664525u + 1013904223u;
            byte = static_cast<char>('A' + (seed >> 16) % 50);
        }
        return data;
    }
    /// Wait for the end of a transfer, close the operation and wait for the worker.
    static void finish(Operation& op) {
        EXPECT_TRUE(op.wait_finished());
        op.close();
        EXPECT_EQ(zorvan_thread_wait_all(20000), 1);
    }
    static void expect_success(const Operation& op) {
        EXPECT_EQ(op.finishes.size(), 1u);
        EXPECT_EQ(op.finish().kind, Ending::transfer);
        EXPECT_EQ(op.finish().result, ZORVAN_SUCCESS) << op.finish().error.friendly;
    }
    /// A line of the debug log, by its beginning, and the one level at which it is written.
    struct LevelledLine {
        uint32_t level;
        std::string line;
    };
    /// Run something once for each level, with that level alone: each line is written at its own and no
    /// other.
    /// @param whole_lines  false when errors are told, whose texts have several
    void expect_levels(const std::vector<LevelledLine>& lines, const std::function<void()>& run,
                       bool whole_lines = true) {
        for (const uint32_t level :
             {ZORVAN_S3_TRACE, ZORVAN_S3_INFO, ZORVAN_S3_DEBUG, ZORVAN_S3_WARN, ZORVAN_S3_ERROR}) {
            const auto before = log_text().size();
            zorvan_i_ZORVAN_S3_debug_handle.levels = level;
            run();
            zorvan_i_ZORVAN_S3_debug_handle.levels = 0;
            const auto log = log_text().substr(before);
            // Without the traces no two threads write at once: then every line is whole.
            std::istringstream written(log);
            for (std::string line; whole_lines && level != ZORVAN_S3_TRACE && std::getline(written, line);)
                EXPECT_TRUE(line.starts_with("s3: ")) << line;
            for (const auto& line : lines)
                EXPECT_EQ(log.find(line.line) != std::string::npos, line.level == level)
                    << level << ": " << line.line;
        }
    }
    /// The next call of that kind fails in a way that is worth a second try.
    static void fail_next(S3Kind kind) {
        s3_fail(kind, static_cast<int>(s3_calls(kind).size()) + 1, S3StatusErrorSlowDown);
    }
    static std::string cached_md5(const char* bucket, const char* key, const std::string& etag, size_t size) {
        char sum[zorvan_i_s3_md5sum_size] = "";
        return zorvan_i_s3_checksum_find(bucket, key, etag.c_str(), size, sum) ? sum : "(none)";
    }
};

}  // namespace module_test
