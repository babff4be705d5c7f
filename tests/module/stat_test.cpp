// The stat entry: which case a path is, how results are gathered, how a stat ends.
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "notices.h"
#include "stat.h"
#include "stat_fixture.h"

using namespace module_test;

namespace {

class Stat : public StatTest {};

TEST_F(Stat, RootAloneIsOneEntryWithoutAnyRequest) {
    auto op = stat("/", true);
    EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
    ASSERT_EQ(op->entries.size(), 1u);
    expect_directory(op->entries[0], ".", hash_of("/"), hash_of("/"));
    EXPECT_TRUE(op->partial_batches.empty());
    EXPECT_EQ(op->last_batch, 1);
    EXPECT_TRUE(s3_calls(S3Kind::head_object).empty());
    EXPECT_TRUE(s3_calls(S3Kind::list_bucket).empty());
    EXPECT_TRUE(s3_calls(S3Kind::list_service).empty());
}

TEST_F(Stat, EmptyPathIsTheRoot) {
    auto op = stat("", true);
    EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
    ASSERT_EQ(op->entries.size(), 1u);
    EXPECT_EQ(op->entries[0].name, ".");
}

TEST_F(Stat, RequestAndEntryAreLogged) {
    auto op = stat("/", true);
    EXPECT_TRUE(logged("INFO", "zorvan_i_s3_stat", "command=stat path=/ file_only=true"));
    EXPECT_TRUE(logged("TRACE", "zorvan_i_s3_stat_add", "Adding stat result for . [mode=drwx------ size=0]"))
        << log_text();
    EXPECT_TRUE(logged("DEBUG", "zorvan_l_s3_stat_thread", "Finished stat. Count is 1"));
}

TEST_F(Stat, ResultIsLoggedBeforeTheCount) {
    const auto lines = [&] {
        std::vector<std::string> found;
        for (const auto& line : log_lines())
            if (line.function == "zorvan_l_s3_stat_thread" && line.level != "TRACE")
                found.push_back(line.level + " " + line.message);
        return found;
    };
    stat("/", true);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{"INFO result=ZORVAN_SUCCESS", "DEBUG Finished stat. Count is 1"}));
    s3_fail(S3Kind::list_bucket, 1, S3StatusErrorMalformedXML);
    const auto op = stat("/b", true);
    EXPECT_EQ(lines().at(2), "INFO result=" + result_text(op->finish().result) +
                                 " message=" + s3_text("/b", S3StatusErrorMalformedXML));
    EXPECT_EQ(lines().at(3), "DEBUG Finished stat. Count is 0");
}

TEST_F(Stat, ListingIsLoggedAsSuch) {
    s3_bucket("b");
    stat("/b", false);
    EXPECT_TRUE(logged("INFO", "zorvan_i_s3_stat", "command=stat path=/b file_only=false"));
}

TEST_F(Stat, OperationBecomesTheSessionsCurrentOne) {
    set_thread_mode(ThreadMode::deferred);
    Operation op;
    call_stat(op, "/", true);
    EXPECT_EQ(session->current_op.load(), &op);
    run_deferred_threads();
    op.close();
}

TEST_F(Stat, PathWithoutALeadingSlashIsSplitAllTheSame) {
    s3_object("b", "dir/k", "abc");
    auto op = stat("b/dir/k", true);
    ASSERT_EQ(op->entries.size(), 1u);
    EXPECT_EQ(op->entries[0].name, "dir/k");
    EXPECT_EQ(op->entries[0].ino, hash_of("b/dir/k"));
    EXPECT_EQ(s3_calls(S3Kind::head_object).at(0).context.bucket, "b");
}

TEST_F(Stat, OnlyOneLeadingSlashIsSkipped) {
    // The bucket of "//b/k" is empty, so it is the root.
    auto op = stat("//b/k", true);
    ASSERT_EQ(op->entries.size(), 1u);
    expect_directory(op->entries[0], ".", hash_of("/"), hash_of("/"));
}

