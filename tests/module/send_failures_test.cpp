// Downloads that fail or are tried again: at the store, on the way, at the client.
#include <cerrno>
#include <thread>

#include "send_fixture.h"

using namespace module_test;

namespace {

// ------------------------------------------------------------------------------------------------ errors

TEST_F(Send, ErrorTextsNameTheBucketAlone) {
    s3_bucket("b");
    Operation op;
    run(op, "/b/dir/file");
    expect_ftp(op.finish().error, 550, "PATH_NOT_FOUND", "GridFTP-Path: \"/b\"");
    ASSERT_NE(op.finish().error.cause, nullptr);
    expect_s3(*op.finish().error.cause, s3_text("/b", S3StatusErrorNoSuchKey));
    EXPECT_EQ(op.finish().kind, Ending::transfer);
}

TEST_F(Send, EveryFailureOfTheStoreIsReported) {
    s3_object("b", "dir/f", bytes(300));
    for (int number = 1; number <= 134; ++number) {
        s3_script(S3Kind::get_object, with_data("", static_cast<S3Status>(number), 0, std::nullopt));
        s3_script(S3Kind::get_object, with_data("", static_cast<S3Status>(number), 0, std::nullopt));
        const bool retried = S3_status_is_retryable(static_cast<S3Status>(number)) != 0;
        Operation op;
        run(op);
        EXPECT_TRUE(op.finish().error.present) << number;
        EXPECT_EQ(op.finish().kind, Ending::transfer);
        // Use up the second reply where there was no second try.
        if (!retried) s3_script_clear(S3Kind::get_object);
    }
}

TEST_F(Send, FailureIsToldInTheLogBeforeTheHostHasIt) {
    s3_fail(S3Kind::get_object, 1, S3StatusErrorAccessDenied);
    std::string before;
    Operation op;
    op.on_finished = [&] { before = log_text(); };
    run(op);
    const auto result = result_text(op.finish().result);
    const auto told = before.find(": zorvan_l_s3_send_thread: result=" + result +
                                  " message=" + op.finish().error.friendly + "\n");
    ASSERT_NE(told, std::string::npos) << before;
    EXPECT_LT(told, before.find("finished_transfer: op=" + pointer_text(&op) + " result=" + result + "\n"));
}

TEST_F(Send, ShortObjectIsUnexpectedEndOfFile) {
    s3_script(S3Kind::get_object, with_data(bytes(60), S3StatusOK, 100, multipart_etag));
    Operation op;
    run(op);
    expect_generic(op.finish().error, "send", "Unexpected end of file.  Full size: 100, size sent: 60");
    EXPECT_EQ(cached_md5("b", "dir/f", multipart_etag, 60), "(none)");
}

TEST_F(Send, ShortRestartCountsFromTheRangesStart) {
    s3_script(S3Kind::get_object, with_data(bytes(60), S3StatusOK, 100, multipart_etag));
    Operation op;
    op.read_ranges = {{1000, -1}};
    run(op);
    expect_generic(op.finish().error, "send", "Unexpected end of file.  Full size: 1100, size sent: 1060");
}

TEST_F(Send, SizesNearTheLargestDoNotWrap) {
    // 123 and this length are 2^64, which would be a size of 0 and so an unknown one.
    for (const uint64_t length : {UINT64_MAX - 122, UINT64_MAX}) {
        s3_script(S3Kind::get_object, with_data(bytes(60), S3StatusOK, length, multipart_etag));
        Operation op;
        op.read_ranges = {{123, -1}};
        run(op);
        expect_generic(op.finish().error, "send",
                       "Unexpected end of file.  Full size: 18446744073709551615, size sent: 183");
    }
}

TEST_F(Send, UnknownLengthIsNotChecked) {
    s3_script(S3Kind::get_object, with_data(bytes(60), S3StatusOK, 0, multipart_etag));
    Operation op;
    run(op);
    expect_success(op);
}

TEST_F(Send, PartialRangeIsNotChecked) {
    s3_script(S3Kind::get_object, with_data(bytes(60), S3StatusOK, 100, multipart_etag));
    Operation op;
    op.read_ranges = {{0, 100}};
    run(op);
    expect_success(op);
}

TEST_F(Send, RestartAtTheEndOfTheObjectSucceedsWithoutData) {
    s3_object("b", "dir/f", bytes(500));
    Operation op;
    op.read_ranges = {{500, -1}};
    run(op);
    expect_success(op);
    EXPECT_TRUE(op.registered_writes.empty());
    EXPECT_EQ(s3_calls(S3Kind::get_object).at(0).status, S3StatusErrorInvalidRange);
    EXPECT_FALSE(log_holds("S3_get_object: op=")) << "no try has failed";
}

TEST_F(Send, RestartBeyondTheEndIsRefused) {
    s3_object("b", "dir/f", bytes(500));
    Operation op;
    op.read_ranges = {{501, -1}};
    run(op);
    expect_ftp(op.finish().error, 553, "APPEND_NOT_SUPPORTED", std::nullopt);
}

TEST_F(Send, RangeRefusalsThatProveNothingAreErrors) {
    const std::vector<Pairs> details{
        {},
        {{"Other", "x"}},
        {{"RangeRequested", "bytes=500-"}},
        {{"ActualObjectSize", "500"}},
        {{"RangeRequested", "bytes=0-"}, {"ActualObjectSize", "0"}},
        {{"RangeRequested", "bytes=500-600"}, {"ActualObjectSize", "500"}},
        {{"RangeRequested", "bytes=499-"}, {"ActualObjectSize", "500"}},
        {{"RangeRequested", "rows=500-"}, {"ActualObjectSize", "500"}},
        {{"RangeRequested", "bytes=500-"}, {"ActualObjectSize", "many"}},
        {{"RangeRequested", "bytes=500-"}, {"ActualObjectSize", "500"}, {"RangeRequested", "nonsense"}},
        {{"RangeRequested", "bytes=500-"}, {"ActualObjectSize", "500"}, {"ActualObjectSize", "x"}},
        {{"RangeRequested", "bytes=500-99999999999999999999"}, {"ActualObjectSize", "500"}},
        {{"RangeRequested", "bytes=500--1"}, {"ActualObjectSize", "500"}},
        {{"RangeRequested", "bytes="}, {"ActualObjectSize", "500"}},
        {{"RangeRequested", "500-"}, {"ActualObjectSize", "500"}},
        {{"RangeRequested", "bytes=500-"}, {"ActualObjectSize", ""}},
        {{"RangeRequested", "bytes=9223372036854775808-"}, {"ActualObjectSize", "9223372036854775807"}},
        {{"RangeRequested", "bytes=9223372036854775807-"}, {"ActualObjectSize", "9223372036854775808"}},
        {{"RangeRequested", "bytes=99999999999999999999-"}, {"ActualObjectSize", "99999999999999999999"}},
    };
    for (size_t i = 0; i < details.size(); ++i) {
        Reply reply;
        reply.status = S3StatusErrorInvalidRange;
        reply.details = Details{{}, {}, {}, details[i]};
        s3_script(S3Kind::get_object, reply);
        Operation op;
        op.read_ranges = {{500, -1}};
        run(op);
        EXPECT_EQ(op.finish().error.ftp_word, "APPEND_NOT_SUPPORTED") << i;
    }
}

TEST_F(Send, RangeRefusalWithoutDetailsIsAnError) {
    s3_fail(S3Kind::get_object, 1, S3StatusErrorInvalidRange);
    Operation op;
    run(op);
    EXPECT_EQ(op.finish().error.ftp_word, "APPEND_NOT_SUPPORTED");
}

TEST_F(Send, NumbersOfARangeRefusalAreReadLikeC) {
    for (const auto* requested : {"bytes=500", "bytes=500-", "bytes=0x1f4-", "bytes=500-x"}) {
        Reply reply;
        reply.status = S3StatusErrorInvalidRange;
        reply.details = Details{{}, {}, {}, {{"RangeRequested", requested}, {"ActualObjectSize", "0764"}}};
        s3_script(S3Kind::get_object, reply);
        Operation op;
        op.read_ranges = {{500, -1}};
        run(op);
        expect_success(op);
    }
}

TEST_F(Send, RangeRefusalAmongOtherDetailsProves) {
    Reply reply;
    reply.status = S3StatusErrorInvalidRange;
    reply.details = Details{{},
                            {},
                            {},
                            {{"BucketName", "b"},
                             {"RangeRequested", "bytes=500-"},
                             {"HostId", "x"},
                             {"ActualObjectSize", "500"}}};
    s3_script(S3Kind::get_object, reply);
    Operation op;
    op.read_ranges = {{500, -1}};
    run(op);
    expect_success(op);
}

TEST_F(Send, FailureAfterDataIsReportedAndWhatWasRegisteredIsCalledBack) {
    s3_script(S3Kind::get_object, with_data(bytes(640), S3StatusInternalError, 1000, multipart_etag));
    Operation op;
    run(op);
    expect_s3(op.finish().error, s3_text("/b", S3StatusInternalError));
    EXPECT_EQ(op.finishes.size(), 1u);
    EXPECT_EQ(op.delivered, op.accepted);
    EXPECT_EQ(cached_md5("b", "dir/f", multipart_etag, 640), "(none)");
}

// --------------------------------------------------------------------------------------------- retries

TEST_F(Send, FailureLetsWhatIsPendingBeWritten) {
    const auto data = bytes(64 * 6 + 9);
    auto reply = with_data(data, S3StatusErrorMalformedXML, 1000, multipart_etag);
    reply.piece = 64;
    s3_script(S3Kind::get_object, reply);
    Operation op;
    op.hold();
    call_send(op, "/b/dir/f");
    // The worker has the mutex when it asks; it lets go of it only where it waits.
    while (trace_count("get_read_range") < 2)
        std::this_thread::yield();
    op.release();
    finish(op);
    expect_s3(op.finish().error, s3_text("/b", S3StatusErrorMalformedXML));
    EXPECT_EQ(op.content(), data.substr(0, 64 * 6)) << "full buffers, not the one being filled";
    EXPECT_EQ(op.finish_at_callback, 6);
}

TEST_F(Send, RetryBeforeAnyDataStartsOver) {
    const auto data = bytes(300);
    s3_object("b", "dir/f", data);
    s3_fail(S3Kind::get_object, 1, S3StatusConnectionFailed);
    Operation op;
    run(op);
    expect_success(op);
    EXPECT_EQ(op.content(), data);
    const auto handle = pointer_text(&op);
    EXPECT_TRUE(log_says("REST: op=" + handle + " S3_get_object(bucket=b, key=dir/f) try=0\n"));
    EXPECT_TRUE(log_says("REST: op=" + handle + " S3_get_object(bucket=b, key=dir/f) try=1\n"));
    EXPECT_TRUE(log_says("S3_get_object: op=" + handle + " status=ConnectionFailed[46]\n"));
}

TEST_F(Send, LastBufferIsRegisteredWhenItsRequestEnds) {
    auto reply = with_data(bytes(10), S3StatusOK, 10, multipart_etag);
    int registered = 0;
    reply.after = [&] { registered = trace_count("register_write"); };
    s3_script(S3Kind::get_object, reply);
    Operation op;
    run(op);
    expect_success(op);
    EXPECT_EQ(registered, 1) << "though it is not full";
}

TEST_F(Send, LevelsOfTheLines) {
    s3_object("b", "dir/f", bytes(300));
    expect_levels({{ZORVAN_S3_INFO, "send: op="},
                   {ZORVAN_S3_INFO, "REST: op="},
                   {ZORVAN_S3_INFO, "zorvan_l_s3_send_thread: result=ZORVAN_SUCCESS\n"},
                   {ZORVAN_S3_INFO, "finished_transfer: op="},
                   {ZORVAN_S3_DEBUG, "S3_get_object: op="},
                   {ZORVAN_S3_DEBUG, "Currently "},
                   {ZORVAN_S3_DEBUG, "registering write buffer="}},
                  [&] {
                      fail_next(S3Kind::get_object);
                      Operation op;
                      run(op);
                      expect_success(op);
                  });
}

TEST_F(Send, RetryAfterDataSkipsWhatWasDelivered) {
    const auto data = bytes(1000);
    multipart_object(data);
    s3_on_call(S3Kind::get_object, 1,
               with_data(data.substr(0, 300), S3StatusConnectionFailed, 1000, multipart_etag));
    s3_push_size(70);
    Operation op;
    run(op);
    expect_success(op);
    EXPECT_EQ(op.content(), data);
    EXPECT_EQ(cached_md5("b", "dir/f", multipart_etag, 1000), md5_of(data)) << "no byte is summed twice";
    // Not one byte went out twice.
    size_t total = 0;
    for (const auto& write : op.registered_writes)
        total += write.data.size();
    EXPECT_EQ(total, 1000u);
}

TEST_F(Send, RetryAfterDataOfAPartialRange) {
    const auto data = bytes(1000);
    multipart_object(data);
    s3_on_call(S3Kind::get_object, 1,
               with_data(data.substr(100, 130), S3StatusConnectionFailed, 400, multipart_etag));
    Operation op;
    op.read_ranges = {{100, 400}, {800, 100}};
    run(op);
    expect_success(op);
    EXPECT_EQ(op.content().substr(100, 400), data.substr(100, 400));
    EXPECT_EQ(op.content().substr(800), data.substr(800, 100));
}

TEST_F(Send, RetryThatMeetsAnotherObjectFails) {
    const auto data = bytes(1000);
    multipart_object(data);
    s3_on_call(S3Kind::get_object, 1,
               with_data(data.substr(0, 300), S3StatusConnectionFailed, 1000, "\"another-etag-2\""));
    Operation op;
    run(op);
    EXPECT_NE(op.finish().result, ZORVAN_SUCCESS);
    EXPECT_TRUE(op.finish().error.present);
    EXPECT_NE(op.content(), data);
}

TEST_F(Send, RetryThatCannotShowTheSameObjectFails) {
    const auto data = bytes(1000);
    const auto retry = [&](const Text& first, const Reply& second) {
        s3_script(S3Kind::get_object, with_data(data.substr(0, 300), S3StatusConnectionFailed, 1000, first));
        s3_script(S3Kind::get_object, second);
        Operation op;
        run(op);
        const auto& error = op.finish().error;
        EXPECT_TRUE(error.present);
        expect_s3(error, s3_text("/b", S3StatusErrorPreconditionFailed));
        size_t total = 0;
        for (const auto& write : op.registered_writes)
            total += write.data.size();
        EXPECT_LE(total, 300u);
    };
    const auto whole = [&](const Text& etag) { return with_data(data, S3StatusOK, 1000, etag); };
    retry(std::nullopt, whole(multipart_etag));
    retry(multipart_etag, whole(std::nullopt));
    retry(std::nullopt, whole(std::nullopt));
    Reply bare;
    bare.data = data;
    bare.null_properties = true;
    retry(multipart_etag, bare);
}

TEST_F(Send, RetryThatFailsForGoodReportsTheLastError) {
    const auto data = bytes(1000);
    s3_on_call(S3Kind::get_object, 1,
               with_data(data.substr(0, 300), S3StatusConnectionFailed, 1000, multipart_etag));
    s3_fail(S3Kind::get_object, 2, S3StatusErrorAccessDenied);
    Operation op;
    run(op);
    expect_ftp(op.finish().error, 550, "PERMISSION_DENIED", std::nullopt);
}

// ----------------------------------------------------------------------------- refused and failing writes

TEST_F(Send, RefusedWriteIsTheTransfersResult) {
    const auto data = bytes(64 * 30);
    for (const int nth : {1, 2, 3, 7, 30}) {
        s3_object("b", "dir/f", data);
        Operation op;
        op.refuse_write = nth;
        run(op);
        EXPECT_EQ(op.finish().error.text, "write refused") << nth;
        EXPECT_EQ(op.finish().kind, Ending::transfer);
        EXPECT_EQ(op.finishes.size(), 1u);
    }
}

TEST_F(Send, RefusedWriteOfTheLastPartialBuffer) {
    s3_object("b", "dir/f", bytes(64 + 5));
    Operation op;
    op.refuse_write = 2;
    run(op);
    EXPECT_EQ(op.finish().error.text, "write refused");
}

TEST_F(Send, RefusalWhileManyBuffersWaitEndsTheDownload) {
    // The flow-control wait ends when an error is kept; nothing would signal it otherwise.
    const auto data = bytes(64 * 200);
    s3_object("b", "dir/f", data);
    Operation op;
    op.refuse_write = 3;
    op.hold();
    call_send(op, "/b/dir/f");
    ASSERT_TRUE(op.wait_outstanding(2));
    // One callback lets the third write be registered, which is refused, and nothing is written any more.
    op.grant(1);
    finish(op);
    EXPECT_EQ(op.finish().error.text, "write refused");
    EXPECT_EQ(op.registered_writes.size(), 2u);
}

TEST_F(Send, BrokenChannelEndsTheDownloadWithItsError) {
    for (const int64_t limit : {0, 64, 100, 640, 1900}) {
        s3_object("b", "dir/f", bytes(64 * 30));
        Operation op;
        op.concurrency = 4;
        op.channel_breaks_after = limit;
        run(op);
        EXPECT_EQ(op.delivered, op.accepted);
        EXPECT_EQ(op.finishes.size(), 1u);
        if (limit < 1800) {
            EXPECT_EQ(op.finish().error.text, "data channel broken") << limit;
        } else {
            // Only the last write failed: that is for the host to know.
            EXPECT_EQ(op.finish().result, ZORVAN_SUCCESS);
        }
    }
}

TEST_F(Send, ErrorOfARefusalSurvivesTheAbortedRequest) {
    s3_object("b", "dir/f", bytes(64 * 30));
    s3_push_size(64);
    Operation op;
    op.refuse_write = 5;
    run(op);
    EXPECT_EQ(op.finish().error.text, "write refused");
    EXPECT_NE(s3_calls(S3Kind::get_object).at(0).status, S3StatusOK);
    EXPECT_EQ(s3_calls(S3Kind::get_object).size(), 1u);
    EXPECT_TRUE(log_says("S3_get_object: op=" + pointer_text(&op) + " status=InternalError[1]\n"));
}

TEST_F(Send, RefusalIsToldAnewAfterARetry) {
    const auto data = bytes(64 * 12);
    auto reply = with_data(data.substr(0, 64 * 6), S3StatusConnectionFailed, data.size(), multipart_etag);
    reply.piece = 64;
    Operation op;
    op.refuse_write = 3;
    op.hold();
    // The try is over when the one callback has the next write refused.
    reply.after = [&] {
        op.grant(1);
        while (trace_count("register_write") < 3)
            std::this_thread::yield();
    };
    s3_on_call(S3Kind::get_object, 1, reply);
    multipart_object(data);
    run(op);
    EXPECT_EQ(s3_calls(S3Kind::get_object).size(), 2u);
    EXPECT_EQ(op.finish().error.text, "write refused");
}

TEST_F(Send, WorkerStaysUntilEveryBufferIsBack) {
    s3_object("b", "dir/f", bytes(64 * 10));
    Operation op;
    op.concurrency = 4;
    op.refuse_write = 5;
    op.hold();
    set_thread_mode(ThreadMode::deferred);
    call_send(op, "/b/dir/f");
    // The first callback ends the wait for room with a refusal; the others come after the finished call.
    int back = 0;
    std::thread worker([&] {
        run_deferred_threads();
        const std::lock_guard lock(op.mutex);
        back = op.delivered;
    });
    EXPECT_TRUE(op.wait_outstanding(4));
    op.grant(1);
    EXPECT_TRUE(op.wait_finished());
    op.release();
    worker.join();
    set_thread_mode(ThreadMode::real);
    finish(op);
    EXPECT_EQ(op.finish().error.text, "write refused");
    EXPECT_GE(back, 3) << "the last one may be on its way out";
}

TEST_F(Send, EndsWhenTheLastWriteIsBack) {
    s3_object("b", "dir/f", bytes(100));
    Operation op;
    op.hold();
    call_send(op, "/b/dir/f");
    ASSERT_TRUE(op.wait_outstanding(2));
    // The worker has the mutex when it asks, and a callback waits for it: what comes first is the worker's
    // wait.
    while (trace_count("get_read_range") < 2)
        std::this_thread::yield();
    op.grant(1);
    ASSERT_TRUE(op.wait_delivered(1));
    EXPECT_EQ(trace_count("finished_transfer"), 0) << "one write is still on its way";
    op.release();
    finish(op);
    expect_success(op);
    EXPECT_EQ(op.finish_at_callback, 2);
}

TEST_F(Send, NothingIsRegisteredAfterTheEnd) {
    // The second write is refused while the first is held back; its callback comes after the finished call.
    s3_object("b", "dir/f", bytes(64 * 10));
    Operation op;
    op.concurrency = 4;
    op.refuse_write = 3;
    op.hold();
    call_send(op, "/b/dir/f");
    ASSERT_TRUE(op.wait_finished());
    EXPECT_EQ(op.finish().error.text, "write refused");
    EXPECT_EQ(op.finish_at_callback, 0);
    trace_reset();
    op.release();
    finish(op);
    EXPECT_EQ(trace_count("register_write"), 0);
    EXPECT_EQ(op.delivered, 2);
}

}  // namespace
