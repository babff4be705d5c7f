// What the tests of downloads and uploads share.
#pragma once

#include <memory>
#include <string>

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
    static std::string cached_md5(const char* bucket, const char* key, const std::string& etag, size_t size) {
        char sum[zorvan_i_s3_md5sum_size] = "";
        return zorvan_i_s3_checksum_find(bucket, key, etag.c_str(), size, sum) ? sum : "(none)";
    }
};

}  // namespace module_test
