// Uploads in parts: the requests, their order, the commit, the checksums, the log.
#include <functional>
#include <map>

#include "notices.h"
#include "recv_multipart_fixture.h"

using namespace module_test;

namespace {

constexpr const char* empty_md5 = "d41d8cd98f00b204e9800998ecf8427e";

class RecvMultipart : public RecvMultipartTest {
  protected:
    static size_t parts_listed(const std::string& body) {
        size_t count = 0;
        for (size_t at = body.find("<Part>"); at != std::string::npos; at = body.find("<Part>", at + 1))
            ++count;
        return count;
    }
};

// ---------------------------------------------------------------------------------- requests and their order

TEST_F(RecvMultipart, DataReachTheStoreInParts) {
    const auto data = bytes(350);
    Operation op;
    upload(op, data);
    expect_success(op);
    expect_stored(data);
    EXPECT_EQ(kinds(), (std::vector{S3Kind::list_uploads, S3Kind::initiate_multipart, S3Kind::upload_part,
                                    S3Kind::upload_part, S3Kind::upload_part, S3Kind::upload_part,
                                    S3Kind::complete_multipart}));
    ASSERT_EQ(parts().size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(parts()[i].part, static_cast<int>(i) + 1);
        EXPECT_EQ(parts()[i].body, data.substr(i * 100, 100));
        EXPECT_EQ(parts()[i].length, parts()[i].body.size());
    }
    EXPECT_EQ(op.range_updates, (Ranges{{0, 100}, {100, 100}, {200, 100}, {300, 50}}));
    EXPECT_EQ(op.begin_transfers, 1);
}

TEST_F(RecvMultipart, ArgumentsOfTheRequests) {
    Operation op;
    upload(op, bytes(150));
    expect_success(op);
    for (const auto kind : kinds()) {
        const auto call = s3_calls(kind).at(0);
        EXPECT_EQ(call.context.bucket, "b");
        EXPECT_EQ(call.context.access_key, "AK-alice");
        EXPECT_FALSE(call.request_context);
        EXPECT_EQ(call.timeout, 0);
        EXPECT_NE(call.thread, std::this_thread::get_id());
    }
    const auto list = s3_calls(S3Kind::list_uploads).at(0);
    EXPECT_EQ(list.prefix, "dir/f");
    EXPECT_EQ(list.marker, std::nullopt);
    EXPECT_EQ(list.upload_marker, std::nullopt);
    EXPECT_EQ(list.encoding, std::nullopt);
    EXPECT_EQ(list.delimiter, "/");
    EXPECT_EQ(list.max, 0);
    EXPECT_EQ(s3_calls(S3Kind::initiate_multipart).at(0).key, "dir/f");
    for (const auto& call : parts()) {
        EXPECT_EQ(call.key, "dir/f");
        EXPECT_FALSE(call.put.has_value());
        EXPECT_EQ(call.upload_id, "2~new1");
    }
    const auto commit = s3_calls(S3Kind::complete_multipart).at(0);
    EXPECT_EQ(commit.key, "dir/f");
    EXPECT_EQ(commit.upload_id, "2~new1");
    EXPECT_EQ(commit.length, commit.body.size());
}

TEST_F(RecvMultipart, StepsAreInOrder) {
    Operation op;
    upload(op, bytes(150));
    const std::vector<std::string> steps{"zorvan_thread_create",
                                         "S3_list_multipart_uploads",
                                         "S3_initiate_multipart",
                                         "get_write_range",
                                         "begin_transfer",
                                         "S3_upload_part",
                                         "register_read",
                                         "update_range_recvd",
                                         "S3_complete_multipart_upload"};
    for (size_t i = 0; i + 1 < steps.size(); ++i) {
        EXPECT_GE(trace_position(steps[i]), 0) << steps[i];
        EXPECT_LT(trace_position(steps[i]), trace_position(steps[i + 1])) << steps[i];
    }
    EXPECT_EQ(trace().back(), "finished_transfer");
}

TEST_F(RecvMultipart, PropertiesAreThoseOfTheInitiateRequest) {
    session->put_option = 78;
    Operation op;
    op.modification_time = 17;
    op.send_in_blocks(bytes(150));
    call_recv_multipart(op, "/b/a.b.txt", 150, 150, part, false, empty_md5, "Md5");
    finish(op);
    expect_success(op);
    const auto put = s3_calls(S3Kind::initiate_multipart).at(0).put.value();
    EXPECT_EQ(put.content_type, "text/plain");
    EXPECT_EQ(put.metadata, (Pairs{{"mtime", "17"}, {"md5", "1B2M2Y8AsgTpgAmY7PhCfg=="}}));
    EXPECT_EQ(put.md5.value_or(""), "");
    EXPECT_EQ(put.expires, -1);
    EXPECT_EQ(put.option, 78);
    EXPECT_EQ(put.encryption, 0);
}

TEST_F(RecvMultipart, BadExpectedMd5EndsBeforeTheInitiateRequest) {
    for (const auto& [sum, text, file] : std::vector<std::tuple<std::string, std::string, std::string>>{
             {std::string(empty_md5).substr(1), "Invalid md5 checksum", "recv_multipart"},
             {std::string(empty_md5) + "0", "Invalid md5 checksum", "recv_multipart"},
             {std::string(31, '0') + "g", "Invalid character in md5sum " + std::string(31, '0') + "g",
              "md5sum_encode"}}) {
        Operation op;
        op.send_in_blocks(bytes(150));
        call_recv_multipart(op, "/b/dir/f", 150, 150, part, false, sum, "md5");
        finish(op);
        expect_generic(op.finish().error, file, text);
        EXPECT_EQ(op.finishes.size(), 1u);
        EXPECT_EQ(op.begin_transfers, 0);
    }
    EXPECT_EQ(s3_calls(S3Kind::list_uploads).size(), 3u);
    EXPECT_TRUE(s3_calls(S3Kind::initiate_multipart).empty());
}

TEST_F(RecvMultipart, TheEntryChoosesItBeyondThePartSize) {
    constexpr size_t mib5 = 5242880;
    zorvan_i_s3_part_size = mib5;
    for (const size_t size : {2 * mib5, 2 * mib5 + 1}) {
        const auto data = bytes(size);
        Operation op;
        op.block_size = 262144;
        op.send_in_blocks(data);
        call_recv(op, "/b/dir/f", static_cast<int64_t>(size));
        finish(op);
        expect_success(op);
        expect_stored(data);
    }
    std::vector<uint64_t> lengths;
    for (const auto& call : parts())
        lengths.push_back(call.length);
    EXPECT_EQ(lengths, (std::vector<uint64_t>{mib5, mib5, mib5, mib5, 1}));
}

TEST_F(RecvMultipart, RestrictedRangeMarkersAreNotReported) {
    session->suppress_restart_markers = true;
    Operation op;
    upload(op, bytes(250));
    expect_success(op);
    EXPECT_TRUE(op.range_updates.empty());
    EXPECT_FALSE(log_holds("restart_marker"));
}

// --------------------------------------------------------------------------------------------- part sizes

TEST_F(RecvMultipart, SizesOfTheParts) {
    const std::vector<std::pair<size_t, std::vector<uint64_t>>> cases{{1, {1}},
                                                                      {99, {99}},
                                                                      {100, {100}},
                                                                      {101, {100, 1}},
                                                                      {300, {100, 100, 100}},
                                                                      {301, {100, 100, 100, 1}},
                                                                      {399, {100, 100, 100, 99}}};
    for (const auto& [size, lengths] : cases) {
        const auto before = parts().size();
        const auto data = bytes(size);
        Operation op;
        upload(op, data);
        expect_success(op);
        expect_stored(data);
        std::vector<uint64_t> found;
        for (size_t i = before; i < parts().size(); ++i)
            found.push_back(parts()[i].length);
        EXPECT_EQ(found, lengths) << size;
    }
}

TEST_F(RecvMultipart, BlocksAndPartsOfAnySizesFit) {
    silence();
    const auto data = bytes(1500);
    for (const size_t block : {1, 7, 63, 64, 65, 100, 101, 1000, 4000})
        for (const uint64_t part_size : {1, 7, 64, 100, 749, 750, 1499, 1500, 4000}) {
            Operation op;
            op.block_size = block;
            op.concurrency = 3;
            upload(op, data, part_size);
            expect_success(op);
            expect_stored(data);
            EXPECT_EQ(cached_md5("b", "dir/f", s3_find("b", "dir/f")->properties.etag.value(), 1500),
                      md5_of(data));
        }
}

TEST_F(RecvMultipart, SizesBeyondTheLimitEndBeforeTheTransferBegins) {
    // The entry refuses them; whoever gets past it gains nothing.
    for (const uint64_t total : {uint64_t{10'000} * part + 1, zorvan_i_s3_unknown_size - 1,
                                 zorvan_i_s3_unknown_size, uint64_t{1} << 63}) {
        Operation op;
        run(op, total);
        expect_generic(op.finish().error, "recv_multipart", "File upload too large");
        EXPECT_EQ(op.begin_transfers, 0);
    }
    EXPECT_TRUE(parts().empty());
}

// ------------------------------------------------------------------------------------------- the commit

TEST_F(RecvMultipart, CommitBodyIsExact) {
    const auto data = bytes(150);
    Operation op;
    upload(op, data);
    EXPECT_EQ(s3_calls(S3Kind::complete_multipart).at(0).body,
              "<CompleteMultipartUpload>"
              "<Part><PartNumber>1</PartNumber><ETag>\"" +
                  md5_of(data.substr(0, 100)) +
                  "\"</ETag></Part>"
                  "<Part><PartNumber>2</PartNumber><ETag>\"" +
                  md5_of(data.substr(100)) + "\"</ETag></Part></CompleteMultipartUpload>");
}

TEST_F(RecvMultipart, CommitBodyOfTenThousandPartsInPieces) {
    silence();
    const auto data = bytes(10'000);
    size_t turn = 0;
    for (const int pull : {1 << 20, 65536, 1000}) {
        s3_pull_size(pull);
        Operation op;
        op.block_size = 1000;
        upload(op, data, 1);
        expect_success(op);
        expect_stored(data);
        const auto commit = s3_calls(S3Kind::complete_multipart).at(turn++);
        EXPECT_EQ(commit.length, commit.body.size());
        EXPECT_EQ(parts_listed(commit.body), 10'000u);
        EXPECT_EQ(commit.pulls.size() > 1, pull < 1 << 20);
        EXPECT_NE(commit.body.find("<PartNumber>10000</PartNumber>"), std::string::npos);
    }
}

TEST_F(RecvMultipart, CommitBodyEndsAtItsEndHoweverMuchIsAskedFor) {
    for (const int pull : {65536, 30}) {
        s3_pull_size(pull);
        Reply greedy;
        greedy.take = 10'000;
        s3_script(S3Kind::complete_multipart, greedy);
        Operation op;
        // A part's element does not fit into the small buffer: an upload without parts.
        pull == 30 ? run(op, 0) : upload(op, bytes(150));
        const auto commit = s3_calls(S3Kind::complete_multipart).back();
        EXPECT_EQ(commit.body.size(), commit.length);
        EXPECT_EQ(commit.pulls.back(), 0);
        EXPECT_EQ(commit.status, S3StatusErrorIncompleteBody);
    }
}

TEST_F(RecvMultipart, OpeningTagIsWrittenOnceWhenNoElementFitsBehindIt) {
    Operation op;
    s3_pull_size(100);
    upload(op, bytes(250));
    expect_success(op);
    const auto commit = s3_calls(S3Kind::complete_multipart).at(0);
    ASSERT_EQ(commit.pulls.size(), 5u);
    EXPECT_EQ(commit.pulls[0], 25);
    EXPECT_EQ(commit.pulls[4], 26);
    EXPECT_EQ(commit.body.find("<CompleteMultipartUpload>", 1), std::string::npos);
}

TEST_F(RecvMultipart, CommitBufferEdges) {
    // An element has 86 bytes here, and needs one more; the closing tag has 26 and needs none more.
    const std::vector<std::pair<int, std::vector<int>>> cases{
        {86, {25, 0}},     {87, {25, 86, 86, 26}}, {111, {25, 86, 86, 26}},
        {112, {111, 112}}, {197, {111, 112}},      {198, {197, 26}},
        {223, {223}},
    };
    for (const auto& [pull, pulls] : cases) {
        Operation op;
        s3_pull_size(pull);
        upload(op, bytes(200));
        EXPECT_EQ(s3_calls(S3Kind::complete_multipart).back().pulls, pulls) << pull;
        if (pulls.back() != 0) {
            expect_success(op);
        } else {
            expect_s3(op.finish().error, s3_text("/b/dir/f", S3StatusErrorIncompleteBody));
            EXPECT_EQ(s3_upload_ids("b").size(), 1u) << "a failed upload stays, to be resumed";
        }
    }
}

TEST_F(RecvMultipart, CommitThatIsRepeatedBeforeItsBodyWasTakenSendsAll) {
    s3_fail(S3Kind::complete_multipart, 1, S3StatusErrorSlowDown);
    const auto data = bytes(250);
    Operation op;
    upload(op, data);
    expect_success(op);
    expect_stored(data);
}

// ----------------------------------------------------------------------------------------- the ETags' word

TEST_F(RecvMultipart, EtagsThatAreTheMd5PassWhateverTheirCase) {
    const auto data = bytes(100);
    std::string upper = md5_of(data);
    for (auto& digit : upper)
        digit = static_cast<char>(std::toupper(digit));
    // The comparison ends with the digest.
    for (const auto& etag : {"\"" + md5_of(data) + "\"", "\"" + upper + "\"", "\"" + md5_of(data),
                             "\"" + md5_of(data) + "x", "x" + md5_of(data) + "\""}) {
        s3_script(S3Kind::upload_part, part_with(etag));
        Operation op;
        upload(op, data);
        expect_success(op);
        expect_stored(data);
    }
}

TEST_F(RecvMultipart, EtagsThatLieEndTheTransferAtTheirPart) {
    const auto data = bytes(300);
    const auto first = md5_of(data.substr(0, 100));
    const std::string lie(32, '0');
    for (const auto& etag : {"\"" + lie + "\"", first, lie, "\"" + first.substr(0, 31) + "\"",
                             "\"" + first.substr(0, 31), std::string("\""), std::string("x")}) {
        s3_script(S3Kind::upload_part, part_with(etag));
        Operation op;
        upload(op, data);
        expect_ftp(op.finish().error, 550, "INCORRECT_CHECKSUM", checksum_text(etag.substr(1), first));
        EXPECT_EQ(op.finish().error.cause, nullptr);
        EXPECT_EQ(op.finishes.size(), 1u);
        EXPECT_TRUE(op.range_updates.empty());
        EXPECT_EQ(s3_upload_ids("b").size(), 1u);
        expect_not_stored();
    }
    EXPECT_EQ(parts().size(), 7u) << "no further part is sent";
    EXPECT_TRUE(s3_calls(S3Kind::complete_multipart).empty());
}

TEST_F(RecvMultipart, EtagThatLiesLater) {
    const auto data = bytes(300);
    s3_on_call(S3Kind::upload_part, 3, part_with("\"" + std::string(32, 'a') + "\""));
    Operation op;
    upload(op, data);
    expect_ftp(op.finish().error, 550, "INCORRECT_CHECKSUM",
               checksum_text(std::string(32, 'a') + "\"", md5_of(data.substr(200))));
    EXPECT_EQ(op.range_updates, (Ranges{{0, 100}, {100, 100}}));
}

TEST_F(RecvMultipart, EmptyEtagIsNoMd5) {
    s3_script(S3Kind::upload_part, part_with(""));
    Operation op;
    upload(op, bytes(100));
    expect_ftp(op.finish().error, 550, "INCORRECT_CHECKSUM", checksum_text("", md5_of(bytes(100))));
}

// ------------------------------------------------------------------------------------------ the file's sum

TEST_F(RecvMultipart, SumOfTheFileIsRememberedUnderTheCommitsEtag) {
    const auto data = bytes(350);
    Operation op;
    upload(op, data);
    const auto etag = s3_find("b", "dir/f")->properties.etag.value();
    EXPECT_TRUE(etag.ends_with("-4\""));
    EXPECT_EQ(cached_md5("b", "dir/f", etag, 350), md5_of(data));
    EXPECT_TRUE(s3_calls(S3Kind::head_object).empty());
}

TEST_F(RecvMultipart, CommitWithoutAnEtagLeadsToOneHead) {
    for (const Text& etag : {Text(), Text("")}) {
        const auto heads = s3_calls(S3Kind::head_object).size();
        Reply reply;
        reply.commit_etag = etag;
        s3_script(S3Kind::complete_multipart, reply);
        s3_fail(S3Kind::head_object, static_cast<int>(heads) + 1, S3StatusErrorSlowDown);
        const auto data = bytes(250, 7);
        Operation op;
        upload(op, data);
        expect_success(op);
        ASSERT_EQ(s3_calls(S3Kind::head_object).size(), heads + 2) << "under the retry rule";
        EXPECT_EQ(s3_calls(S3Kind::head_object).back().key, "dir/f");
        EXPECT_EQ(cached_md5("b", "dir/f", s3_find("b", "dir/f")->properties.etag.value(), 250),
                  md5_of(data));
    }
}

TEST_F(RecvMultipart, HeadThatFailsFailsTheTransferThoughTheObjectIsThere) {
    s3_script(S3Kind::complete_multipart, Reply{});
    s3_fail(S3Kind::head_object, 1, S3StatusErrorAccessDenied);
    Operation op;
    upload(op, bytes(250));
    expect_ftp(op.finish().error, 550, "PERMISSION_DENIED", std::nullopt);
    expect_stored(bytes(250));
    EXPECT_EQ(cached_md5("b", "dir/f", s3_find("b", "dir/f")->properties.etag.value(), 250), "(none)");
    EXPECT_TRUE(host_log().empty()) << "nothing is tried to be remembered";
}

TEST_F(RecvMultipart, ObjectWithoutAnEtagIsNotRemembered) {
    s3_script(S3Kind::complete_multipart, Reply{});
    s3_script(S3Kind::head_object, part_with(std::nullopt));
    Operation op;
    upload(op, bytes(250));
    expect_success(op);
    EXPECT_EQ(host_logged(2, "Can not cache invalid checksum:  path: 'b/dir/f', checksum: '" +
                                 md5_of(bytes(250)) + "', etag: '(null)'\n"),
              1);
}

TEST_F(RecvMultipart, WithoutSumsNothingIsComparedAskedForOrRemembered) {
    for (const auto step : {Md5Step::init, Md5Step::update, Md5Step::finalize}) {
        fail_md5(step);
        s3_script(S3Kind::upload_part, part_with("\"lie\""));
        s3_script(S3Kind::complete_multipart, Reply{});
        const auto data = bytes(250);
        Operation op;
        upload(op, data);
        fail_md5(Md5Step::none);
        expect_success(op);
        expect_stored(data);
        EXPECT_EQ(op.range_updates.size(), 3u);
        EXPECT_EQ(cached_md5("b", "dir/f", s3_find("b", "dir/f")->properties.etag.value(), 250), "(none)");
    }
    EXPECT_TRUE(s3_calls(S3Kind::head_object).empty());
    EXPECT_FALSE(log_holds("part complete"));
    EXPECT_TRUE(host_log().empty());
}

TEST_F(RecvMultipart, SumThatFailsInTheMiddleEndsTheChecking) {
    for (const auto step : {Md5Step::init, Md5Step::update, Md5Step::finalize}) {
        s3_respond(S3Kind::upload_part, [step](const S3Call& call) -> std::optional<Reply> {
            if (call.part == 1) {
                Reply reply;
                reply.properties = Properties{};
                reply.properties->etag = etag_of_body;
                if (step == Md5Step::init) reply.after = [] { fail_md5(Md5Step::init); };
                return reply;
            }
            if (call.part == 2 && step != Md5Step::init) {
                auto reply = part_with("\"lie\"");
                reply.before = [step] { fail_md5(step); };
                return reply;
            }
            return std::nullopt;
        });
        Operation op;
        upload(op, bytes(250));
        fail_md5(Md5Step::none);
        expect_success(op);
        expect_stored(bytes(250));
        EXPECT_EQ(cached_md5("b", "dir/f", s3_find("b", "dir/f")->properties.etag.value(), 250), "(none)");
    }
}

TEST_F(RecvMultipart, SumOfTheFileThatCannotBeFinishedIsNotRemembered) {
    Reply reply;
    reply.commit_etag = "\"etag-3\"";
    reply.after = [] { fail_md5(Md5Step::finalize); };
    s3_script(S3Kind::complete_multipart, reply);
    Operation op;
    upload(op, bytes(250));
    expect_success(op);
    EXPECT_EQ(cached_md5("b", "dir/f", "\"etag-3\"", 250), "(none)");
    EXPECT_TRUE(host_log().empty());
}

TEST_F(RecvMultipart, SumOfAPartIsBegunOncePerPartNotPerTry) {
    // Were a client library to call such a status retryable, the second body begins where the first ended,
    // and takes from the part behind it. The sum tells.
    s3_retry_after_data(true);
    s3_pull_size(50);
    auto broken = reply_of(S3StatusConnectionFailed, 50);
    broken.after = [] { s3_pull_size(1000); };
    s3_on_call(S3Kind::upload_part, 2, broken);
    const auto data = bytes(400);
    Operation op;
    op.block_size = 400;
    upload(op, data);
    ASSERT_EQ(parts().size(), 3u);
    EXPECT_EQ(parts()[1].body, data.substr(100, 50));
    EXPECT_EQ(parts()[2].part, 2);
    EXPECT_EQ(parts()[2].body, data.substr(150, 100));
    EXPECT_EQ(parts()[2].pulls, (std::vector{50, 50})) << "no copy crosses the part's end";
    expect_ftp(op.finish().error, 550, "INCORRECT_CHECKSUM",
               checksum_text(md5_of(data.substr(150, 100)) + "\"", md5_of(data.substr(100, 150))));
}

// -------------------------------------------------------------------------------------- uploads in progress

TEST_F(RecvMultipart, StaleUploadIsAbortedBeforeTheNewOneBegins) {
    s3_upload("b", "dir/f", "2~old", 1600000000, {"part"});
    bool told = false;
    Reply reply;
    reply.before = [&] { told = log_holds(" S3_abort_multipart_upload(id=2~old) try=0\n"); };
    s3_script(S3Kind::abort_multipart, reply);
    Operation op;
    upload(op, bytes(150));
    expect_success(op);
    expect_stored(bytes(150));
    const auto abort = s3_calls(S3Kind::abort_multipart);
    ASSERT_EQ(abort.size(), 1u);
    EXPECT_EQ(abort[0].upload_id, "2~old");
    EXPECT_EQ(abort[0].key, "dir/f");
    EXPECT_EQ(abort[0].timeout, 0);
    EXPECT_EQ(abort[0].status, S3StatusOK);
    EXPECT_LT(trace_position("S3_abort_multipart_upload"), trace_position("S3_initiate_multipart"));
    EXPECT_TRUE(told) << "logged before it is asked for";
    const auto handle = pointer_text(&op);
    EXPECT_TRUE(logged("INFO", "zorvan_l_s3_recv_multipart_thread",
                       "REST: op=" + handle + " S3_abort_multipart_upload(id=2~old) try=0"));
}

TEST_F(RecvMultipart, AbortThatFailsIsOnlyLogged) {
    for (int number = 1; number <= 134; ++number) {
        s3_upload("b", "dir/f", "2~old", 1600000000);
        const auto status = static_cast<S3Status>(number);
        s3_on_call(S3Kind::abort_multipart, number, reply_of(status));
        Operation op;
        upload(op, bytes(150));
        EXPECT_EQ(op.finish().result, ZORVAN_SUCCESS) << number;
    }
    EXPECT_EQ(s3_calls(S3Kind::abort_multipart).size(), 134u) << "no retries";
    EXPECT_TRUE(sleeps().empty());
    EXPECT_TRUE(log_holds(" message=" + s3_text("/b/dir/f", S3StatusErrorMalformedXML)));
}

TEST_F(RecvMultipart, AbortWhoseCompletionKnowsNobodyIsOnlyLogged) {
    s3_upload("b", "dir/f", "2~old", 1600000000);
    auto refused = reply_of(S3StatusErrorAccessDenied);
    refused.null_data = true;
    s3_script(S3Kind::abort_multipart, refused);
    Operation op;
    upload(op, bytes(150));
    expect_success(op);
    EXPECT_EQ(s3_find("b", "dir/f")->data, bytes(150));
}

TEST_F(RecvMultipart, OfSeveralUploadsAllAreAbortedTheLatestLast) {
    s3_upload("b", "dir/f", "2~a", 20);
    s3_upload("b", "dir/f", "2~b", 30);
    s3_upload("b", "dir/f", "2~c", 30);
    s3_upload("b", "dir/f", "2~d", 10);
    Operation op;
    upload(op, bytes(150));
    expect_success(op);
    std::vector<Text> aborted;
    for (const auto& call : s3_calls(S3Kind::abort_multipart))
        aborted.push_back(call.upload_id);
    EXPECT_EQ(aborted, (std::vector<Text>{"2~a", "2~c", "2~d", "2~b"}));
    const auto handle = pointer_text(&op);
    EXPECT_TRUE(logged("INFO", "zorvan_i_s3_recv_multipart_resolve_id",
                       "REST: op=" + handle + " S3_abort_multipart_upload(duplicate upload id=2~d) try=0"));
    EXPECT_TRUE(logged("INFO", "zorvan_l_s3_recv_multipart_thread",
                       "REST: op=" + handle + " S3_abort_multipart_upload(id=2~b) try=0"));
}

TEST_F(RecvMultipart, UploadsOfOtherKeysAreLeftAlone) {
    for (const auto* key : {"dir/f.txt", "dir/f/deeper", "dir/", "dir/e", "dir/F", "f"})
        s3_upload("b", key, std::string("2~") + key, 20);
    Operation op;
    upload(op, bytes(150));
    expect_success(op);
    EXPECT_EQ(s3_upload_ids("b").size(), 6u);
    EXPECT_TRUE(s3_calls(S3Kind::abort_multipart).empty());
}

TEST_F(RecvMultipart, UploadsAreComparedOverAllPages) {
    for (const size_t page : {1, 2, 3, 7}) {
        s3_page_size(page);
        for (const auto& [id, time] : std::map<std::string, int64_t>{
                 {"2~a", 5}, {"2~b", 9}, {"2~c", 2}, {"2~d", 9}, {"2~e", 12}, {"2~f", 1}})
            s3_upload("b", "dir/f", id, time);
        s3_upload("b", "dir/f2", "2~other", 99);
        const auto before = s3_calls(S3Kind::abort_multipart).size();
        Operation op;
        upload(op, bytes(150));
        expect_success(op);
        const auto aborted = s3_calls(S3Kind::abort_multipart);
        EXPECT_EQ(aborted.size() - before, 6u);
        EXPECT_EQ(aborted.back().upload_id, "2~e") << "the latest stays to the end";
        EXPECT_EQ(s3_upload_ids("b"), std::vector<std::string>{"2~other"});
    }
    const auto lists = s3_calls(S3Kind::list_uploads);
    EXPECT_EQ(lists[0].marker, std::nullopt);
    EXPECT_EQ(lists[1].marker, "dir/f");
    EXPECT_EQ(lists[1].upload_marker, "2~a");
}

TEST_F(RecvMultipart, OneMarkerIsEnoughForAFurtherPage) {
    for (const bool by_key : {true, false}) {
        const auto before = s3_calls(S3Kind::list_uploads).size();
        Reply reply;
        reply.truncated = true;
        (by_key ? reply.next_key : reply.next_upload) = "marker";
        s3_script(S3Kind::list_uploads, reply);
        Operation op;
        upload(op, bytes(150));
        expect_success(op);
        const auto lists = s3_calls(S3Kind::list_uploads);
        ASSERT_EQ(lists.size(), before + 2);
        EXPECT_EQ(lists.back().marker, by_key ? Text("marker") : Text());
        EXPECT_EQ(lists.back().upload_marker, by_key ? Text() : Text("marker"));
    }
}

TEST_F(RecvMultipart, MarkersOfALastPageDoNotCount) {
    Reply reply;
    reply.next_key = "dir/f";
    reply.next_upload = "2~x";
    s3_script(S3Kind::list_uploads, reply);
    Operation op;
    upload(op, bytes(150));
    expect_success(op);
    EXPECT_EQ(s3_calls(S3Kind::list_uploads).size(), 1u);
}

TEST_F(RecvMultipart, UploadToldTwiceIsNoDuplicateOfItself) {
    Reply reply;
    reply.uploads = {{"dir/f", "2~old", 5}, {"dir/f", "2~old", 5}};
    s3_script(S3Kind::list_uploads, reply);
    s3_upload("b", "dir/f", "2~old", 5);
    Operation op;
    upload(op, bytes(150));
    expect_success(op);
    EXPECT_EQ(s3_calls(S3Kind::abort_multipart).size(), 1u);
}

TEST_F(RecvMultipart, DuplicatesWhoseAbortFailsAreIgnored) {
    s3_upload("b", "dir/f", "2~a", 1);
    s3_upload("b", "dir/f", "2~b", 2);
    s3_fail(S3Kind::abort_multipart, 1, S3StatusErrorAccessDenied);
    Operation op;
    upload(op, bytes(150));
    expect_success(op);
    EXPECT_EQ(s3_upload_ids("b"), std::vector<std::string>{"2~a"});
}

TEST_F(RecvMultipart, NoUploadIdIsAnError) {
    for (const Text& id : {Text(), Text("")}) {
        Reply reply;
        reply.upload_id = id;
        s3_script(S3Kind::initiate_multipart, reply);
        Operation op;
        upload(op, bytes(150));
        expect_generic(op.finish().error, "recv_multipart", "No multipart upload id");
        EXPECT_EQ(op.finish().error.function, "zorvan_l_s3_recv_multipart_initiate_response_callback");
        EXPECT_EQ(s3_calls(S3Kind::initiate_multipart).back().status, S3StatusInternalError);
        EXPECT_EQ(op.begin_transfers, 0);
    }
    EXPECT_TRUE(parts().empty());
}

// ------------------------------------------------------------------------------------------------- ranges

TEST_F(RecvMultipart, BoundedWriteRangeIsRefused) {
    for (const int64_t length : {0, 100, 150}) {
        Operation op;
        op.write_range = {{0, length}};
        upload(op, bytes(150));
        expect_ftp(op.finish().error, 553, "APPEND_NOT_SUPPORTED", std::nullopt);
        EXPECT_EQ(op.finish().error.cause, nullptr);
        EXPECT_EQ(op.begin_transfers, 0);
    }
    EXPECT_TRUE(parts().empty());
}

TEST_F(RecvMultipart, WriteRangeThatCannotBeAskedForEndsTheTransfer) {
    Operation op;
    op.write_range = std::nullopt;
    upload(op, bytes(150));
    EXPECT_EQ(op.finish().result, ZORVAN_FAILURE);
    EXPECT_TRUE(parts().empty());
}

// ------------------------------------------------------------------------------------------- keys and log

TEST_F(RecvMultipart, BucketPathHasANullKeyAndIsNoCrash) {
    s3_upload("b", "", "2~empty", 5);
    Operation op;
    upload(op, bytes(150), part, "/b");
    EXPECT_EQ(op.finishes.size(), 1u);
    EXPECT_TRUE(s3_calls(S3Kind::abort_multipart).empty()) << "an upload has a key";
    EXPECT_EQ(s3_calls(S3Kind::initiate_multipart).at(0).key, std::nullopt);
}

TEST_F(RecvMultipart, LogOfAnUpload) {
    Operation op;
    op.concurrency = 1;
    upload(op, bytes(164));
    const auto handle = pointer_text(&op);
    const auto first = md5_of(bytes(164).substr(0, 100));
    const auto* thread = "zorvan_l_s3_recv_multipart_thread";
    EXPECT_TRUE(logged("INFO", "zorvan_i_s3_recv_multipart", "recv: op=" + handle + " pathname=/b/dir/f"));
    EXPECT_TRUE(logged("INFO", "zorvan_i_s3_recv_multipart_resolve_id",
                       "REST: op=" + handle + " S3_list_multipart_uploads(bucket=b, key=dir/f) try=0"));
    for (const auto& message :
         {"REST: op=" + handle + " S3_initiate_multipart(bucket=b, key=dir/f) try=0\n",
          std::string("transfer_id=2~new1\n"), "begin_transfer: op=" + handle + " pathname=/b/dir/f\n",
          "REST: op=" + handle + " S3_upload_part(id=2~new1, part=1) try=0\n",
          "REST: op=" + handle + " S3_upload_part(id=2~new1, part=2) try=0\n",
          "recv_single_data: op=" + handle + " buffer_size=100 buffer=0x",
          std::string("Currently 0 blocks registered, 0 blocks pending\n"),
          std::string("Optimal is 1 blocks\n"), std::string("Registering read with s3_buffer=0x"),
          std::string("Waiting for current offset 0 to be ready\n"),
          "partial_buffer_copy: op=" + handle + " bytes_copied=", "part=1 etag=\"" + first + "\"\n",
          "part complete: op=" + handle + " offset=0 md5=" + first + " etag=\"" + first + "\"\n",
          "restart_marker: op=" + handle + " offset=0 length=100\n",
          "restart_marker: op=" + handle + " offset=100 length=64\n",
          "REST: op=" + handle + " S3_complete_multipart_upload(id=2~new1) try=0\n",
          std::string("buffer=\"<CompleteMultipartUpload><Part>"),
          "finished_transfer: op=" + handle + " result=0\n"})
        EXPECT_TRUE(log_says(message)) << message;
    EXPECT_TRUE(logged("DEBUG", thread, "restart_marker: op=" + handle + " offset=0 length=100"));
    const auto log = log_text();
    EXPECT_LT(log.find("Registering read "), log.find("Waiting for current offset 0 "));
    EXPECT_TRUE(logged("INFO", thread, "result=ZORVAN_SUCCESS"));
}

TEST_F(RecvMultipart, WhatTheHostIsToldStandsInTheLogBefore) {
    Operation op;
    const auto handle = pointer_text(&op);
    std::map<std::string, std::string, std::less<>> before;
    at_each_call([&](std::string_view call) {
        if (call == "begin_transfer" || call == "update_range_recvd")
            before.try_emplace(std::string(call), log_text());
    });
    upload(op, bytes(150));
    trace_reset();
    EXPECT_NE(before["begin_transfer"].find("begin_transfer: op=" + handle), std::string::npos);
    EXPECT_NE(before["update_range_recvd"].find("restart_marker: op=" + handle + " offset=0 length=100\n"),
              std::string::npos);
}

TEST_F(RecvMultipart, LineOfAReadHasNoEnd) {
    Operation op;
    upload(op, bytes(150));
    const auto log = log_text();
    const auto at = log.find("recv_read_callback: op=" + pointer_text(&op) + " result=0 buffer=0x");
    ASSERT_NE(at, std::string::npos);
    const auto user = log.find(" user_arg=0x", at);
    ASSERT_NE(user, std::string::npos);
    EXPECT_NE(log[log.find_first_not_of("0123456789abcdef", user + 12)], '\n');
}

TEST_F(RecvMultipart, LevelsOfTheLines) {
    expect_levels(
        {{ZORVAN_S3_INFO, "recv: op="},
         {ZORVAN_S3_INFO, " S3_list_multipart_uploads(bucket="},
         {ZORVAN_S3_INFO, " S3_abort_multipart_upload(duplicate upload id="},
         {ZORVAN_S3_INFO, " S3_abort_multipart_upload(id="},
         {ZORVAN_S3_INFO, " S3_initiate_multipart(bucket="},
         {ZORVAN_S3_INFO, "begin_transfer: op="},
         {ZORVAN_S3_INFO, " S3_upload_part(id="},
         {ZORVAN_S3_INFO, " S3_complete_multipart_upload(id="},
         {ZORVAN_S3_INFO, " S3_head_object(bucket="},
         {ZORVAN_S3_INFO, "finished_transfer: op="},
         {ZORVAN_S3_DEBUG, "S3_list_multipart_uploads: op="},
         {ZORVAN_S3_DEBUG, "S3_initiate_multipart: op="},
         {ZORVAN_S3_DEBUG, "S3_upload_part: op="},
         {ZORVAN_S3_DEBUG, "S3_complete_multipart_upload: op="},
         {ZORVAN_S3_DEBUG, "S3_head_object: op="},
         {ZORVAN_S3_DEBUG, "transfer_id="},
         {ZORVAN_S3_DEBUG, ": part=1 etag="},
         {ZORVAN_S3_DEBUG, "restart_marker: op="},
         {ZORVAN_S3_DEBUG, "buffer=\"<CompleteMultipartUpload>"},
         {ZORVAN_S3_DEBUG, "recv_read_callback: op="},
         {ZORVAN_S3_TRACE, "Currently "},
         {ZORVAN_S3_TRACE, "Optimal is "},
         {ZORVAN_S3_TRACE, "Registering read with s3_buffer="},
         {ZORVAN_S3_TRACE, "Waiting for current offset "}},
        [&] {
            for (const auto kind : {S3Kind::list_uploads, S3Kind::initiate_multipart, S3Kind::upload_part,
                                    S3Kind::complete_multipart, S3Kind::head_object})
                fail_next(kind);
            s3_script(S3Kind::complete_multipart, Reply{});
            s3_upload("b", "dir/f", "2~a", 5);
            s3_upload("b", "dir/f", "2~b", 6);
            Operation op;
            upload(op, bytes(150));
            expect_success(op);
        });
}

TEST_F(RecvMultipart, FunctionsLogUnderTheirOwnNames) {
    s3_upload("b", "dir/f", "2~old", 5);
    s3_script(S3Kind::complete_multipart, part_with(std::nullopt));
    Operation op;
    upload(op, bytes(150));
    expect_success(op);
    for (const auto* name : {"zorvan_i_s3_recv_multipart",
                             "zorvan_l_s3_recv_multipart_thread",
                             "zorvan_l_s3_recv_multipart_register_reads",
                             "zorvan_i_s3_recv_multipart_resolve_id",
                             "zorvan_l_s3_recv_multipart_read_callback",
                             "zorvan_l_s3_recv_multipart_upload_part_data",
                             "zorvan_l_s3_recv_multipart_upload_part_properties",
                             "zorvan_l_s3_recv_multipart_upload_part_complete",
                             "zorvan_l_s3_recv_multipart_initiate_response_callback",
                             "zorvan_l_s3_recv_multipart_initiate_properties",
                             "zorvan_l_s3_recv_multipart_initiate_complete",
                             "zorvan_l_s3_recv_multipart_commit_put_data",
                             "zorvan_l_s3_recv_multipart_commit_response",
                             "zorvan_l_s3_recv_multipart_commit_properties",
                             "zorvan_l_s3_recv_multipart_commit_complete",
                             "zorvan_l_s3_multipart_head_object_properties",
                             "zorvan_l_s3_multipart_head_object_complete",
                             "zorvan_l_s3_recv_multipart_abort_properties",
                             "zorvan_l_s3_recv_multipart_abort_complete",
                             "zorvan_l_s3_recv_multipart_list_uploads_data",
                             "zorvan_l_s3_recv_multipart_list_uploads_properties",
                             "zorvan_l_s3_recv_multipart_list_uploads_complete"}) {
        EXPECT_TRUE(log_holds(std::string("s3: TRACE: ") + name + ": enter\n")) << name;
        EXPECT_TRUE(log_holds(std::string("s3: TRACE: ") + name + ": exit") ||
                    log_holds(std::string("s3: TRACE: ") + name + ": result=ZORVAN_SUCCESS") ||
                    log_holds(std::string("s3: ERROR: ") + name + ": result="))
            << name;
    }
    EXPECT_TRUE(log_holds("s3: TRACE: zorvan_l_s3_recv_multipart_register_reads: exit\n"));
    EXPECT_TRUE(log_holds("s3: TRACE: zorvan_l_s3_recv_multipart_commit_put_data: exit: "));
}

}  // namespace
