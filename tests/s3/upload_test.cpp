// Upload bodies: when they are read, how they are sent again, and how they fail.
#include <chrono>
#include <thread>

#include "script_fixture.h"
#include "upload_body.h"

namespace {

using s3test::error_reply;
using s3test::Recorder;
using s3test::reply;
using s3test::Step;
using Uploads = s3test::Scripted;
using Events = std::vector<std::string>;

constexpr size_t kMiB = 1024 * 1024;

std::string pattern(size_t size) {
    std::string out(size, '\0');
    for (size_t i = 0; i < size; ++i)
        out[i] = static_cast<char>('a' + i % 23 + i / 4099 % 3);
    return out;
}

TEST_F(Uploads, LargeBodiesWaitForTheStore) {
    std::mutex mutex;
    bool asked = false;
    Recorder recorder;
    recorder.body = pattern(3 * kMiB + 5);
    recorder.on_body = [&] {
        const std::lock_guard lock(mutex);
        asked = true;
    };
    Step step;
    bool asked_before_continue = true;
    step.look = [&](const s3test::SeenRequest&) {
        const std::lock_guard lock(mutex);
        asked_before_continue = asked;
    };
    step.reply = reply(200, {{"ETag", "\"e\""}});
    server_.then(step);
    put_from(recorder, "key", recorder.body.size());
    EXPECT_EQ(recorder.status, S3StatusOK);
    EXPECT_FALSE(asked_before_continue);
    const auto requests = server_.requests();
    EXPECT_EQ(requests[0].header("expect"), "100-continue");
    EXPECT_TRUE(requests[0].body == recorder.body);
    EXPECT_EQ(recorder.events, (Events{"body", "properties", "complete"}));
    EXPECT_LE(recorder.largest_room, static_cast<int>(kMiB));
}

TEST_F(Uploads, ExpectBeginsAtOneMebibyte) {
    server_.then(reply(200)).then(reply(200));
    EXPECT_EQ(put("key", pattern(kMiB - 1)).status, S3StatusOK);
    EXPECT_EQ(put("key", pattern(kMiB)).status, S3StatusOK);
    EXPECT_EQ(server_.requests()[0].header("expect"), "");
    EXPECT_EQ(server_.requests()[1].header("expect"), "100-continue");
}

TEST_F(Uploads, AnEarlyRefusalTakesNothingAndClosesTheConnection) {
    Step refuse;
    refuse.reply = error_reply(403, "AccessDenied");
    refuse.before_body = true;
    server_.then(refuse).then(error_reply(503, "SlowDown")).then(reply(200));
    Recorder denied;
    denied.body = pattern(2 * kMiB);
    put_from(denied, "key", denied.body.size());
    EXPECT_EQ(denied.status, S3StatusErrorAccessDenied);
    EXPECT_EQ(denied.events, Events{"complete"});
    EXPECT_EQ(denied.body_at, 0u);
    // The next request must not meet the body that was never sent.
    EXPECT_EQ(head("key").status, S3StatusErrorSlowDown);
    EXPECT_EQ(server_.connections(), 2);
}

TEST_F(Uploads, AnEarlyRetryableRefusalStaysRetryable) {
    Step refuse;
    refuse.reply = error_reply(503, "SlowDown");
    refuse.before_body = true;
    server_.then(refuse);
    Recorder recorder;
    recorder.body = pattern(2 * kMiB);
    put_from(recorder, "key", recorder.body.size());
    EXPECT_EQ(recorder.status, S3StatusErrorSlowDown);
    EXPECT_EQ(recorder.retryable_in_complete, 1);
    EXPECT_EQ(S3_status_is_retryable(recorder.status), 1);
    EXPECT_EQ(server_.requests().size(), 1u);
}

TEST_F(Uploads, AStoreWithoutContinueGetsTheBodyAfterTheTimeOut) {
    S3_set_option(S3OptionExpectTimeoutMs, 50);
    Step step;
    step.on_expect = Step::Continue::kWithhold;
    step.reply = reply(200);
    server_.then(step);
    Recorder recorder;
    recorder.body = pattern(2 * kMiB);
    put_from(recorder, "key", recorder.body.size());
    EXPECT_EQ(recorder.status, S3StatusOK);
    EXPECT_TRUE(server_.requests()[0].body == recorder.body);
}

TEST_F(Uploads, AShortLargeBodyFailsAtOnce) {
    server_.then(reply(200)).then(reply(200));
    Recorder recorder;
    recorder.body = pattern(2 * kMiB);
    put_from(recorder, "key", 3 * kMiB);
    EXPECT_EQ(recorder.status, S3StatusErrorIncompleteBody);
    EXPECT_EQ(recorder.retryable_in_complete, 0);
    EXPECT_EQ(recorder.completions, 1);
    EXPECT_FALSE(recorder.saw("properties"));
    // What is missing must not be taken from the next request.
    EXPECT_EQ(head("key").status, S3StatusOK);
    EXPECT_EQ(server_.connections(), 2);
}

TEST_F(Uploads, AShortSmallBodyIsNeverSent) {
    Recorder recorder;
    recorder.body = "four";
    put_from(recorder, "key", 5);
    EXPECT_EQ(recorder.status, S3StatusErrorIncompleteBody);
    EXPECT_EQ(server_.connections(), 0);
}

TEST_F(Uploads, TheBodyCallbackMayAbort) {
    for (const size_t size : {size_t{5}, 2 * kMiB}) {
        server_.then(reply(200));
        Recorder recorder;
        recorder.abort_body = true;
        put_from(recorder, "key", size);
        EXPECT_EQ(recorder.status, S3StatusAbortedByCallback) << size;
        EXPECT_EQ(recorder.completions, 1);
    }
}

TEST_F(Uploads, SmallPiecesArriveWhole) {
    server_.then(reply(200)).then(reply(200));
    for (const size_t size : {200000 + size_t{7}, 2 * kMiB + 7}) {
        Recorder recorder;
        recorder.body = pattern(size);
        recorder.body_piece = 1009;
        put_from(recorder, "key", size);
        EXPECT_EQ(recorder.status, S3StatusOK);
        EXPECT_TRUE(server_.requests().back().body == recorder.body) << size;
    }
}

TEST_F(Uploads, SmallBodiesAreSentAgain) {
    Step cut;
    cut.close_after_body_bytes = 10;
    server_.then(error_reply(500, "InternalError"))
        .then(cut)
        .then(reply(503))
        .then(reply(200, {{"ETag", "\"e\""}}));
    const std::string body = pattern(50000);
    const Recorder stored = put("key", body);
    EXPECT_EQ(stored.status, S3StatusOK);
    EXPECT_EQ(stored.events, (Events{"body", "properties", "complete"}));
    const auto requests = server_.requests();
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_TRUE(requests[0].body == body);
    EXPECT_TRUE(requests[3].body == body);
}

TEST_F(Uploads, ABodyOfExactlyTheBufferIsSentAgain) {
    server_.then(error_reply(500, "InternalError")).then(reply(200));
    const std::string body = pattern(kMiB);
    EXPECT_EQ(put("key", body).status, S3StatusOK);
    EXPECT_TRUE(server_.requests()[1].body == body);
}

TEST_F(Uploads, ResendsAreBoundedAndTheLastStatusStays) {
    for (int i = 0; i < 10; ++i)
        server_.then(error_reply(503, "SlowDown"));
    Recorder recorder;
    recorder.body = "hello";
    put_from(recorder, "key", 5);
    EXPECT_EQ(recorder.status, S3StatusErrorSlowDown);
    EXPECT_EQ(recorder.retryable_in_complete, 0);
    EXPECT_EQ(S3_status_is_retryable(S3StatusErrorSlowDown), 0);
    int elsewhere = -1;
    std::thread([&] { elsewhere = S3_status_is_retryable(S3StatusErrorSlowDown); }).join();
    EXPECT_EQ(elsewhere, 1);
    EXPECT_EQ(server_.requests().size(), 4u);
    server_.then(reply(204));
    remove("key");
    EXPECT_EQ(S3_status_is_retryable(S3StatusErrorSlowDown), 1);
}

TEST_F(Uploads, FinalRefusalsAreNotRepeated) {
    server_.then(error_reply(403, "AccessDenied"));
    EXPECT_EQ(put("key", "hello").status, S3StatusErrorAccessDenied);
    EXPECT_EQ(server_.requests().size(), 1u);
}

TEST_F(Uploads, LargeBodiesAreNeverSentAgain) {
    Step cut;
    cut.close_after_body_bytes = static_cast<long>(kMiB);
    server_.then(cut).then(reply(200));
    Recorder recorder;
    recorder.body = pattern(8 * kMiB);
    put_from(recorder, "key", recorder.body.size());
    EXPECT_EQ(recorder.status, S3StatusInternalError);
    EXPECT_EQ(recorder.retryable_in_complete, 0);
    EXPECT_EQ(server_.requests().size(), 1u);

    s3test::ScriptServer second;
    second.then(error_reply(500, "InternalError"));
    host_ = second.host();
    Recorder late;
    late.body = pattern(2 * kMiB);
    put_from(late, "key", late.body.size());
    EXPECT_EQ(late.status, S3StatusErrorInternalError);
    EXPECT_EQ(late.retryable_in_complete, 0);
    EXPECT_EQ(second.requests().size(), 1u);
}

TEST_F(Uploads, AnAnswerInTheMiddleOfTheBodyIsHeard) {
    // The answer follows the 100 at once, while the client is still sending.
    Step step;
    step.reply = "HTTP/1.1 100 Continue\r\n\r\n" + error_reply(400, "EntityTooLarge");
    step.before_body = true;
    server_.then(step);
    Recorder recorder;
    recorder.body = pattern(64 * kMiB);
    put_from(recorder, "key", recorder.body.size());
    EXPECT_EQ(recorder.status, S3StatusErrorEntityTooLarge);
    EXPECT_LT(recorder.body_at, recorder.body.size());
}

TEST_F(Uploads, RedirectsOfAnUntouchedBodyAreFollowedInsideTheStore) {
    Step redirect;
    redirect.reply = reply(307, {{"Location", "/bucket/other"}});
    redirect.before_body = true;
    server_.then(redirect).then(reply(200));
    Recorder recorder;
    recorder.body = pattern(2 * kMiB);
    put_from(recorder, "key", recorder.body.size());
    EXPECT_EQ(recorder.status, S3StatusOK);
    EXPECT_EQ(server_.requests()[1].target, "/bucket/other");
    EXPECT_TRUE(server_.requests()[1].body == recorder.body);
}

TEST_F(Uploads, TheCallersLimitEndsTheResends) {
    S3_set_option(S3OptionRetryPauseMs, 60000);
    server_.then(reply(503));
    Recorder recorder;
    recorder.body = "hello";
    const S3BucketContext where = context();
    S3_put_object(&where, "key", 5, nullptr, nullptr, 9000, &s3test::kPut, &recorder);
    EXPECT_EQ(recorder.status, S3StatusErrorSlowDown);
    EXPECT_EQ(server_.requests().size(), 1u);
}

// A callback that says more than there was room for has written where it must not.
TEST(UploadBody, MoreThanTheRoomIsAFailureAndStaysOne) {
    int asked = 0;
    const auto too_much = [](int room, char*, void* data) {
        ++*static_cast<int*>(data);
        return room + 1;
    };
    std::vector<char> out(kMiB);
    s3::UploadBody large(too_much, &asked, 3 * kMiB);
    EXPECT_EQ(large.read(out.data(), out.size()), -1);
    EXPECT_EQ(large.failure(), S3StatusAbortedByCallback);
    EXPECT_EQ(large.read(out.data(), out.size()), -1);
    EXPECT_EQ(asked, 1) << "not asked again";
    s3::UploadBody large_by_pieces(too_much, &asked, 3 * kMiB);
    EXPECT_EQ(large_by_pieces.read(out.data(), 100), -1);
    EXPECT_EQ(large_by_pieces.failure(), S3StatusAbortedByCallback);

    asked = 0;
    s3::UploadBody small(too_much, &asked, 100);
    EXPECT_EQ(small.read_ahead(), S3StatusAbortedByCallback);
    EXPECT_EQ(small.read_ahead(), S3StatusAbortedByCallback);
    EXPECT_EQ(small.read(out.data(), out.size()), -1);
    EXPECT_EQ(asked, 1);
}

TEST(UploadBody, WhatIsGoneCannotBeginAgain) {
    const auto fill = [](int room, char* buffer, void*) {
        std::memset(buffer, 'x', static_cast<size_t>(room));
        return room;
    };
    std::vector<char> out(kMiB);
    s3::UploadBody large(fill, nullptr, 3 * kMiB);
    EXPECT_TRUE(large.rewind());
    EXPECT_GT(large.read(out.data(), out.size()), 0);
    EXPECT_FALSE(large.rewind());
    s3::UploadBody small(fill, nullptr, 100);
    EXPECT_EQ(small.read(out.data(), out.size()), 100);
    EXPECT_TRUE(small.rewind());
    EXPECT_EQ(small.read(out.data(), out.size()), 100);
    EXPECT_EQ(small.read(out.data(), out.size()), 0);
}

TEST(UploadBody, OddlySmallRoomGoesThroughThePrivateBuffer) {
    Recorder recorder;
    recorder.body = pattern(2 * kMiB + 100);
    s3::UploadBody body(&Recorder::on_put_data, &recorder, recorder.body.size());
    std::string seen;
    char buffer[777];
    for (;;) {
        const long got = body.read(buffer, sizeof(buffer));
        ASSERT_GE(got, 0);
        if (got == 0) break;
        seen.append(buffer, static_cast<size_t>(got));
    }
    EXPECT_TRUE(seen == recorder.body);
    EXPECT_GE(recorder.smallest_room, 100);
    EXPECT_EQ(recorder.largest_room, static_cast<int>(kMiB));
    EXPECT_FALSE(body.can_rewind());
    EXPECT_TRUE(body.took_caller_bytes());
}

}  // namespace
