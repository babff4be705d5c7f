// The command entry: codes, checks before any request, failures of the set-up.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "command_fixture.h"
#include "notices.h"

using namespace module_test;

namespace {

/// The source file of a command, which is also the end of its handler's name.
std::string source_of(int code) {
    switch (code) {
        case mkd:
            return "mkdir";
        case rmd:
            return "rmdir";
        case dele:
            return "delete";
        case rnto:
            return "rename";
        case cksm:
            return "checksum";
        default:
            return "stage";
    }
}

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

TEST_F(Command, RefusedCommandsAndTheCurrentOperation) {
    // It is noted once the paths are split; what is refused before, or for want of a key, leaves it.
    const auto noted = [&](int code, const std::string& path, const Text& from = {},
                           const char* algorithm = "md5") {
        Operation op;
        session->current_op = nullptr;
        call_command(op, code, path, from, algorithm);
        EXPECT_FALSE(op.finishes.empty());
        EXPECT_NE(op.finish().result, ZORVAN_SUCCESS);
        op.close();
        return session->current_op.load() == &op;
    };
    EXPECT_FALSE(noted(dele, "/b"));
    EXPECT_FALSE(noted(module_test::stage, "/b"));
    EXPECT_FALSE(noted(rnto, "/b/x", "/b/x"));
    EXPECT_FALSE(noted(cksm, "/b/x", {}, "sha1"));
    EXPECT_FALSE(noted(5, "/b/x"));
    EXPECT_TRUE(noted(rnto, "/b/x", "/b"));
    EXPECT_TRUE(noted(rnto, "/b", "/b/x"));
    forbid_all_but("mine");
    for (const int code : {mkd, rmd, dele, cksm, module_test::stage})
        EXPECT_TRUE(noted(code, "/b/x")) << code;
    EXPECT_TRUE(noted(mkd, "/b"));
    EXPECT_TRUE(noted(rnto, "/b/x", "/b/y"));
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
    // The one line that wants the handle as a text.
    line(mkd, "mkdir: op=OP pathname=/b/x");
    auto op = command(cksm, "/b/x", {}, "sha1", int64_t{1} << 40, INT64_MIN);
    EXPECT_TRUE(logged("INFO", "checksum: op=" + pointer_text(op.get()) +
                                   " pathname=/b/x alg=sha1 offset=1099511627776 "
                                   "length=-9223372036854775808"));
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
            expect_system(op.finish().error, "zorvan_thread_create", EAGAIN);
        } else {
            expect_generic(op.finish().error, source_of(code), "zorvan_thread_create");
            EXPECT_EQ(op.finish().error.function, "zorvan_i_s3_" + source_of(code));
        }
        EXPECT_EQ(op.finish().text, std::nullopt);
        EXPECT_TRUE(
            logged("ERROR", "zorvan_i_s3_" + source_of(code),
                   "result=" + result_text(op.finish().result) + " message=" + op.finish().error.friendly))
            << log_text();
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

TEST_F(Command, RenameOntoItselfIsToldWithoutASession) {
    Operation op;
    const zorvan_gridftp_server_command_info_t info{rnto, "/b/k", 0, -1, nullptr, "/b/k"};
    iface->command(&op, &info, nullptr);
    ASSERT_FALSE(op.finishes.empty());
    EXPECT_EQ(op.finish().error.ftp_word, "PATH_EXISTS");
    op.close();
}

using CommandDeathTest = Command;

TEST_F(CommandDeathTest, NullSessionIsAnAssertionAfterTheEntrysLine) {
    const auto die = [&](int code, const char* from, const std::string& line) {
        Operation op;
        const zorvan_gridftp_server_command_info_t info{code, "/b/k", 0, -1, "md5", from};
        EXPECT_DEATH(
            {
                tell_notices_on_standard_error();
                iface->command(&op, &info, nullptr);
            },
            line + "[^\n]*\nAssertion s3_handle != NULL failed in file " + source_of(code) +
                " at line [0-9]+\n");
        op.finishes.emplace_back();
    };
    die(mkd, nullptr, "mkdir: op=");
    die(rmd, nullptr, "rmdir op=");
    die(dele, nullptr, "delete: op=");
    die(cksm, nullptr, "checksum: op=");
    die(stage, nullptr, "stage: op=");
    die(rnto, "/b/other", "rename: op=");
}

TEST_F(CommandDeathTest, ChecksumWithoutPathOrAlgorithm) {
    Operation op;
    const zorvan_gridftp_server_command_info_t no_path{cksm, nullptr, 0, -1, "md5", nullptr};
    EXPECT_DEATH(iface->command(&op, &no_path, session),
                 "Assertion cmd_info->pathname != NULL failed in file checksum at line [0-9]+\n");
    const zorvan_gridftp_server_command_info_t no_algorithm{cksm, "/b/k", 0, -1, nullptr, nullptr};
    EXPECT_DEATH(iface->command(&op, &no_algorithm, session),
                 "Assertion cmd_info->cksm_alg != NULL failed in file checksum at line [0-9]+\n");
    const zorvan_gridftp_server_command_info_t neither{cksm, nullptr, 0, -1, nullptr, nullptr};
    EXPECT_DEATH(iface->command(&op, &neither, session), "Assertion cmd_info->pathname != NULL failed");
    EXPECT_DEATH(iface->command(&op, &neither, nullptr), "Assertion s3_handle != NULL failed");
    op.finishes.emplace_back();
}

}  // namespace