TEST_F(Stat, BucketWithATrailingSlashIsADirectoryListingWithAnEmptyKey) {
    s3_object("b", "/inside", "abc");
    s3_object("b", "outside", "abc");
    auto op = stat("/b/", false);
    EXPECT_TRUE(s3_calls(S3Kind::list_service).empty());
    const auto lists = s3_calls(S3Kind::list_bucket);
    ASSERT_EQ(lists.size(), 1u);
    EXPECT_EQ(lists[0].prefix, "/");
    EXPECT_EQ(names(*op), (std::vector<std::string>{".", "inside"}));
}

TEST_F(Stat, BucketWithATrailingSlashIsAnEmptyKeyForFileOnlyToo) {
    s3_bucket("b");
    stat("/b/", true);
    const auto heads = s3_calls(S3Kind::head_object);
    ASSERT_FALSE(heads.empty());
    EXPECT_EQ(heads[0].key, "");
}

TEST_F(Stat, ContextOfTheRootIsThatOfTheSession) {
    session->security_token = strdup("token");
    auto op = stat("/", false);
    const auto calls = s3_calls(S3Kind::list_service);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].context.host, "rgw.example.org:8080");
    EXPECT_EQ(calls[0].context.protocol, S3ProtocolHTTP);
    EXPECT_EQ(calls[0].context.access_key, "AK-alice");
    EXPECT_EQ(calls[0].context.secret_key, "secret-alice");
    EXPECT_EQ(calls[0].context.token, "token");
    EXPECT_EQ(calls[0].context.region, std::nullopt);
    EXPECT_FALSE(calls[0].request_context);
    EXPECT_EQ(calls[0].timeout, 0);
}

TEST_F(Stat, ContextOfABucketIsTheSessions) {
    s3_bucket("b");
    stat("/b/k", true);
    const auto call = s3_calls(S3Kind::head_object).at(0);
    EXPECT_EQ(call.context.host, "rgw.example.org:8080");
    EXPECT_EQ(call.context.bucket, "b");
    EXPECT_EQ(call.context.access_key, "AK-alice");
    EXPECT_EQ(call.context.uri_style, S3UriStylePath);
    EXPECT_FALSE(call.request_context);
    EXPECT_EQ(call.timeout, 0);
}

TEST_F(Stat, SecretOrTokenDecidesForTheServiceListing) {
    s3_bucket("seen");
    EXPECT_EQ(names(*stat("/", false)), (std::vector<std::string>{".", "seen"}));
    auto* secret = std::exchange(session->secret_access_key, nullptr);
    EXPECT_EQ(names(*stat("/", false)), std::vector<std::string>{"."});
    session->security_token = strdup("token");
    EXPECT_EQ(names(*stat("/", false)), (std::vector<std::string>{".", "seen"}));
    session->secret_access_key = secret;
}

// ----------------------------------------------------------------------------------------- accumulation

TEST_F(Stat, Exactly32EntriesArePartialAndTheFinalCallIsEmpty) {
    fill("b", 31);
    std::string before;
    at_each_call([&](std::string_view call) {
        if (call == "finished_stat_partial") before = log_text();
    });
    auto op = stat("/b", false);
    at_each_call(nullptr);
    EXPECT_EQ(op->entries.size(), 32u);
    EXPECT_EQ(op->partial_batches, std::vector<int>{32});
    EXPECT_EQ(op->last_batch, 0);
    EXPECT_TRUE(before.ends_with("calling finished_stat_partial stat_count=32\n"));
    EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
    EXPECT_TRUE(logged("DEBUG", "zorvan_i_s3_stat_add", "calling finished_stat_partial stat_count=32"));
    EXPECT_TRUE(logged("DEBUG", "zorvan_l_s3_stat_thread", "Finished stat. Count is 0"));
}

TEST_F(Stat, ThirtyThreeEntriesAreAPartialCallAndAFinalOne) {
    fill("b", 32);
    auto op = stat("/b", false);
    EXPECT_EQ(op->entries.size(), 33u);
    EXPECT_EQ(op->partial_batches, std::vector<int>{32});
    EXPECT_EQ(op->last_batch, 1);
    EXPECT_TRUE(logged("DEBUG", "Finished stat. Count is 1"));
}

TEST_F(Stat, ThirtyOneEntriesAreFinalAlone) {
    fill("b", 30);
    auto op = stat("/b", false);
    EXPECT_TRUE(op->partial_batches.empty());
    EXPECT_EQ(op->last_batch, 31);
}

