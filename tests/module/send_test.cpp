// Downloads that succeed, their set-up and their checksums.
#include <cerrno>
#include <climits>

#include "notices.h"
#include "send_fixture.h"

using namespace module_test;

namespace {

TEST_F(Send, WholeObject) {
    const auto data = bytes(1000);
    Operation op;
    EXPECT_EQ(run_content(data, op), data);
    expect_success(op);
    EXPECT_EQ(op.begin_transfers, 1);
    const auto calls = s3_calls(S3Kind::get_object);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].context.bucket, "b");
    EXPECT_EQ(calls[0].key, "dir/f");
    EXPECT_EQ(calls[0].start, 0u);
    EXPECT_EQ(calls[0].count, 0u);
    EXPECT_FALSE(calls[0].conditions);
    EXPECT_FALSE(calls[0].request_context);
    EXPECT_EQ(calls[0].timeout, 0);
}

TEST_F(Send, StepsAreInOrder) {
    Operation op;
    run_content(bytes(10), op);
    const std::vector<std::string> expected{"zorvan_thread_create", "begin_transfer", "get_read_range",
                                            "S3_get_object",        "get_read_range", "register_write",
                                            "finished_transfer"};
    // The last buffer is registered by the request's completion, which comes before the next range is asked.
    auto seen = trace();
    EXPECT_EQ(trace_count("get_read_range"), 2);
    EXPECT_LT(trace_position("begin_transfer"), trace_position("get_read_range"));
    EXPECT_LT(trace_position("get_read_range"), trace_position("S3_get_object"));
    EXPECT_LT(trace_position("S3_get_object"), trace_position("register_write"));
    EXPECT_EQ(seen.back(), "finished_transfer");
    EXPECT_EQ(seen.size(), expected.size());
}

TEST_F(Send, BuffersAreBlocksInOrder) {
    const auto data = bytes(200);
    Operation op;
    run_content(data, op);
    ASSERT_EQ(op.registered_writes.size(), 4u);
    int64_t offset = 0;
    for (const auto& write : op.registered_writes) {
        EXPECT_EQ(write.offset, offset);
        offset += static_cast<int64_t>(write.data.size());
    }
    EXPECT_EQ(op.registered_writes[0].data.size(), 64u);
    EXPECT_EQ(op.registered_writes[3].data.size(), 8u);
}

TEST_F(Send, PieceLargerThanABlockGetsABufferOfItsSize) {
    const auto data = bytes(200);
    s3_push_size(1000);
    Operation op;
    EXPECT_EQ(run_content(data, op), data);
    EXPECT_EQ(op.registered_writes.size(), 1u);
}

TEST_F(Send, DataInSmallPiecesFillsTheBlocks) {
    const auto data = bytes(200);
    s3_push_size(7);
    Operation op;
    EXPECT_EQ(run_content(data, op), data);
    EXPECT_EQ(op.registered_writes.size(), 4u);
}

TEST_F(Send, ZeroLengthObjectSendsNothingAndSucceeds) {
    Operation op;
    EXPECT_EQ(run_content("", op), "");
    expect_success(op);
    EXPECT_TRUE(op.registered_writes.empty());
}

TEST_F(Send, ConcurrencyBoundsTheWritesInFlight) {
    const auto data = bytes(64 * 50);
    Operation op;
    op.concurrency = 3;
    EXPECT_EQ(run_content(data, op), data);
    EXPECT_LE(op.max_outstanding, 3);
    EXPECT_GE(op.max_outstanding, 1);
}

TEST_F(Send, FlowControlHoldsTheDownloadBack) {
    // Nothing is written: the download may fill 2 registered buffers and a little over twice as many waiting.
    const auto data = bytes(64 * 100);
    s3_object("b", "dir/f", data);
    s3_push_size(64);
    Operation op;
    op.hold();
    call_send(op, "/b/dir/f");
    ASSERT_TRUE(op.wait_outstanding(2));
    op.grant(1);
    ASSERT_TRUE(op.wait_delivered(1));
    ASSERT_TRUE(op.wait_outstanding(2));
    op.release();
    finish(op);
    expect_success(op);
    EXPECT_EQ(op.content(), data);
    int buffers = 0;
    const auto log = log_text();
    for (size_t at = log.find("new_buffer="); at != std::string::npos; at = log.find("new_buffer=", at + 1))
        ++buffers;
    EXPECT_LE(buffers, 2 + 2 * 2 + 2) << "memory must not grow with the object";
}

