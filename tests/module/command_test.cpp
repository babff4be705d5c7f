// The command entry: codes, checks before any request, failures of the set-up.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "command_fixture.h"

using namespace module_test;

namespace {

class Command : public CommandTest {
  protected:
    // Run every command once with this path; rename goes from there to a neighbour.
    template <typename Use>
    void each_command(const std::string& path, const Use& use) {
        for (const int code : {mkd, rmd, dele, rnto, cksm, stage}) {
            SCOPED_TRACE("command " + std::to_string(code));
            auto op = std::make_unique<Operation>();
            use(*op, code, [&] {
                if (code == rnto)
                    call_command(*op, code, path + "2", path);
                else
                    call_command(*op, code, path, std::nullopt, "md5");
            });
        }
    }
};

TEST_F(Command, OtherCodesAreAnsweredAtOnceWithThePlainFailure) {
    const auto errors = zorvan_error_table_count();
    for (const int code : {0, 4, 5, 7, 9, 10, 4095, 4097, -1, 100000}) {
        Operation op;
        call_command(op, code, "/b/k");
        ASSERT_FALSE(op.finishes.empty()) << code;
        EXPECT_EQ(op.finish().kind, Ending::command);
        EXPECT_EQ(op.finish().result, ZORVAN_FAILURE) << code;
        EXPECT_EQ(op.finish().text, std::nullopt);
        op.close();
    }
    EXPECT_EQ(zorvan_error_table_count(), errors);
    for (const auto& line : log_lines())
        if (line.function == "zorvan_i_s3_command") {
            EXPECT_EQ(line.level, "TRACE") << line.message;
        }
}

TEST_F(Command, OperationBecomesTheSessionsCurrentOne) {
    each_command("/b/k", [&](Operation& op, int, const auto& call) {
        set_thread_mode(ThreadMode::deferred);
        call();
        EXPECT_EQ(session->current_op.load(), &op);
        run_deferred_threads();
        op.close();
    });
}

TEST_F(Command, EntryLines) {
    const auto line = [&](int code, const std::string& message) {
        auto op = code == rnto ? command(code, "/b/y", "/b/x") : command(code, "/b/x", {}, "md5", 3, 4);
        auto text = message;
        text.replace(text.find("OP"), 2, pointer_text(op.get()));
        EXPECT_TRUE(logged("INFO", text)) << text;
    };
    line(rmd, "rmdir op=OP pathname=/b/x");
    line(dele, "delete: op=OP pathname=/b/x");
    line(rnto, "rename: op=OP from_pathname=/b/x pathname=/b/y");
    line(cksm, "checksum: op=OP pathname=/b/x alg=md5 offset=3 length=4");
    line(stage, "stage: op=OP pathname=/b/x");
    command(mkd, "/b/x");
    bool seen = false;
    for (const auto& entry : log_lines())
        seen = seen || (entry.level == "INFO" && entry.message.starts_with("mkdir: op=") &&
                        entry.message.ends_with(" pathname=/b/x"));
    EXPECT_TRUE(seen);
}

TEST_F(Command, FailedAllocationIsTheMallocError) {
    each_command("/b/k", [&](Operation& op, int, const auto& call) {
        fail_allocation(1);
        call();
        fail_allocation(0);
        ASSERT_FALSE(op.finishes.empty());
        EXPECT_EQ(op.finish().kind, Ending::command);
        expect_system(op.finish().error, "malloc", ENOMEM);
        op.close();
    });
}

TEST_F(Command, FailedThread) {
    each_command("/b/k", [&](Operation& op, int code, const auto& call) {
        fail_next_thread(EAGAIN);
        call();
        ASSERT_FALSE(op.finishes.empty());
        if (code == cksm) {
            EXPECT_EQ(op.finish().error.type, ZORVAN_ERROR_TYPE_SYSTEM);
            EXPECT_EQ(op.finish().error.text, "System error in zorvan_thread_create");
        } else {
            EXPECT_EQ(op.finish().error.type, 6);
            EXPECT_EQ(op.finish().error.text, "zorvan_thread_create");
        }
        expect_end_line(op, code == mkd || code == dele || code == stage ? Text("/b/k") : std::nullopt);
        op.close();
    });
    EXPECT_TRUE(s3_calls(S3Kind::put_object).empty());
}

TEST_F(Command, ForbiddenBucketIsRefusedAtOnce) {
    forbid_all_but("mine");
    const auto threads = threads_asked_for();
    each_command("/b/k", [&](Operation& op, int code, const auto& call) {
        call();
        ASSERT_FALSE(op.finishes.empty());
        expect_ftp(op.finish().error, 550, "PERMISSION_DENIED", std::nullopt);
        expect_end_line(op, code == mkd || code == dele || code == stage ? Text("/b/k") : std::nullopt);
        op.close();
    });
    EXPECT_EQ(threads_asked_for(), threads);
}

TEST_F(Command, EveryAllocationThatFailsEndsTheCommandOnce) {
    zorvan_i_ZORVAN_S3_debug_handle.levels = 0;
    s3_object("b", "k", "data").properties.etag = "\"no-md5-2\"";
    each_command("/b/k", [&](Operation& first, int code, const auto&) {
        first.finishes.emplace_back();
        bool went_through = false;
        for (long n = 1; n < 300 && !went_through; ++n) {
            s3_object("b", "k", "data").properties.etag = "\"no-md5-2\"";
            Operation op;
            fail_allocation(n);
            if (code == rnto)
                call_command(op, code, "/b/k2", "/b/k");
            else
                call_command(op, code, "/b/k", std::nullopt, "md5");
            ASSERT_TRUE(op.wait_finished());
            op.close();
            ASSERT_EQ(zorvan_thread_wait_all(20000), 1);
            went_through = !allocation_failed();
            fail_allocation(0);
            EXPECT_EQ(op.finishes.size(), 1u);
        }
        EXPECT_TRUE(went_through);
    });
}

TEST_F(Command, EntryTouchesNothingAfterItsThreadWasMade) {
    s3_object("b", "k", "data");
    each_command("/b/k", [&](Operation& op, int, const auto& call) {
        set_thread_mode(ThreadMode::at_once);
        set_after_at_once([&] {
            destroy_session();
            release_records();
            trace_reset();
        });
        call();
        EXPECT_TRUE(trace().empty());
        op.close();
        set_thread_mode(ThreadMode::real);
        login();
    });
}

TEST_F(Command, WorkerTouchesNothingAfterItsFinishedCall) {
    s3_object("b", "k", "data");
    each_command("/b/k", [&](Operation& op, int, const auto& call) {
        set_thread_mode(ThreadMode::deferred);
        op.on_finished = [&] {
            destroy_session();
            release_records();
            trace_reset();
        };
        call();
        run_deferred_threads();
        EXPECT_TRUE(trace().empty());
        op.close();
        set_thread_mode(ThreadMode::real);
        login();
    });
}

TEST_F(Command, PathWithoutALeadingSlash) {
    s3_object("b", "x", "1");
    expect_success(*command(dele, "b/x"));
    EXPECT_EQ(s3_calls(S3Kind::delete_object).at(0).key, "x");
}

using CommandDeathTest = Command;

TEST_F(CommandDeathTest, NullSessionIsAnAssertion) {
    const auto die = [&](int code, const char* from) {
        Operation op;
        const zorvan_gridftp_server_command_info_t info{code, "/b/k", 0, -1, "md5", from};
        EXPECT_DEATH(iface->command(&op, &info, nullptr), "Assertion s3_handle != NULL failed in file ");
        op.finishes.emplace_back();
    };
    for (const int code : {mkd, rmd, dele, cksm, stage})
        die(code, nullptr);
    die(rnto, "/b/other");
}

TEST_F(CommandDeathTest, ChecksumWithoutPathOrAlgorithm) {
    Operation op;
    const zorvan_gridftp_server_command_info_t no_path{cksm, nullptr, 0, -1, "md5", nullptr};
    EXPECT_DEATH(iface->command(&op, &no_path, session),
                 "Assertion cmd_info->pathname != NULL failed in file ");
    const zorvan_gridftp_server_command_info_t no_algorithm{cksm, "/b/k", 0, -1, nullptr, nullptr};
    EXPECT_DEATH(iface->command(&op, &no_algorithm, session),
                 "Assertion cmd_info->cksm_alg != NULL failed in file ");
    op.finishes.emplace_back();
}

}  // namespace
