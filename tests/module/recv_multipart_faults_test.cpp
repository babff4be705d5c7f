// Uploads in parts when something fails: the store at any step, the data channel, memory, threads; and reads
// that complete in any order and at any time.
#include <algorithm>

#include "recv_multipart_fixture.h"

using namespace module_test;

namespace {

class RecvMultipartFaults : public RecvMultipartTest {
  protected:
    /// A failed status as the client sees it.
    static void expect_mapped(const Operation& op, S3Status status) {
        ASSERT_TRUE(op.finish().error.present) << status;
        const auto& error = op.finish().error;
        expect_s3(error.cause ? *error.cause : error, s3_text("/b/dir/f", status));
        EXPECT_EQ(op.finishes.size(), 1u);
    }
    // Let every call of a kind (of one part, unless 0) fail while the test goes on.
    void fail_always(S3Kind kind, int number, S3Status status, std::optional<size_t> take) {
        s3_respond(kind, [=](const S3Call& call) -> std::optional<Reply> {
            if (number != 0 && call.part != number) return std::nullopt;
            return reply_of(status, take);
        });
    }
    void let_go(S3Kind kind) {
        s3_respond(kind, [](const S3Call&) -> std::optional<Reply> { return std::nullopt; });
    }
    struct Step {
        S3Kind kind;
        int part;
        size_t ranges;  ///< reported before
        std::optional<size_t> take;
    };
    static int registrations() { return trace_count("register_read"); }
};

// ------------------------------------------------------------------------------------------------ the store

TEST_F(RecvMultipartFaults, EveryFailureAtEveryStepOfAThreePartUpload) {
    silence();
    const auto data = bytes(300);
    for (const auto& step : std::vector<Step>{{S3Kind::list_uploads, 0, 0, {}},
                                              {S3Kind::initiate_multipart, 0, 0, {}},
                                              {S3Kind::upload_part, 1, 0, {}},
                                              {S3Kind::upload_part, 2, 1, 50},
                                              {S3Kind::upload_part, 2, 1, 100},
                                              {S3Kind::upload_part, 3, 2, {}},
                                              {S3Kind::upload_part, 3, 2, 100},
                                              {S3Kind::complete_multipart, 0, 3, {}}}) {
        for (int number = 1; number <= 134; ++number) {
            const auto status = static_cast<S3Status>(number);
            fail_always(step.kind, step.part, status, step.take);
            Operation op;
            upload(op, data);
            let_go(step.kind);
            expect_mapped(op, status);
            EXPECT_EQ(op.range_updates.size(), step.ranges);
            expect_not_stored();
            const bool begun = step.kind != S3Kind::list_uploads && step.kind != S3Kind::initiate_multipart;
            EXPECT_EQ(s3_upload_ids("b").size(), begun ? 1u : 0u) << "it stays, to be resumed";
        }
        // What the last failure has left is cleared away by the next upload.
        Operation op;
        upload(op, data);
        expect_success(op);
        expect_stored(data);
        s3_bucket("b").objects.clear();
    }
}

TEST_F(RecvMultipartFaults, EveryFailureAtEveryStepOfAResume) {
    silence();
    const auto data = bytes(300);
    for (const auto& step : std::vector<Step>{{S3Kind::list_uploads, 0, 0, {}},
                                              {S3Kind::list_parts, 0, 0, {}},
                                              {S3Kind::upload_part, 2, 0, {}},
                                              {S3Kind::upload_part, 3, 1, 64},
                                              {S3Kind::complete_multipart, 0, 2, {}}}) {
        s3_upload("b", "dir/f", "2~old", 5, {data.substr(0, 100)});
        for (int number = 1; number <= 134; ++number) {
            const auto status = static_cast<S3Status>(number);
            fail_always(step.kind, step.part, status, step.take);
            Operation op;
            resume(op, data, 100);
            let_go(step.kind);
            expect_mapped(op, status);
            EXPECT_EQ(op.range_updates.size(), step.ranges);
            expect_not_stored();
            EXPECT_EQ(s3_upload_ids("b").size(), 1u);
        }
        Operation op;
        resume(op, data, 100);
        expect_success(op);
        expect_stored(data);
        s3_bucket("b").objects.clear();
    }
}

TEST_F(RecvMultipartFaults, EveryRequestIsRepeatedOnceAndCountsItsOwnTries) {
    s3_fail(S3Kind::list_uploads, 1, S3StatusErrorSlowDown);
    s3_fail(S3Kind::initiate_multipart, 1, S3StatusErrorSlowDown);
    for (const int nth : {1, 3, 5})
        s3_fail(S3Kind::upload_part, nth, S3StatusErrorSlowDown);
    s3_fail(S3Kind::complete_multipart, 1, S3StatusErrorSlowDown);
    const auto data = bytes(300);
    Operation op;
    upload(op, data);
    expect_success(op);
    expect_stored(data);
    EXPECT_EQ(sleeps(), std::vector<int64_t>(6, 100000));
    EXPECT_EQ(cached_md5("b", "dir/f", s3_find("b", "dir/f")->properties.etag.value(), 300), md5_of(data));
    const auto handle = pointer_text(&op);
    for (const std::string call :
         {"S3_list_multipart_uploads(bucket=b, key=dir/f)", "S3_initiate_multipart(bucket=b, key=dir/f)",
          "S3_upload_part(id=2~new1, part=1)", "S3_upload_part(id=2~new1, part=3)",
          "S3_complete_multipart_upload(id=2~new1)"}) {
        EXPECT_TRUE(log_says("REST: op=" + handle + " " + call + " try=0\n")) << call;
        EXPECT_TRUE(log_says("REST: op=" + handle + " " + call + " try=1\n")) << call;
        EXPECT_TRUE(
            log_says(call.substr(0, call.find('(')) + ": op=" + handle + " status=ErrorSlowDown[120]\n"))
            << call;
    }
    EXPECT_FALSE(log_holds(" try=2\n"));
}

TEST_F(RecvMultipartFaults, FailureAfterDataWereTakenIsFinal) {
    s3_on_call(S3Kind::upload_part, 2, reply_of(S3StatusErrorSlowDown, 10));
    Operation op;
    upload(op, bytes(300));
    expect_ftp(op.finish().error, 451, "TOO_BUSY", std::nullopt);
    EXPECT_EQ(parts().size(), 2u);
}

TEST_F(RecvMultipartFaults, NothingIsGivenBehindTheLastPart) {
    // The last part is whole: the offset behind its last byte is no part's.
    s3_on_call(S3Kind::upload_part, 2, reply_of(S3StatusOK, 10'000));
    const auto data = bytes(200);
    Operation op;
    upload(op, data);
    ASSERT_EQ(parts().size(), 2u);
    EXPECT_EQ(parts()[1].body, data.substr(100));
    EXPECT_EQ(parts()[1].pulls.back(), 0);
    expect_not_stored();
}

TEST_F(RecvMultipartFaults, ListingOfUploadsThatFailsOnALaterPageAbortsNothingMore) {
    s3_page_size(1);
    s3_upload("b", "dir/f", "2~a", 1);
    s3_upload("b", "dir/f", "2~b", 2);
    s3_fail(S3Kind::list_uploads, 2, S3StatusErrorAccessDenied);
    Operation op;
    upload(op, bytes(150));
    expect_ftp(op.finish().error, 550, "PERMISSION_DENIED", std::nullopt);
    EXPECT_EQ(s3_upload_ids("b").size(), 2u);
    EXPECT_EQ(op.begin_transfers, 0);
}

// ---------------------------------------------------------------------------------------- the data channel

TEST_F(RecvMultipartFaults, DataThatEndEarly) {
    const auto data = bytes(300);
    for (const size_t sent : {0, 1, 99, 100, 101, 199, 200, 299}) {
        for (const bool with_data : {true, false}) {
            Operation op;
            op.eof_with_data = with_data;
            op.send_in_blocks(data.substr(0, sent));
            run(op, 300);
            expect_mapped(op, S3StatusErrorIncompleteBody);
            EXPECT_EQ(op.range_updates.size(), sent / 100);
            expect_not_stored();
            EXPECT_EQ(s3_upload_ids("b").size(), 1u);
        }
    }
}

TEST_F(RecvMultipartFaults, ChannelThatBreaksGivesItsOwnError) {
    for (const size_t sent : {0, 64, 100, 199, 250}) {
        Operation op;
        op.upload_fails = true;
        op.send_in_blocks(bytes(300).substr(0, sent));
        run(op, 300);
        EXPECT_EQ(op.finish().error.text, "data channel broken");
        EXPECT_EQ(op.finishes.size(), 1u);
        expect_not_stored();
    }
}

TEST_F(RecvMultipartFaults, SurplusIsTheWriteError) {
    for (const size_t total : {1, 63, 64, 100, 200, 299}) {
        Operation op;
        op.concurrency = 4;
        op.block_size = 300;
        op.send_in_blocks(bytes(300));
        run(op, total);
        expect_system(op.finish().error, "write", EFBIG);
        expect_not_stored();
    }
}

TEST_F(RecvMultipartFaults, OffsetsNearTheLimitDoNotOverflow) {
    for (const int64_t offset : {INT64_MAX - 10, INT64_MAX, int64_t{300}}) {
        Operation op;
        op.upload.push_back({offset, bytes(64)});
        run(op, 300);
        expect_system(op.finish().error, "write", EFBIG);
    }
}

TEST_F(RecvMultipartFaults, FirstErrorStays) {
    // The surplus is found first; the part that it aborts fails too, and then the channel breaks.
    Operation op;
    op.concurrency = 3;
    op.upload_fails = true;
    op.upload = {{0, bytes(64)}, {290, bytes(64)}};
    run(op, 300);
    expect_system(op.finish().error, "write", EFBIG);
    EXPECT_EQ(parts().at(0).status, S3StatusAbortedByCallback);
}

TEST_F(RecvMultipartFaults, ReadsThatCompleteAfterAFailureAreNotCounted) {
    Operation op;
    op.concurrency = 4;
    op.hold();
    op.grant(1);
    s3_script(S3Kind::upload_part, reply_of(S3StatusErrorAccessDenied, 64));
    op.on_finished = [&] { op.release(); };
    upload(op, bytes(400));
    expect_ftp(op.finish().error, 550, "PERMISSION_DENIED", std::nullopt);
    EXPECT_EQ(op.bytes_updates, (Ranges{{64, 0}}));
    EXPECT_EQ(op.delivered, 4);
    EXPECT_EQ(op.finish_at_callback, 1) << "it does not wait for the reads, and registers no more";
}

TEST_F(RecvMultipartFaults, BytesReceivedAreReported) {
    Operation op;
    upload(op, bytes(150));
    int64_t sum = 0;
    for (const auto& [count, offset] : op.bytes_updates)
        sum += count;
    EXPECT_EQ(sum, 150);
}

// -------------------------------------------------------------------------------------- orders of the reads

TEST_F(RecvMultipartFaults, BlocksOfManyConnectionsInAnyOrder) {
    const auto data = bytes(64 * 60);
    for (const auto pick : {Pick::oldest, Pick::newest, Pick::scattered})
        for (const uint64_t part_size : {63, 100, 128, 1000}) {
            Operation op;
            op.concurrency = 7;
            op.read_pick = pick;
            for (const int i : {5, 4, 3, 2, 1, 0})
                for (int block = i; block < 60; block += 6)
                    op.upload.push_back({block * 64, data.substr(static_cast<size_t>(block) * 64, 64)});
            run(op, data.size(), part_size);
            expect_success(op);
            expect_stored(data);
        }
}

TEST_F(RecvMultipartFaults, EveryOrderOfFourBlocks) {
    silence();
    const auto data = bytes(256);
    std::vector<int> order{0, 1, 2, 3};
    do {
        for (const int concurrency : {1, 2, 4}) {
            Operation op;
            op.concurrency = concurrency;
            for (const int block : order)
                op.upload.push_back({block * 64, data.substr(static_cast<size_t>(block) * 64, 64)});
            run(op, 256);
            expect_success(op);
            expect_stored(data);
        }
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(RecvMultipartFaults, EndOfTheDataIsAskedForDuringTheCommit) {
    Operation op;
    op.concurrency = 1;
    int before_commit = 0;
    Reply reply;
    reply.commit_etag = "\"e\"";
    reply.before = [&] { before_commit = registrations(); };
    s3_script(S3Kind::complete_multipart, reply);
    upload(op, bytes(128));
    expect_success(op);
    EXPECT_EQ(before_commit, 3) << "two blocks, and the end";
    EXPECT_EQ(op.accepted, 3);
}

TEST_F(RecvMultipartFaults, EndThatWasToldIsNotAskedForAgain) {
    Operation op;
    op.concurrency = 1;
    op.eof_with_data = true;
    upload(op, bytes(128));
    expect_success(op);
    EXPECT_EQ(op.accepted, 2);
}

TEST_F(RecvMultipartFaults, FinishedBeforeTheLastReadIsBack) {
    // The end of the data comes only after the finished call: the worker must not have waited for it before.
    Operation op;
    op.concurrency = 1;
    op.hold();
    op.grant(2);
    op.on_finished = [&] { op.release(); };
    upload(op, bytes(128));
    expect_success(op);
    EXPECT_EQ(op.finish_at_callback, 2);
    EXPECT_EQ(op.delivered, 3);
}

TEST_F(RecvMultipartFaults, WhatComesAfterTheFinishedCallChangesNothing) {
    // A surplus block, and a channel that breaks: their errors are dropped.
    for (const bool breaks : {true, false}) {
        Operation op;
        op.concurrency = 1;
        op.hold();
        op.grant(2);
        op.upload_fails = breaks;
        op.send_in_blocks(bytes(128));
        if (!breaks) op.upload.push_back({128, "surplus"});
        op.on_finished = [&] { op.release(); };
        run(op, 128);
        expect_success(op);
        expect_stored(bytes(128));
    }
}

// ------------------------------------------------------------------------------- memory, reads and threads

TEST_F(RecvMultipartFaults, RefusedReadWithNoneOutstandingIsTheTransfersResult) {
    for (const int nth : {1, 2, 3}) {
        Operation op;
        op.concurrency = 1;
        op.refuse_read = nth;
        upload(op, bytes(640));
        EXPECT_EQ(op.finish().error.text, "read refused") << nth;
        EXPECT_EQ(op.delivered, nth - 1);
        expect_not_stored();
    }
}

TEST_F(RecvMultipartFaults, RefusedReadWithOthersOutstandingIsDropped) {
    Operation op;
    op.concurrency = 3;
    op.hold();
    op.refuse_read = 3;
    op.send_in_blocks(bytes(640));
    call_recv_multipart(op, "/b/dir/f", 640, 640, part, false);
    ASSERT_TRUE(op.wait_outstanding(2));
    op.release();
    finish(op);
    expect_success(op);
    expect_stored(bytes(640));
}

TEST_F(RecvMultipartFaults, RefusedReadOfTheEndDoesNotHinderTheCommit) {
    Operation op;
    op.concurrency = 1;
    op.refuse_read = 3;
    upload(op, bytes(128));
    expect_success(op);
    expect_stored(bytes(128));
}

TEST_F(RecvMultipartFaults, BufferThatCannotBeAllocated) {
    Operation op;
    op.block_size = 100'000;
    fail_allocations_from(100'000);
    upload(op, bytes(300));
    fail_allocations_from(0);
    expect_system(op.finish().error, "malloc", ENOMEM);
    EXPECT_EQ(op.accepted, 0);
    expect_not_stored();
}

TEST_F(RecvMultipartFaults, PartTableThatCannotBeAllocated) {
    Operation op;
    fail_allocations_from(10'000 * sizeof(zorvan_i_s3_part_t));
    upload(op, bytes(10'000), 1);
    fail_allocations_from(0);
    expect_system(op.finish().error, "malloc", ENOMEM);
    EXPECT_EQ(op.begin_transfers, 1);
    EXPECT_TRUE(parts().empty());
}

TEST_F(RecvMultipartFaults, ThreadThatCannotStart) {
    for (const bool fresh : {true, false}) {
        Operation op;
        fail_next_thread(EAGAIN);
        zorvan_i_s3_part_size = 5242880;
        call_recv(op, "/b/dir/f", 5242881, fresh);
        ASSERT_EQ(op.finishes.size(), 2u) << "once by the set-up, once by the entry";
        EXPECT_EQ(op.finishes[0].result, op.finishes[1].result);
        expect_generic(op.finishes[0].error, "recv_multipart", "zorvan_thread_create");
        EXPECT_EQ(op.finishes[0].error.function, "zorvan_i_s3_recv_multipart");
        EXPECT_TRUE(logged(
            "INFO", "zorvan_i_s3_recv_multipart",
            "finished_transfer: op=" + pointer_text(&op) + " result=" + result_text(op.finishes[0].result)));
        op.close();
    }
    EXPECT_TRUE(kinds().empty());
}

TEST_F(RecvMultipartFaults, ForbiddenBucket) {
    session->allowed_buckets = static_cast<char**>(std::calloc(1, sizeof(char*)));
    Operation op;
    zorvan_i_s3_part_size = 5242880;
    call_recv(op, "/b/dir/f", 5242881);
    ASSERT_EQ(op.finishes.size(), 2u);
    expect_ftp(op.finish().error, 550, "PERMISSION_DENIED", std::nullopt);
    op.close();
}

// ------------------------------------------------------------------------------------------------ lifetimes

TEST_F(RecvMultipartFaults, EntryTouchesNothingAfterItsThreadWasMade) {
    Operation op;
    op.send_in_blocks(bytes(300));
    set_thread_mode(ThreadMode::at_once);
    set_after_at_once([&] {
        destroy_session();
        release_records();
        trace_reset();
    });
    call_recv_multipart(op, "/b/dir/f", 300, 300, part, false);
    EXPECT_TRUE(trace().empty());
    op.close();
}

TEST_F(RecvMultipartFaults, WorkerTouchesNothingAfterItsFinishedCall) {
    for (const bool fails : {false, true}) {
        Operation op;
        if (fails) s3_script(S3Kind::upload_part, reply_of(S3StatusErrorAccessDenied, 64));
        op.hold();
        op.grant(fails ? 1 : 5);
        op.on_finished = [&] {
            destroy_session();
            release_records();
            trace_reset();
            op.release();
        };
        upload(op, bytes(300));
        EXPECT_TRUE(trace().empty());
        login();
        s3_bucket("b");
    }
}

TEST_F(RecvMultipartFaults, ManyUploadsAtOnce) {
    std::vector<std::unique_ptr<Operation>> operations;
    for (int i = 0; i < 10; ++i) {
        operations.push_back(std::make_unique<Operation>());
        auto& op = *operations.back();
        op.concurrency = 1 + i;
        op.read_pick = Pick::scattered;
        op.send_in_blocks(bytes(3000, static_cast<unsigned>(i)));
        call_recv_multipart(op, "/b/f" + std::to_string(i), 3000, 3000, part + static_cast<uint64_t>(i),
                            false);
    }
    for (int i = 0; i < 10; ++i) {
        auto& op = *operations[static_cast<size_t>(i)];
        ASSERT_TRUE(op.wait_finished());
        op.close();
        expect_success(op);
        const auto* object = s3_find("b", "f" + std::to_string(i));
        ASSERT_NE(object, nullptr);
        EXPECT_EQ(object->data, bytes(3000, static_cast<unsigned>(i)));
    }
}

// ----------------------------------------------------------------------------------------------- assertions

class RecvMultipartDeathTest : public RecvMultipartFaults {
  protected:
    void SetUp() override {
        // The upload has threads: it dies in a process of its own.
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        RecvMultipartFaults::SetUp();
    }
};

TEST_F(RecvMultipartDeathTest, EtagsOfPartsMustFitTheirRecord) {
    for (const size_t length : {35, 36, 100}) {
        s3_script(S3Kind::upload_part, part_with(std::string(length, 'e')));
        Operation op;
        EXPECT_DEATH(upload(op, bytes(100)),
                     "Assertion len < sizeof\\(transfer_state->parts\\[i\\].etag\\) failed in file "
                     "recv_multipart at line [0-9]+\n");
        op.finishes.emplace_back();
        s3_script_clear(S3Kind::upload_part);
    }
}

TEST_F(RecvMultipartDeathTest, PartsMustHaveAnEtag) {
    s3_script(S3Kind::upload_part, part_with(std::nullopt));
    Operation op;
    EXPECT_DEATH(upload(op, bytes(100)),
                 "Assertion properties->eTag != NULL failed in file recv_multipart at line [0-9]+\n");
    op.finishes.emplace_back();
}

TEST_F(RecvMultipartDeathTest, EtagsOfListedPartsMustFitTheirRecord) {
    s3_upload("b", "dir/f", "2~old", 5);
    Reply reply;
    reply.parts = {{1, part, std::string(35, 'e')}};
    s3_script(S3Kind::list_parts, reply);
    Operation op;
    EXPECT_DEATH(resume(op, bytes(300), 100),
                 "Assertion strlen\\(parts\\[i\\].eTag\\) < "
                 "sizeof\\(transfer_state->parts\\[parts\\[i\\].partNumber-1\\].etag\\) failed in file "
                 "recv_multipart_list_parts at line [0-9]+\n");
    op.finishes.emplace_back();
}

TEST_F(RecvMultipartDeathTest, HandlersNeedTheirState) {
    Reply nobody;
    nobody.null_data = true;
    // With entries, so that a handler that went on would not come to the next one's assertion.
    nobody.uploads = {{"dir/f", "2~x", 5}};
    s3_script(S3Kind::list_uploads, nobody);
    Operation op;
    EXPECT_DEATH(upload(op, bytes(20)),
                 "Assertion list_state != NULL failed in file recv_multipart_resolve_id at line [0-9]+\n");
    nobody.status = S3StatusErrorAccessDenied;
    s3_script_clear(S3Kind::list_uploads);
    s3_script(S3Kind::list_uploads, nobody);
    EXPECT_DEATH(upload(op, bytes(20)),
                 "Assertion list_state != NULL failed in file recv_multipart_resolve_id at line [0-9]+\n");
    s3_script_clear(S3Kind::list_uploads);
    for (const auto kind : {S3Kind::initiate_multipart, S3Kind::upload_part, S3Kind::complete_multipart}) {
        s3_script(kind, nobody);
        EXPECT_DEATH(upload(op, bytes(20)),
                     "Assertion transfer_state != NULL failed in file recv_multipart at line [0-9]+\n");
        s3_script_clear(kind);
    }
    s3_upload("b", "dir/f", "2~old", 5);
    for (const auto status : {S3StatusOK, S3StatusErrorAccessDenied}) {
        nobody.status = status;
        nobody.parts = {{1, 20, "\"e\""}};
        s3_script(S3Kind::list_parts, nobody);
        EXPECT_DEATH(
            resume(op, bytes(20), 0),
            "Assertion transfer_state != NULL failed in file recv_multipart_list_parts at line [0-9]+\n");
        s3_script_clear(S3Kind::list_parts);
    }
    op.finishes.emplace_back();
}

TEST_F(RecvMultipartDeathTest, CommitBufferMustHoldMoreThanTheOpeningTag) {
    s3_pull_size(25);
    Operation op;
    EXPECT_DEATH(upload(op, bytes(20)),
                 "Assertion buffer_size > strlen\\(\"<CompleteMultipartUpload>\"\\) failed in file "
                 "recv_multipart at line [0-9]+\n");
    op.finishes.emplace_back();
}

}  // namespace