TEST_F(Send, ConcurrencyWithoutABoundIsNoWait) {
    const auto data = bytes(64 * 20);
    for (const int concurrency : {INT_MAX / 2 + 1, INT_MAX}) {
        Operation op;
        op.concurrency = concurrency;
        EXPECT_EQ(run_content(data, op), data);
        expect_success(op);
    }
}

TEST_F(Send, WritesCalledBackInAnyOrder) {
    const auto data = bytes(64 * 40);
    for (const auto pick : {Pick::oldest, Pick::newest, Pick::scattered}) {
        Operation op;
        op.concurrency = 5;
        op.write_pick = pick;
        EXPECT_EQ(run_content(data, op), data);
        expect_success(op);
    }
}

TEST_F(Send, BlockSizeOfOneByte) {
    const auto data = bytes(33);
    s3_push_size(1);
    Operation op;
    op.block_size = 1;
    op.concurrency = 1;
    EXPECT_EQ(run_content(data, op), data);
    expect_success(op);
}

TEST_F(Send, PartialRange) {
    const auto data = bytes(500);
    Operation op;
    op.read_ranges = {{100, 50}};
    s3_object("b", "dir/f", data);
    run(op);
    expect_success(op);
    const auto calls = s3_calls(S3Kind::get_object);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].start, 100u);
    EXPECT_EQ(calls[0].count, 50u);
    EXPECT_EQ(op.content().substr(100), data.substr(100, 50));
    EXPECT_EQ(op.registered_writes.at(0).offset, 100);
}

TEST_F(Send, RestartSendsTheRest) {
    const auto data = bytes(500);
    Operation op;
    op.read_ranges = {{123, -1}};
    s3_object("b", "dir/f", data);
    run(op);
    expect_success(op);
    EXPECT_EQ(op.content().substr(123), data.substr(123));
    EXPECT_EQ(s3_calls(S3Kind::get_object).at(0).start, 123u);
    EXPECT_EQ(s3_calls(S3Kind::get_object).at(0).count, 0u);
}

TEST_F(Send, SeveralRangesGoToTheirOwnOffsets) {
    const auto data = bytes(2000);
    for (const auto pick : {Pick::oldest, Pick::newest}) {
        Operation op;
        op.write_pick = pick;
        op.read_ranges = {{0, 300}, {1000, 129}, {500, 1}};
        s3_object("b", "dir/f", data);
        run(op);
        expect_success(op);
        const auto content = op.content();
        EXPECT_EQ(content.substr(0, 300), data.substr(0, 300));
        EXPECT_EQ(content.substr(1000, 129), data.substr(1000, 129));
        EXPECT_EQ(content[500], data[500]);
        EXPECT_EQ(content[301], '?');
    }
}

TEST_F(Send, LaterRangesNeverTakeOlderBuffers) {
    // While writes are held back, buffers of the first range wait; their offsets must stay theirs.
    const auto data = bytes(4000);
    s3_object("b", "dir/f", data);
    Operation op;
    op.concurrency = 2;
    op.read_ranges = {{0, 384}, {3000, 128}};
    op.hold();
    call_send(op, "/b/dir/f");
    ASSERT_TRUE(op.wait_outstanding(2));
    op.release();
    finish(op);
    expect_success(op);
    EXPECT_EQ(op.content().substr(0, 384), data.substr(0, 384));
    EXPECT_EQ(op.content().substr(3000), data.substr(3000, 128));
}

TEST_F(Send, RefusalBetweenRangesEndsTheDownload) {
    // Buffers of the first range wait when the one callback has the next write refused.
    s3_object("b", "dir/f", bytes(4000));
    Operation op;
    op.read_ranges = {{0, 384}, {3000, 128}};
    op.refuse_write = 3;
    op.hold();
    call_send(op, "/b/dir/f");
    ASSERT_TRUE(op.wait_outstanding(2));
    op.grant(1);
    finish(op);
    EXPECT_EQ(op.finish().error.text, "write refused");
    EXPECT_EQ(s3_calls(S3Kind::get_object).size(), 1u);
}

TEST_F(Send, NoRangeAtAllIsAnEmptySuccess) {
    Operation op;
    op.read_ranges.clear();
    s3_object("b", "dir/f", "abc");
    run(op);
    expect_success(op);
    EXPECT_TRUE(s3_calls(S3Kind::get_object).empty());
}