TEST_F(Stat, LargeListingStreamsInBatchesAndKeepsItsOrder) {
    fill("b", 1000);
    s3_page_size(70);
    auto op = stat("/b", false);
    ASSERT_EQ(op->entries.size(), 1001u);
    EXPECT_EQ(op->partial_batches, std::vector<int>(31, 32));
    EXPECT_EQ(op->last_batch, 1001 - 31 * 32);
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(op->entries[static_cast<size_t>(i) + 1].name, key_name(i));
}

TEST_F(Stat, ListingThatFailsHalfWayKeepsWhatWasSent) {
    fill("b", 50);
    s3_page_size(40);
    s3_fail(S3Kind::list_bucket, 2, S3StatusErrorAccessDenied);
    auto op = stat("/b", false);
    EXPECT_EQ(op->entries.size(), 41u);
    EXPECT_EQ(op->partial_batches, std::vector<int>{32});
    EXPECT_EQ(op->last_batch, 9);
    expect_ftp(op->finish().error, 550, "PERMISSION_DENIED", std::nullopt);
}

TEST_F(Stat, ModeTextsOfFileAndDirectory) {
    s3_object("b", "f", "12345");
    stat("/b/f", true);
    EXPECT_TRUE(logged("TRACE", "zorvan_i_s3_stat_add", "Adding stat result for f [mode=-rwx------ size=5]"));
}

struct ModeText {
    uint32_t mode;
    const char* text;
};

class StatModes : public StatTest, public ::testing::WithParamInterface<ModeText> {};

TEST_P(StatModes, IsPrintedLikeThis) {
    const auto& [mode, text] = GetParam();
    Operation op;
    zorvan_i_s3_stat_request_t request;
    request.op = &op;
    zorvan_gridftp_server_stat_t entry = zorvan_i_s3_stat_directory("name", 1, 2);
    entry.mode = mode;
    entry.size = 123456789012;
    zorvan_i_s3_stat_add(&request, entry);
    EXPECT_TRUE(logged("TRACE", "zorvan_i_s3_stat_add",
                       std::string("Adding stat result for name [mode=") + text + " size=123456789012]"))
        << log_text();
    EXPECT_EQ(request.stat_count, 1u);
    EXPECT_NE(request.stats[0].name, entry.name) << "the name is copied";
    std::free(const_cast<char*>(request.stats[0].name));
    request.stat_count = 0;
    op.finishes.emplace_back();
}

INSTANTIATE_TEST_SUITE_P(
    All, StatModes,
    ::testing::Values(ModeText{S_IFREG | 0000, "----------"}, ModeText{S_IFDIR | 0700, "drwx------"},
                      ModeText{S_IFIFO | 0400, "pr--------"}, ModeText{S_IFCHR | 0200, "c-w-------"},
                      ModeText{S_IFBLK | 0100, "b--x------"}, ModeText{S_IFLNK | 0777, "lrwxrrxrrx"},
                      ModeText{S_IFSOCK | 0040, "s---r-----"}, ModeText{0, "*---------"},
                      ModeText{S_IFREG | 0020, "-----r----"}, ModeText{S_IFREG | 0010, "------x---"},
                      ModeText{S_IFREG | 0004, "-------r--"}, ModeText{S_IFREG | 0002, "--------r-"},
                      ModeText{S_IFREG | 0001, "---------x"}, ModeText{S_IFREG | 04100, "---s------"},
                      ModeText{S_IFREG | 04000, "---S------"}, ModeText{S_IFREG | 02010, "------s--T"},
                      ModeText{S_IFREG | 02000, "------S--T"}, ModeText{S_IFREG | 02001, "------S--x"},
                      ModeText{S_IFREG | 01001, "---------t"}, ModeText{S_IFREG | 01000, "----------"},
                      ModeText{S_IFREG | 07777, "-rwsrrsrrt"}));

// --------------------------------------------------------------------------------------------- failures

TEST_F(Stat, FailedAllocationEndsAtOnceWithoutAThread) {
    const auto threads = threads_asked_for();
    Operation op;
    fail_allocation(1);
    call_stat(op, "/b/k", true);
    fail_allocation(0);
    ASSERT_FALSE(op.finishes.empty());
    expect_system(op.finish().error, "malloc", ENOMEM);
    EXPECT_EQ(op.finish().kind, Ending::stat);
    EXPECT_EQ(op.last_batch, 0);
    EXPECT_EQ(threads_asked_for(), threads);
    op.close();
}

