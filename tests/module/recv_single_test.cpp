// Uploads in one request.
#include <cerrno>
#include <cstdint>

#include "receive.h"
#include "transfer_fixture.h"

using namespace module_test;

namespace {

constexpr const char* empty_md5 = "d41d8cd98f00b204e9800998ecf8427e";

class RecvSingle : public TransferTest {
  protected:
    void SetUp() override {
        TransferTest::SetUp();
        s3_bucket("b");
    }
    std::string config() override {
        return std::string(standard_config) +
               "mime_types_path = " + write_file("mime.types", "text/plain txt\nimage/png PNG\n") + "\n";
    }
    // Upload with what the operation was set to, announcing so many bytes.
    void run(Operation& op, int64_t announced, const std::string& path = "/b/dir/f") {
        call_recv(op, path, announced);
        finish(op);
    }
    void upload(Operation& op, const std::string& data, const std::string& path = "/b/dir/f") {
        op.send_in_blocks(data);
        run(op, static_cast<int64_t>(data.size()), path);
    }
    static std::vector<S3Call> puts() { return s3_calls(S3Kind::put_object); }
    static Reply put_reply(S3Status status, std::optional<size_t> take = std::nullopt) {
        Reply reply;
        reply.status = status;
        reply.take = take;
        return reply;
    }
    static void expect_write_error(const Operation& op) {
        EXPECT_EQ(op.finish().error.type, ZORVAN_ERROR_TYPE_SYSTEM) << op.finish().error.friendly;
        EXPECT_EQ(op.finish().error.errno_value, 27);
        ASSERT_TRUE(op.finish().error.text);
        EXPECT_NE(op.finish().error.text->find("write"), std::string::npos);
        EXPECT_EQ(op.finishes.size(), 1u);
    }
    PutRecord properties_of(const std::string& path) {
        Operation op;
        upload(op, "x", path);
        expect_success(op);
        const auto calls = puts();
        EXPECT_FALSE(calls.empty());
        return calls.back().put.value();
    }
};

TEST_F(RecvSingle, DataReachTheStore) {
    const auto data = bytes(1000);
    Operation op;
    upload(op, data);
    expect_success(op);
    ASSERT_EQ(puts().size(), 1u);
    const auto call = puts()[0];
    EXPECT_EQ(call.context.bucket, "b");
    EXPECT_EQ(call.key, "dir/f");
    EXPECT_EQ(call.length, 1000u);
    EXPECT_EQ(call.body, data);
    EXPECT_FALSE(call.request_context);
    EXPECT_EQ(call.timeout, 0);
    EXPECT_EQ(op.begin_transfers, 1);
    ASSERT_NE(s3_find("b", "dir/f"), nullptr);
    EXPECT_EQ(s3_find("b", "dir/f")->data, data);
}

TEST_F(RecvSingle, StepsAreInOrder) {
    Operation op;
    upload(op, bytes(100));
    EXPECT_LT(trace_position("zorvan_thread_create"), trace_position("begin_transfer"));
    EXPECT_LT(trace_position("begin_transfer"), trace_position("register_read"));
    EXPECT_LT(trace_position("register_read"), trace_position("S3_put_object"));
    EXPECT_EQ(trace().back(), "finished_transfer");
}

TEST_F(RecvSingle, FirstReadsAreRegisteredBeforeTheRequest) {
    s3_respond(S3Kind::put_object, [](const S3Call&) -> std::optional<Reply> {
        EXPECT_EQ(trace_count("register_read"), 3);
        return std::nullopt;
    });
    Operation op;
    op.concurrency = 3;
    op.hold();
    op.send_in_blocks(bytes(640));
    call_recv(op, "/b/dir/f", 640);
    ASSERT_TRUE(op.wait_outstanding(3));
    op.release();
    finish(op);
    expect_success(op);
    EXPECT_EQ(op.max_outstanding, 3);
    for (const auto length : op.read_lengths)
        EXPECT_EQ(length, 64u);
}

TEST_F(RecvSingle, PropertiesOfAPlainUpload) {
    session->put_option = 77;
    const auto put = properties_of("/b/dir/name");
    EXPECT_EQ(put.content_type, std::nullopt);
    EXPECT_EQ(put.md5.value_or(""), "");
    EXPECT_EQ(put.cache_control, std::nullopt);
    EXPECT_EQ(put.disposition, std::nullopt);
    EXPECT_EQ(put.encoding, std::nullopt);
    EXPECT_EQ(put.expires, -1);
    EXPECT_EQ(put.acl, S3CannedAclPrivate);
    EXPECT_TRUE(put.metadata.empty());
    EXPECT_EQ(put.encryption, 0);
    EXPECT_EQ(put.option, 77);
}

TEST_F(RecvSingle, ContentTypeByTheLastExtension) {
    EXPECT_EQ(properties_of("/b/a.b.txt").content_type, "text/plain");
    EXPECT_EQ(properties_of("/b/picture.PNG").content_type, "image/png");
    EXPECT_EQ(properties_of("/b/.txt").content_type, "text/plain");
}

TEST_F(RecvSingle, NoContentTypeWithoutAKnownExtension) {
    for (const auto* path :
         {"/b/name.", "/b/name", "/b/a.txt.unknown", "/b/a.TXT", "/b/a.png", "/b/dir.txt/name"})
        EXPECT_EQ(properties_of(path).content_type, std::nullopt) << path;
}

TEST_F(RecvSingle, ModificationTimeBecomesMetadata) {
    for (const auto& [time, text] : std::map<int64_t, Text>{{1700000000, "1700000000"},
                                                            {0, "0"},
                                                            {-1, std::nullopt},
                                                            {-5, "-5"},
                                                            {INT64_MIN, "-9223372036854775808"},
                                                            {INT64_MAX, "9223372036854775807"}}) {
        Operation op;
        op.modification_time = time;
        upload(op, "data");
        expect_success(op);
        const auto put = puts().back().put.value();
        if (text)
            EXPECT_EQ(put.metadata, (Pairs{{"mtime", *text}}));
        else
            EXPECT_TRUE(put.metadata.empty());
    }
}

TEST_F(RecvSingle, ExpectedMd5BecomesMetadataButNoHeader) {
    for (const auto* algorithm : {"MD5", "md5", "Md5"}) {
        Operation op;
        op.modification_time = 17;
        op.send_in_blocks("abc");
        call_recv(op, "/b/f", 3, true, empty_md5, algorithm);
        finish(op);
        expect_success(op);
        const auto put = puts().back().put.value();
        EXPECT_EQ(put.metadata, (Pairs{{"mtime", "17"}, {"md5", "1B2M2Y8AsgTpgAmY7PhCfg=="}}));
        EXPECT_EQ(put.md5.value_or(""), "");
    }
}

TEST_F(RecvSingle, OtherAlgorithmsAreIgnored) {
    for (const auto* algorithm : {"sha1", "md5sum", "", "ADLER32"}) {
        Operation op;
        op.send_in_blocks("abc");
        call_recv(op, "/b/f", 3, true, "short", algorithm);
        finish(op);
        expect_success(op);
        EXPECT_TRUE(puts().back().put->metadata.empty());
    }
}

TEST_F(RecvSingle, ChecksumWithoutAlgorithmIsIgnored) {
    Operation op;
    op.send_in_blocks("abc");
    call_recv(op, "/b/f", 3, true, empty_md5, std::nullopt);
    finish(op);
    expect_success(op);
    EXPECT_TRUE(puts().back().put->metadata.empty());
}

TEST_F(RecvSingle, Md5OfAnotherLengthFailsBeforeAnyRequest) {
    for (const auto& sum : {std::string(empty_md5).substr(1), std::string(empty_md5) + "0", std::string()}) {
        Operation op;
        op.send_in_blocks("abc");
        call_recv(op, "/b/f", 3, true, sum, "md5");
        finish(op);
        expect_generic(op.finish().error, "recv_single", "Invalid md5 checksum");
        EXPECT_EQ(op.finishes.size(), 1u);
        EXPECT_TRUE(puts().empty());
        EXPECT_EQ(op.begin_transfers, 0);
        EXPECT_EQ(op.accepted, 0) << "nothing is taken in";
    }
}

TEST_F(RecvSingle, AlgorithmWithoutAChecksumIsNoCrash) {
    Operation op;
    op.send_in_blocks("abc");
    call_recv(op, "/b/f", 3, true, std::nullopt, "md5");
    finish(op);
    EXPECT_EQ(op.finish().error.text, "Invalid md5 checksum");
    EXPECT_TRUE(puts().empty());
}

TEST_F(RecvSingle, Md5WithALetterGFailsBeforeAnyRequest) {
    const std::string sum = std::string(31, '0') + "g";
    Operation op;
    op.send_in_blocks("abc");
    call_recv(op, "/b/f", 3, true, sum, "md5");
    finish(op);
    expect_generic(op.finish().error, "md5sum_encode", "Invalid character in md5sum " + sum);
    EXPECT_TRUE(puts().empty());
}

// --------------------------------------------------------------------------------------- sizes and orders

TEST_F(RecvSingle, NothingAnnouncedAndNothingSentIsAnEmptyObject) {
    Operation op;
    run(op, 0);
    expect_success(op);
    ASSERT_EQ(puts().size(), 1u);
    EXPECT_EQ(puts()[0].length, 0u);
    EXPECT_TRUE(puts()[0].pulls.empty());
}

TEST_F(RecvSingle, AnyByteBeyondNothingAnnouncedIsTheWriteError) {
    Operation op;
    op.send_in_blocks("x");
    run(op, 0);
    expect_write_error(op);
}

TEST_F(RecvSingle, OneByteTooManyIsTheWriteError) {
    Operation op;
    op.send_in_blocks(bytes(129));
    run(op, 128);
    expect_write_error(op);
}

TEST_F(RecvSingle, SurplusIsFoundByTheReadsAfterTheRequest) {
    // With one read at a time none is outstanding when the request ends: one more finds the surplus.
    Operation op;
    op.concurrency = 1;
    op.send_in_blocks(bytes(129));
    run(op, 128);
    expect_write_error(op);
}

TEST_F(RecvSingle, EndOfTheDataIsReadAfterTheRequest) {
    Operation op;
    op.concurrency = 1;
    upload(op, bytes(128));
    expect_success(op);
    EXPECT_EQ(op.accepted, 3);
    EXPECT_EQ(op.finish_at_callback, 3);
}

TEST_F(RecvSingle, BlockThatCrossesTheAnnouncedSizeAbortsTheRequest) {
    Operation op;
    op.send_in_blocks(bytes(300));
    run(op, 100);
    expect_write_error(op);
    ASSERT_EQ(puts().size(), 1u);
    EXPECT_NE(puts()[0].status, S3StatusOK);
    EXPECT_EQ(s3_find("b", "dir/f"), nullptr);
}

TEST_F(RecvSingle, OffsetsNearTheLimitDoNotOverflow) {
    Operation op;
    op.upload.push_back({INT64_MAX - 10, bytes(64)});
    run(op, 100);
    expect_write_error(op);
}

TEST_F(RecvSingle, ShortUploadPublishesNothing) {
    Operation op;
    op.send_in_blocks(bytes(100));
    run(op, 200);
    EXPECT_TRUE(op.finish().error.present);
    ASSERT_EQ(puts().size(), 1u);
    EXPECT_EQ(puts()[0].pulls.back(), 0);
    EXPECT_EQ(puts()[0].status, S3StatusErrorIncompleteBody);
    expect_s3(op.finish().error, s3_text("/b/dir/f", S3StatusErrorIncompleteBody));
    EXPECT_EQ(s3_find("b", "dir/f"), nullptr);
}

TEST_F(RecvSingle, NothingSentThoughAnnounced) {
    Operation op;
    run(op, 200);
    EXPECT_TRUE(op.finish().error.present);
    EXPECT_EQ(s3_find("b", "dir/f"), nullptr);
}

TEST_F(RecvSingle, BrokenChannelPublishesNothing) {
    for (const size_t sent : {size_t{0}, size_t{64}, size_t{199}}) {
        Operation op;
        op.send_in_blocks(bytes(sent));
        op.upload_fails = true;
        run(op, 200);
        EXPECT_TRUE(op.finish().error.present) << sent;
        EXPECT_EQ(op.finishes.size(), 1u);
        EXPECT_EQ(op.delivered, op.accepted);
        EXPECT_EQ(s3_find("b", "dir/f"), nullptr);
    }
}

TEST_F(RecvSingle, BlocksTwoThreeOneAreSentOneTwoThree) {
    const auto data = bytes(192);
    Operation op;
    op.concurrency = 3;
    op.upload = {{64, data.substr(64, 64)}, {128, data.substr(128)}, {0, data.substr(0, 64)}};
    run(op, 192);
    expect_success(op);
    EXPECT_EQ(puts().at(0).body, data);
}

TEST_F(RecvSingle, BlocksInReverseOrderWithOneReadAtATime) {
    const auto data = bytes(64 * 20);
    Operation op;
    op.concurrency = 1;
    for (int i = 19; i >= 0; --i)
        op.upload.push_back({i * 64, data.substr(static_cast<size_t>(i) * 64, 64)});
    run(op, 64 * 20);
    expect_success(op);
    EXPECT_EQ(puts().at(0).body, data);
}

TEST_F(RecvSingle, BlocksOfManyConnectionsInAnyOrder) {
    const auto data = bytes(64 * 60);
    for (const auto pick : {Pick::oldest, Pick::newest, Pick::scattered}) {
        Operation op;
        op.concurrency = 7;
        op.read_pick = pick;
        for (const int i : {5, 3, 1}) {
            for (int block = i; block < 60; block += 6)
                op.upload.push_back({block * 64, data.substr(static_cast<size_t>(block) * 64, 64)});
            for (int block = i - 1; block < 60; block += 6)
                op.upload.push_back({block * 64, data.substr(static_cast<size_t>(block) * 64, 64)});
        }
        run(op, 64 * 60);
        expect_success(op);
        EXPECT_EQ(puts().back().body, data);
    }
}

TEST_F(RecvSingle, MissingBlockPublishesNothing) {
    const auto data = bytes(192);
    Operation op;
    op.upload = {{0, data.substr(0, 64)}, {128, data.substr(128)}};
    run(op, 192);
    EXPECT_TRUE(op.finish().error.present);
    EXPECT_EQ(puts().at(0).body, data.substr(0, 64));
    EXPECT_EQ(s3_find("b", "dir/f"), nullptr);
}

TEST_F(RecvSingle, BlockSentTwicePublishesNothing) {
    const auto data = bytes(192);
    Operation op;
    op.upload = {{0, data.substr(0, 64)}, {0, data.substr(0, 64)}, {64, data.substr(64)}};
    run(op, 192);
    // Whatever becomes of it: no byte is sent twice.
    for (const auto& call : puts())
        EXPECT_TRUE(data.starts_with(call.body));
}

TEST_F(RecvSingle, EndMarkWithTheLastData) {
    const auto data = bytes(150);
    Operation op;
    op.eof_with_data = true;
    upload(op, data);
    expect_success(op);
    EXPECT_EQ(puts().at(0).body, data);
}

TEST_F(RecvSingle, ReadWithoutBytesInTheMiddle) {
    const auto data = bytes(128);
    Operation op;
    op.concurrency = 2;
    op.upload = {{0, data.substr(0, 64)}, {64, ""}, {64, data.substr(64)}};
    run(op, 128);
    expect_success(op);
    EXPECT_EQ(puts().at(0).body, data);
}

TEST_F(RecvSingle, SmallBlocksInLargeBuffers) {
    const auto data = bytes(500);
    Operation op;
    op.block_size = 1000;
    for (size_t at = 0; at < 500; at += 7)
        op.upload.push_back({static_cast<int64_t>(at), data.substr(at, 7)});
    run(op, 500);
    expect_success(op);
    EXPECT_EQ(puts().at(0).body, data);
}

TEST_F(RecvSingle, BufferTakenInPiecesIsCompactedInPlace) {
    const auto data = bytes(200);
    s3_pull_size(10);
    Operation op;
    upload(op, data);
    expect_success(op);
    EXPECT_EQ(puts().at(0).body, data);
    EXPECT_TRUE(log_says("partial_buffer_copy: op=" + pointer_text(&op) + " bytes_copied=10\n"));
    EXPECT_TRUE(log_says("add_to_pending_buffers: op=" + pointer_text(&op) + " s3_buffer=0x"));
}

TEST_F(RecvSingle, SteadyStateAllocatesNoFurtherBuffers) {
    Operation op;
    op.concurrency = 3;
    upload(op, bytes(64 * 200));
    expect_success(op);
    int buffers = 0;
    const auto log = log_text();
    for (size_t at = log.find("new_buffer="); at != std::string::npos; at = log.find("new_buffer=", at + 1))
        ++buffers;
    EXPECT_GE(buffers, 3);
    EXPECT_LT(buffers, 200);
    EXPECT_LE(op.max_outstanding, 3);
}

TEST_F(RecvSingle, ReceivedBytesAreReported) {
    Operation op;
    upload(op, bytes(150));
    int64_t sum = 0;
    for (const auto& [count, offset] : op.bytes_updates) {
        sum += count;
        EXPECT_TRUE(count == 0 || offset % 64 == 0);
    }
    EXPECT_EQ(sum, 150);
    EXPECT_TRUE(op.range_updates.empty());
}

// ------------------------------------------------------------------------------------------------ errors

TEST_F(RecvSingle, EveryFailureOfTheStoreIsReportedWithThePath) {
    for (int number = 1; number <= 134; ++number) {
        const auto status = static_cast<S3Status>(number);
        s3_script(S3Kind::put_object, put_reply(status));
        s3_script(S3Kind::put_object, put_reply(status));
        Operation op;
        upload(op, bytes(150));
        s3_script_clear(S3Kind::put_object);
        ASSERT_TRUE(op.finish().error.present) << number;
        const auto& error = op.finish().error;
        expect_s3(error.cause ? *error.cause : error, s3_text("/b/dir/f", status));
        EXPECT_EQ(op.finishes.size(), 1u);
    }
}

TEST_F(RecvSingle, FailureAfterAllDataIsReported) {
    s3_script(S3Kind::put_object, put_reply(S3StatusErrorAccessDenied, 150));
    Operation op;
    upload(op, bytes(150));
    expect_ftp(op.finish().error, 550, "PERMISSION_DENIED", std::nullopt);
    EXPECT_EQ(puts().size(), 1u);
}

TEST_F(RecvSingle, EarlyFailureDrainsTheReads) {
    s3_script(S3Kind::put_object, put_reply(S3StatusErrorAccessDenied));
    Operation op;
    op.concurrency = 4;
    upload(op, bytes(64 * 100));
    expect_ftp(op.finish().error, 550, "PERMISSION_DENIED", std::nullopt);
    EXPECT_EQ(op.finish_at_callback, op.accepted) << "the transfer ends when no read is outstanding";
}

TEST_F(RecvSingle, BytesThatArriveAfterTheFailureAreReported) {
    Operation op;
    op.concurrency = 4;
    op.hold();
    Reply refused = put_reply(S3StatusErrorAccessDenied);
    refused.after = [&] { op.release(); };
    s3_script(S3Kind::put_object, refused);
    upload(op, bytes(64 * 100));
    EXPECT_EQ(op.delivered, 4);
    EXPECT_EQ(op.bytes_updates,
              (std::vector<std::pair<int64_t, int64_t>>{{64, 0}, {64, 64}, {64, 128}, {64, 192}}));
}

TEST_F(RecvSingle, RetryBeforeDataWasTakenSendsTheWholeBody) {
    const auto data = bytes(300);
    s3_fail(S3Kind::put_object, 1, S3StatusErrorSlowDown);
    Operation op;
    upload(op, data);
    expect_success(op);
    ASSERT_EQ(puts().size(), 2u);
    EXPECT_EQ(puts()[1].body, data);
    EXPECT_EQ(sleeps(), std::vector<int64_t>{100000});
    const auto handle = pointer_text(&op);
    EXPECT_TRUE(log_says("REST: op=" + handle + " S3_put_object(bucket=b, key=dir/f) try=0\n"));
    EXPECT_TRUE(log_says("REST: op=" + handle + " S3_put_object(bucket=b, key=dir/f) try=1\n"));
    EXPECT_TRUE(log_says("S3_put_object: op=" + handle + " status=ErrorSlowDown[120]\n"));
}

TEST_F(RecvSingle, FailureAfterDataWasTakenIsFinal) {
    s3_on_call(S3Kind::put_object, 1, put_reply(S3StatusErrorSlowDown, 64));
    Operation op;
    upload(op, bytes(300));
    expect_ftp(op.finish().error, 451, "TOO_BUSY", std::nullopt);
    EXPECT_EQ(puts().size(), 1u);
    EXPECT_EQ(s3_find("b", "dir/f"), nullptr);
}

TEST_F(RecvSingle, BodyIsNeverRewound) {
    // Were a client library to call such a status retryable, the second body begins where the first ended.
    s3_retry_after_data(true);
    s3_pull_size(64);
    const auto data = bytes(300);
    s3_on_call(S3Kind::put_object, 1, put_reply(S3StatusConnectionFailed, 64));
    Operation op;
    upload(op, data);
    ASSERT_EQ(puts().size(), 2u);
    EXPECT_EQ(puts()[1].body, data.substr(64));
    EXPECT_NE(op.finish().result, ZORVAN_SUCCESS);
    EXPECT_EQ(s3_find("b", "dir/f"), nullptr);
}

TEST_F(RecvSingle, FirstErrorStays) {
    // The surplus is found first; the request that it aborts fails too.
    Operation op;
    op.send_in_blocks(bytes(300));
    s3_pull_size(64);
    run(op, 130);
    expect_write_error(op);
    EXPECT_NE(puts().at(0).status, S3StatusOK);
}

TEST_F(RecvSingle, RefusedFirstReadEndsTheTransferWithoutARequest) {
    for (const int nth : {1, 2, 3}) {
        Operation op;
        op.concurrency = 3;
        op.refuse_read = nth;
        upload(op, bytes(300));
        EXPECT_EQ(op.finish().error.text, "read refused") << nth;
        EXPECT_EQ(op.delivered, nth - 1);
    }
    EXPECT_TRUE(puts().empty());
}

TEST_F(RecvSingle, RefusedReadWithNoneOutstandingIsTheTransfersResult) {
    Operation op;
    op.concurrency = 1;
    op.refuse_read = 3;
    upload(op, bytes(64 * 10));
    EXPECT_EQ(op.finish().error.text, "read refused");
    EXPECT_EQ(s3_find("b", "dir/f"), nullptr);
}

TEST_F(RecvSingle, RefusedReadOfTheEndIsTheTransfersResult) {
    Operation op;
    op.concurrency = 1;
    op.refuse_read = 3;
    upload(op, bytes(128));
    EXPECT_EQ(op.finish().error.text, "read refused") << "nobody can tell whether the data ended";
    EXPECT_EQ(op.delivered, 2);
}

TEST_F(RecvSingle, BufferThatCannotBeAllocatedAtTheBeginning) {
    Operation op;
    op.block_size = 100000;
    fail_allocations_from(100000);
    upload(op, bytes(300000));
    fail_allocations_from(0);
    expect_system(op.finish().error, "malloc", ENOMEM);
    EXPECT_TRUE(puts().empty());
}

TEST_F(RecvSingle, PathThatCannotBeCopied) {
    Operation op;
    const std::string path = "/b/" + std::string(5000, 'p');
    fail_allocations_from(path.size());
    upload(op, "abc", path);
    fail_allocations_from(0);
    ASSERT_EQ(op.finishes.size(), 2u) << "once by the set-up, once by the entry";
    expect_system(op.finishes[0].error, "malloc", ENOMEM);
    EXPECT_EQ(op.begin_transfers, 0);
    EXPECT_EQ(op.accepted, 0) << "nothing is taken in";
    EXPECT_TRUE(puts().empty());
}

// --------------------------------------------------------------------------------------- keys and paths

TEST_F(RecvSingle, BucketPathHasANullKeyAndIsNoCrash) {
    Operation op;
    upload(op, "abc", "/b");
    EXPECT_EQ(puts().at(0).key, std::nullopt);
    EXPECT_EQ(puts().at(0).put->content_type, std::nullopt);
}

TEST_F(RecvSingle, EmptyKeyIsPassedOn) {
    Operation op;
    upload(op, "abc", "/b/");
    EXPECT_EQ(puts().at(0).key, "");
}

TEST_F(RecvSingle, PathWithoutLeadingSlash) {
    Operation op;
    upload(op, "abc", "b/dir/f");
    expect_success(op);
    EXPECT_EQ(s3_find("b", "dir/f")->data, "abc");
}

TEST_F(RecvSingle, OperationBecomesTheSessionsCurrentOne) {
    Operation op;
    set_thread_mode(ThreadMode::deferred);
    op.send_in_blocks("abc");
    call_recv(op, "/b/f", 3);
    EXPECT_EQ(session->current_op.load(), &op);
    run_deferred_threads();
    finish(op);
}

TEST_F(RecvSingle, LogOfAnUpload) {
    Operation op;
    op.concurrency = 1;
    upload(op, "abc");
    const auto handle = pointer_text(&op);
    for (const auto& message :
         {"begin_transfer: op=" + handle + " pathname=/b/dir/f\n",
          std::string("Currently 0 blocks registered, 0 blocks pending\n"),
          std::string("Optimal is 1 blocks\n"), std::string("Registering read with s3_buffer=0x"),
          "recv_read_callback: op=" + handle + " result=0 buffer=0x",
          std::string("Waiting for current offset 0 to be ready\n"),
          "recv_single_data: op=" + handle + " buffer_size=3 buffer=0x",
          "finished_transfer: op=" + handle + " result=0\n"})
        EXPECT_TRUE(log_says(message)) << message;
    EXPECT_TRUE(log_holds(" nbytes=3 offset=0 eof=0 user_arg=0x"));
}

TEST_F(RecvSingle, LevelsOfTheLines) {
    expect_levels({{ZORVAN_S3_INFO, "recv op="},
                   {ZORVAN_S3_INFO, "recv: op="},
                   {ZORVAN_S3_INFO, "begin_transfer: op="},
                   {ZORVAN_S3_INFO, "REST: op="},
                   {ZORVAN_S3_INFO, "finished_transfer: op="},
                   {ZORVAN_S3_DEBUG, "S3_put_object: op="},
                   {ZORVAN_S3_DEBUG, "recv_read_callback: op="},
                   {ZORVAN_S3_TRACE, "Currently "},
                   {ZORVAN_S3_TRACE, "Optimal is "},
                   {ZORVAN_S3_TRACE, "Registering read with s3_buffer="},
                   {ZORVAN_S3_TRACE, "Waiting for current offset "},
                   {ZORVAN_S3_TRACE, "recv_single_data: op="}},
                  [&] {
                      fail_next(S3Kind::put_object);
                      Operation op;
                      upload(op, bytes(150));
                      expect_success(op);
                  });
}

TEST_F(RecvSingle, FunctionsLogUnderTheirOwnNames) {
    Operation op;
    upload(op, "abc");
    for (const auto* name : {"zorvan_i_s3_recv", "zorvan_i_s3_recv_single", "zorvan_l_s3_recv_single_thread",
                             "zorvan_l_s3_recv_register_reads", "zorvan_l_s3_recv_single_read_callback",
                             "zorvan_l_s3_recv_single_data", "zorvan_l_s3_recv_single_properties",
                             "zorvan_l_s3_recv_single_complete"})
        EXPECT_TRUE(log_holds(std::string("s3: TRACE: ") + name + ": ")) << name;
}

TEST_F(RecvSingle, EntryTouchesNothingAfterItsThreadWasMade) {
    Operation op;
    op.send_in_blocks(bytes(300));
    set_thread_mode(ThreadMode::at_once);
    set_after_at_once([&] {
        destroy_session();
        release_records();
        trace_reset();
    });
    call_recv(op, "/b/dir/f", 300);
    EXPECT_TRUE(trace().empty());
    op.close();
}

TEST_F(RecvSingle, WorkerTouchesNothingAfterItsFinishedCall) {
    for (const bool fails : {false, true}) {
        Operation op;
        if (fails)
            s3_fail(S3Kind::put_object, static_cast<int>(puts().size()) + 1, S3StatusErrorAccessDenied);
        op.on_finished = [&] {
            destroy_session();
            release_records();
            trace_reset();
        };
        upload(op, bytes(300));
        EXPECT_TRUE(trace().empty());
        login();
        s3_bucket("b");
    }
}

TEST_F(RecvSingle, ManyUploadsAtOnce) {
    std::vector<std::unique_ptr<Operation>> operations;
    for (int i = 0; i < 10; ++i) {
        operations.push_back(std::make_unique<Operation>());
        auto& op = *operations.back();
        op.concurrency = 1 + i;
        op.read_pick = Pick::scattered;
        op.send_in_blocks(bytes(64 * 50, static_cast<unsigned>(i)));
        call_recv(op, "/b/f" + std::to_string(i), 64 * 50);
    }
    for (int i = 0; i < 10; ++i) {
        auto& op = *operations[static_cast<size_t>(i)];
        ASSERT_TRUE(op.wait_finished());
        op.close();
        EXPECT_EQ(op.finish().result, ZORVAN_SUCCESS);
        const auto* object = s3_find("b", "f" + std::to_string(i));
        ASSERT_NE(object, nullptr);
        EXPECT_EQ(object->data, bytes(64 * 50, static_cast<unsigned>(i)));
    }
}

using RecvSingleDeathTest = RecvSingle;

TEST_F(RecvSingleDeathTest, CompletionWithoutAStateIsAnAssertion) {
    EXPECT_DEATH(zorvan_i_s3_receive_complete("f", "recv_single", S3StatusOK, nullptr, nullptr),
                 "Assertion transfer_state != NULL failed in file recv_single at line [0-9]+\n");
}

TEST_F(RecvSingleDeathTest, UnknownBufferIsAnAssertion) {
    zorvan_i_s3_receive_rules_t rules{};
    rules.source_file = "recv_single";
    rules.read_line_end = "\n";
    rules.register_function = "r";
    rules.read_function = "f";
    Operation op;
    unsigned char buffer[4] = {};
    EXPECT_DEATH(
        {
            zorvan_i_s3_receive_t state;
            state.rules = &rules;
            state.op = &op;
            zorvan_i_s3_receive_read_completed(&state, 0, buffer, 1, 0, 0);
        },
        "Assertion s3_buffer != NULL failed in file recv_single at line [0-9]+\n");
    op.finishes.emplace_back();
}

}  // namespace