TEST_F(Send, EachRangeHasItsOwnRetries) {
    const auto data = bytes(300);
    s3_object("b", "dir/f", data);
    s3_fail(S3Kind::get_object, 1, S3StatusErrorSlowDown);
    s3_fail(S3Kind::get_object, 3, S3StatusErrorSlowDown);
    Operation op;
    op.read_ranges = {{0, 100}, {200, 100}};
    run(op);
    expect_success(op);
    EXPECT_EQ(s3_calls(S3Kind::get_object).size(), 4u);
    EXPECT_EQ(sleeps(), (std::vector<int64_t>{100000, 100000}));
    EXPECT_EQ(op.content().substr(200), data.substr(200));
}

TEST_F(Send, RangesEndWithTheFirstError) {
    s3_object("b", "dir/f", bytes(300));
    s3_fail(S3Kind::get_object, 1, S3StatusErrorAccessDenied);
    Operation op;
    op.read_ranges = {{0, 100}, {200, 100}};
    run(op);
    EXPECT_EQ(s3_calls(S3Kind::get_object).size(), 1u);
    expect_ftp(op.finish().error, 550, "PERMISSION_DENIED", std::nullopt);
}

TEST_F(Send, PathWithoutLeadingSlash) {
    s3_object("b", "dir/f", "abc");
    Operation op;
    run(op, "b/dir/f");
    expect_success(op);
    EXPECT_EQ(op.content(), "abc");
}

TEST_F(Send, BucketPathHasANullKeyAndIsNoCrash) {
    s3_bucket("b");
    Operation op;
    s3_fail(S3Kind::get_object, 1, S3StatusErrorUserKeyMustBeSpecified);
    run(op, "/b");
    EXPECT_EQ(s3_calls(S3Kind::get_object).at(0).key, std::nullopt);
    expect_s3(op.finish().error, s3_text("/b", S3StatusErrorUserKeyMustBeSpecified));
}

TEST_F(Send, BucketPathThatAnswersIsNoCrash) {
    s3_script(S3Kind::get_object, with_data("listing", S3StatusOK, 7, "\"no-md5\""));
    Operation op;
    run(op, "/b");
    EXPECT_EQ(op.content(), "listing");
}

TEST_F(Send, EmptyKeyIsPassedOn) {
    s3_fail(S3Kind::get_object, 1, S3StatusErrorUserKeyMustBeSpecified);
    Operation op;
    run(op, "/b/");
    EXPECT_EQ(s3_calls(S3Kind::get_object).at(0).key, "");
    EXPECT_TRUE(op.finish().error.present);
}

TEST_F(Send, OperationBecomesTheSessionsCurrentOne) {
    s3_object("b", "dir/f", "abc");
    set_thread_mode(ThreadMode::deferred);
    Operation op;
    call_send(op, "/b/dir/f");
    EXPECT_EQ(session->current_op.load(), &op);
    run_deferred_threads();
    finish(op);
}

// -------------------------------------------------------------------------------------------- checksums

TEST_F(Send, PlainEtagIsNotSummed) {
    const auto data = bytes(500);
    auto& object = s3_object("b", "dir/f", data);
    Operation op;
    run(op);
    expect_success(op);
    EXPECT_EQ(cached_md5("b", "dir/f", *object.properties.etag, 500), "(none)");
}

TEST_F(Send, MultipartEtagIsSummedAndCached) {
    const auto data = bytes(500);
    multipart_object(data);
    Operation op;
    run(op);
    expect_success(op);
    EXPECT_EQ(cached_md5("b", "dir/f", multipart_etag, 500), md5_of(data));
    EXPECT_TRUE(host_log().empty());
}

TEST_F(Send, EtagOfTheLastTryIsTheOneCached) {
    const auto data = bytes(500);
    multipart_object(data);
    s3_on_call(S3Kind::get_object, 1, with_data("", S3StatusConnectionFailed, 500, "\"of-the-first-try-2\""));
    Operation op;
    run(op);
    expect_success(op);
    EXPECT_EQ(cached_md5("b", "dir/f", multipart_etag, 500), md5_of(data));
    EXPECT_EQ(cached_md5("b", "dir/f", "\"of-the-first-try-2\"", 500), "(none)");
}

TEST_F(Send, EncryptedObjectIsSummedThoughItsEtagLooksLikeAnMd5) {
    const auto data = bytes(500);
    auto& object = s3_object("b", "dir/f", data);
    object.properties.encryption = 2;
    Operation op;
    run(op);
    EXPECT_EQ(cached_md5("b", "dir/f", *object.properties.etag, 500), md5_of(data));
}