TEST_F(Stat, FailedThreadEndsTheStat) {
    for (const auto* path : {"/", "/b", "/b/k"}) {
        Operation op;
        fail_next_thread(EAGAIN);
        call_stat(op, path, true);
        ASSERT_FALSE(op.finishes.empty());
        EXPECT_TRUE(op.finish().error.present);
        expect_generic(op.finish().error, "stat", "zorvan_thread_create");
        EXPECT_EQ(op.last_batch, 0);
        EXPECT_TRUE(logged("ERROR", "zorvan_i_s3_stat",
                           "result=" + result_text(op.finish().result) + " message=zorvan_thread_create"));
        EXPECT_TRUE(s3_calls(S3Kind::head_object).empty());
        op.close();
    }
}

TEST_F(Stat, FailingCredentialHookEndsTheStatAtOnce) {
    static zorvan_result_t failure;
    failure = zorvan_error_put(
        zorvan_error_construct_error(nullptr, nullptr, 6, "f", "g", 1, "%s", "credentials are stale"));
    session->refresh_credentials = [](zorvan_i_s3_handle_t*) { return failure; };
    Operation op;
    call_stat(op, "/b/k", true);
    ASSERT_FALSE(op.finishes.empty());
    EXPECT_EQ(op.finish().result, failure);
    EXPECT_EQ(op.finish().error.text, "credentials are stale");
    op.close();
    session->refresh_credentials = nullptr;
}

TEST_F(Stat, EntryTouchesNothingAfterItsThreadWasMade) {
    s3_bucket("b");
    for (const auto* path : {"/", "/b", "/b/k"}) {
        Operation op;
        set_thread_mode(ThreadMode::at_once);
        set_after_at_once([&] {
            release_records();
            trace_reset();
        });
        call_stat(op, path, true);
        EXPECT_TRUE(trace().empty());
        op.close();
    }
}

TEST_F(Stat, WorkerTouchesNothingAfterItsFinishedCall) {
    fill("b", 40);
    for (const auto* path : {"/", "/b", "/b/k000001", "/b/none"}) {
        for (const bool file_only : {true, false}) {
            Operation op;
            set_thread_mode(ThreadMode::deferred);
            call_stat(op, path, file_only);
            op.on_finished = [&] {
                destroy_session();
                release_records();
                trace_reset();
            };
            run_deferred_threads();
            EXPECT_TRUE(trace().empty());
            op.close();
            set_thread_mode(ThreadMode::real);
            login();
        }
    }
}

TEST_F(Stat, ManyStatsOfOneSessionAtOnce) {
    // Lines of several threads run into each other.
    deactivate_quietly();
    fill("b", 100);
    std::vector<std::unique_ptr<Operation>> operations;
    for (int i = 0; i < 12; ++i) {
        operations.push_back(std::make_unique<Operation>());
        call_stat(*operations.back(), i % 2 == 0 ? "/b" : "/b/k000007", i % 2 != 0);
    }
    for (int i = 0; i < 12; ++i) {
        auto& op = *operations[static_cast<size_t>(i)];
        ASSERT_TRUE(op.wait_finished());
        op.close();
        EXPECT_EQ(op.entries.size(), i % 2 == 0 ? 101u : 1u);
    }
}

using StatDeathTest = Stat;

TEST_F(StatDeathTest, NullStatInfoIsAnAssertion) {
    Operation op;
    EXPECT_DEATH(iface->stat(&op, nullptr, session),
                 "Assertion stat_info != NULL failed in file stat at line [0-9]+\n");
    op.finishes.emplace_back();
}

TEST_F(StatDeathTest, NullSessionIsAnAssertionBeforeAnyNotice) {
    Operation op;
    const zorvan_gridftp_server_stat_info_t info{"/", 1};
    EXPECT_DEATH(
        {
            tell_notices_on_standard_error();
            iface->stat(&op, &info, nullptr);
        },
        "^Assertion s3_handle != NULL failed in file stat at line [0-9]+\n");
    op.finishes.emplace_back();
}

}  // namespace
