// What the tests of the namespace commands share.
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "module_fixture.h"

namespace module_test {

inline constexpr int mkd = ZORVAN_GRIDFTP_SERVER_COMMAND_MKD;
inline constexpr int rmd = ZORVAN_GRIDFTP_SERVER_COMMAND_RMD;
inline constexpr int dele = ZORVAN_GRIDFTP_SERVER_COMMAND_DELE;
inline constexpr int rnto = ZORVAN_GRIDFTP_SERVER_COMMAND_RNTO;
inline constexpr int cksm = ZORVAN_GRIDFTP_SERVER_COMMAND_CKSM;
inline constexpr int stage = ZORVAN_GRIDFTP_SERVER_COMMAND_CUSTOM;

class CommandTest : public ModuleTest {
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
    /// Run a command to its end; the worker runs after the entry, so that the log is in order.
    std::unique_ptr<Operation> command(int code, const std::optional<std::string>& path,
                                       const std::optional<std::string>& from = std::nullopt,
                                       const std::optional<std::string>& algorithm = std::nullopt,
                                       int64_t offset = 0, int64_t length = -1) {
        auto op = std::make_unique<Operation>();
        op->update_interval = update_interval;
        set_thread_mode(ThreadMode::deferred);
        call_command(*op, code, path, from, algorithm, offset, length);
        run_deferred_threads();
        set_thread_mode(ThreadMode::real);
        EXPECT_TRUE(op->wait_finished());
        op->close();
        EXPECT_EQ(op->finish().kind, Ending::command);
        EXPECT_EQ(op->finishes.size(), 1u);
        return op;
    }
    static void expect_success(const Operation& op, const Text& text = std::nullopt) {
        EXPECT_EQ(op.finish().result, ZORVAN_SUCCESS) << op.finish().error.friendly;
        EXPECT_EQ(op.finish().text, text);
    }
    /// The line before the finished call; without a path when `path` is none.
    void expect_end_line(const Operation& op, const Text& path) {
        const auto line = "finished_command: op=" + pointer_text(&op) +
                          " result=" + result_text(op.finish().result) + (path ? " path=" + *path : "");
        EXPECT_TRUE(logged("INFO", line)) << line;
    }
    static Reply failing(S3Status status) {
        Reply reply;
        reply.status = status;
        return reply;
    }
    void forbid_all_but(const char* bucket) {
        session->allowed_buckets = static_cast<char**>(std::calloc(2, sizeof(char*)));
        session->allowed_buckets[0] = strdup(bucket);
    }
    int update_interval = 0;
};

}  // namespace module_test