TEST_F(Send, OnlyAnEtagOf34CharactersIsNotSummed) {
    const auto data = bytes(500);
    const std::string digits = "0123456789abcdef0123456789abcdef";
    const auto sum_after = [&](const std::string& etag) {
        s3_object("b", "dir/f", data).properties.etag = etag;
        Operation op;
        run(op);
        expect_success(op);
        return cached_md5("b", "dir/f", etag, 500);
    };
    EXPECT_EQ(sum_after("\"" + digits + "\""), "(none)");
    EXPECT_EQ(sum_after("\"" + digits + "f"), "(none)") << "the end is not looked at";
    for (const auto& etag : {"\"" + digits.substr(1) + "\"", "\"" + digits + "0\"", "\"" + digits + "-1\"",
                             "\"" + digits.substr(1) + "g\"", digits, digits + "00"})
        EXPECT_EQ(sum_after(etag), md5_of(data)) << etag;
}

TEST_F(Send, PartialRangeNeverComputesAChecksum) {
    const auto data = bytes(500);
    multipart_object(data);
    Operation op;
    op.read_ranges = {{0, 500}};
    run(op);
    expect_success(op);
    EXPECT_EQ(cached_md5("b", "dir/f", multipart_etag, 500), "(none)");
}

TEST_F(Send, RestartNeverComputesAChecksum) {
    const auto data = bytes(500);
    multipart_object(data);
    Operation op;
    op.read_ranges = {{100, -1}};
    run(op);
    expect_success(op);
    EXPECT_EQ(cached_md5("b", "dir/f", multipart_etag, 400), "(none)");
}

TEST_F(Send, EmptyObjectWithAMultipartEtagIsCached) {
    multipart_object("");
    Operation op;
    run(op);
    expect_success(op);
    EXPECT_EQ(cached_md5("b", "dir/f", multipart_etag, 0), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST_F(Send, MissingEtagIsNotCachedButNoError) {
    s3_object("b", "dir/f", "abc").properties.etag = std::nullopt;
    Operation op;
    run(op);
    expect_success(op);
    ASSERT_EQ(host_log().size(), 1u);
    EXPECT_EQ(host_log()[0].level, 2);
    EXPECT_TRUE(host_log()[0].text.starts_with("Can not cache invalid checksum:  path: 'b/dir/f'"));
}

TEST_F(Send, FailingChecksumStepsDoNotFailTheDownload) {
    const auto data = bytes(500);
    for (const auto step : {Md5Step::init, Md5Step::update, Md5Step::finalize}) {
        multipart_object(data);
        fail_md5(step);
        Operation op;
        run(op);
        fail_md5(Md5Step::none);
        EXPECT_EQ(op.content(), data);
        EXPECT_EQ(cached_md5("b", "dir/f", multipart_etag, 500), "(none)");
        if (step != Md5Step::finalize) expect_success(op);
    }
}

// ----------------------------------------------------------------------------------------------- set-up

TEST_F(Send, FailuresBeforeTheWorkerEndWithFinishedCommand) {
    Operation op;
    fail_allocation(1);
    call_send(op, "/b/dir/f");
    fail_allocation(0);
    ASSERT_FALSE(op.finishes.empty());
    EXPECT_EQ(op.finish().kind, Ending::command);
    expect_system(op.finish().error, "malloc", ENOMEM);
    EXPECT_TRUE(log_says("finished_command: op=" + pointer_text(&op) +
                         " result=" + result_text(op.finish().result) + "\n"));
    EXPECT_TRUE(log_says("send: op=" + pointer_text(&op) + " pathname=/b/dir/f\n"));
    op.close();
}

TEST_F(Send, FailedThreadEndsWithFinishedCommand) {
    Operation op;
    fail_next_thread(EAGAIN);
    call_send(op, "/b/dir/f");
    ASSERT_FALSE(op.finishes.empty());
    EXPECT_EQ(op.finish().kind, Ending::command);
    EXPECT_EQ(op.finish().text, std::nullopt);
    expect_generic(op.finish().error, "send", "zorvan_thread_create");
    EXPECT_TRUE(logged("ERROR", "zorvan_i_s3_send",
                       "result=" + result_text(op.finish().result) + " message=zorvan_thread_create"));
    EXPECT_TRUE(
        logged("INFO", "zorvan_i_s3_send",
               "finished_command: op=" + pointer_text(&op) + " result=" + result_text(op.finish().result)));
    EXPECT_EQ(op.begin_transfers, 0);
    op.close();
}

TEST_F(Send, ForbiddenBucketEndsWithFinishedCommand) {
    session->allowed_buckets = static_cast<char**>(std::calloc(2, sizeof(char*)));
    session->allowed_buckets[0] = strdup("mine");
    Operation op;
    call_send(op, "/b/dir/f");
    ASSERT_FALSE(op.finishes.empty());
    EXPECT_EQ(op.finish().kind, Ending::command);
    expect_ftp(op.finish().error, 550, "PERMISSION_DENIED", std::nullopt);
    op.close();
}

TEST_F(Send, BufferThatCannotBeAllocatedIsTheMallocErrorAndStatus2) {
    s3_object("b", "dir/f", bytes(5000));
    Operation op;
    op.block_size = 100000;
    fail_allocations_from(100000);
    run(op);
    fail_allocations_from(0);
    expect_system(op.finish().error, "malloc", ENOMEM);
    EXPECT_EQ(s3_calls(S3Kind::get_object).at(0).status, S3StatusOutOfMemory);
    EXPECT_EQ(s3_calls(S3Kind::get_object).size(), 1u);
}

TEST_F(Send, EntryTouchesNothingAfterItsThreadWasMade) {
    s3_object("b", "dir/f", bytes(300));
    Operation op;
    set_thread_mode(ThreadMode::at_once);
    set_after_at_once([&] {
        destroy_session();
        release_records();
        trace_reset();
    });
    call_send(op, "/b/dir/f");
    EXPECT_TRUE(trace().empty());
    op.close();
}

TEST_F(Send, WorkerTouchesNothingAfterItsFinishedCall) {
    for (const bool fails : {false, true}) {
        s3_object("b", "dir/f", bytes(300));
        Operation op;
        if (fails) op.refuse_write = 3;
        op.on_finished = [&] {
            destroy_session();
            release_records();
            trace_reset();
        };
        call_send(op, "/b/dir/f");
        finish(op);
        EXPECT_TRUE(trace().empty());
        login();
    }
}

TEST_F(Send, EndIsLogged) {
    s3_object("b", "dir/f", bytes(10));
    Operation op;
    run(op);
    EXPECT_TRUE(log_says("finished_transfer: op=" + pointer_text(&op) + " result=0\n"));
    EXPECT_TRUE(log_says("Currently 0 blocks registered\n"));
    const auto log = log_text();
    const auto made = log.find("new_buffer=");
    ASSERT_NE(made, std::string::npos);
    const auto area = log.find(" buffer=0x", made);
    const auto data_area = log.substr(area, log.find('\n', area) - area);
    EXPECT_TRUE(log_says("registering write" + data_area + " size=10 offset=0\n"))
        << "the data, not the header";
}

TEST_F(Send, ManyDownloadsAtOnce) {
    const auto data = bytes(64 * 60);
    s3_object("b", "dir/f", data);
    std::vector<std::unique_ptr<Operation>> operations;
    for (int i = 0; i < 10; ++i) {
        operations.push_back(std::make_unique<Operation>());
        operations.back()->write_pick = i % 2 == 0 ? Pick::newest : Pick::scattered;
        operations.back()->concurrency = 1 + i;
        call_send(*operations.back(), "/b/dir/f");
    }
    for (auto& op : operations) {
        ASSERT_TRUE(op->wait_finished());
        op->close();
        EXPECT_EQ(op->content(), data);
    }
}

using SendDeathTest = Send;

TEST_F(SendDeathTest, NullSessionIsAnAssertionBeforeAnyNotice) {
    Operation op;
    const zorvan_gridftp_server_transfer_info_t info{"/b/k", 0, 0, nullptr, nullptr, 1};
    EXPECT_DEATH(
        {
            tell_notices_on_standard_error();
            iface->send(&op, &info, nullptr);
        },
        "^Assertion s3_handle != NULL failed in file send at line [0-9]+\n");
    op.finishes.emplace_back();
}

TEST_F(SendDeathTest, CompletionWithoutAStateIsAnAssertion) {
    // The download has a thread: it dies in a process of its own.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Reply nobody;
    nobody.null_data = true;
    s3_script(S3Kind::get_object, nobody);
    Operation op;
    EXPECT_DEATH(run(op), "Assertion transfer_state != NULL failed in file send at line [0-9]+\n");
    op.finishes.emplace_back();
}

}  // namespace
