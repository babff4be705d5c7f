// Multipart uploads against scripted replies; above all, completing one whose outcome is in doubt.
#include <chrono>
#include <thread>

#include "script_fixture.h"
#include "text.h"

namespace {

using s3test::error_reply;
using s3test::Recorder;
using s3test::reply;
using s3test::Step;
using Events = std::vector<std::string>;
using Names = std::vector<std::string>;

const std::string kPartA = std::string(32, 'a');
const std::string kPartB = std::string(32, 'b');

// The parts in the order in which nobody should rely on.
const std::string kCommitDocument = "<CompleteMultipartUpload><Part><PartNumber>2</PartNumber><ETag>\"" +
                                    kPartB + "\"</ETag></Part><Part><PartNumber>1</PartNumber><ETag>" +
                                    kPartA + "</ETag></Part></CompleteMultipartUpload>";

std::string committed_etag() {
    return "\"" + s3::to_hex(s3::md5(*s3::from_hex(kPartA + kPartB))) + "-2\"";
}

std::string commit_reply(const std::string& etag) {
    return reply(
        200, {},
        "\n\n<?xml version=\"1.0\"?><CompleteMultipartUploadResult><Location>http://l/b/k</Location>" + etag +
            "</CompleteMultipartUploadResult>");
}

class Multipart : public s3test::Scripted {
  protected:
    Recorder initiate(const S3PutProperties* properties = nullptr) {
        Recorder recorder;
        const S3BucketContext where = context();
        S3_initiate_multipart(&where, "key", properties, &s3test::kInitiate, nullptr, 0, &recorder);
        return recorder;
    }
    Recorder upload(int number, const std::string& body, const char* id = "2~id/+") {
        Recorder recorder;
        recorder.body = body;
        const S3BucketContext where = context();
        S3_upload_part(&where, "key", nullptr, &s3test::kPut, number, id, body.size(), nullptr, 0, &recorder);
        return recorder;
    }
    Recorder commit(const std::string& document = kCommitDocument) {
        Recorder recorder;
        recorder.body = document;
        const S3BucketContext where = context();
        S3_complete_multipart_upload(&where, "key", &s3test::kCommit, "id", document.size(), nullptr, 0,
                                     &recorder);
        return recorder;
    }
    Recorder parts(const char* marker = nullptr, int most = 0) {
        Recorder recorder;
        const S3BucketContext where = context();
        S3_list_parts(&where, "key", marker, "id", nullptr, most, nullptr, 0, &s3test::kParts, &recorder);
        return recorder;
    }
    Recorder uploads(const char* key_marker = nullptr, const char* id_marker = nullptr) {
        Recorder recorder;
        const S3BucketContext where = context();
        S3_list_multipart_uploads(&where, "p", key_marker, id_marker, nullptr, "/", 5, nullptr, 0,
                                  &s3test::kUploads, &recorder);
        return recorder;
    }
};

TEST_F(Multipart, BeginTellsTheId) {
    const std::string result =
        "<InitiateMultipartUploadResult><UploadId>2~x</UploadId></InitiateMultipartUploadResult>";
    server_.then(reply(200, {}, result))
        .then(reply(200, {}, "<InitiateMultipartUploadResult></InitiateMultipartUploadResult>"))
        .then(reply(200, {}, result.substr(0, 40)))
        .then(reply(200, {}, "<Error><Code>SlowDown</Code></Error>"))
        .then(error_reply(403, "AccessDenied"));
    const S3NameValue pair{"n", "v"};
    S3PutProperties properties = s3test::no_properties();
    properties.metaData = &pair;
    properties.metaDataCount = 1;
    const Recorder begun = initiate(&properties);
    EXPECT_EQ(begun.status, S3StatusOK);
    EXPECT_EQ(begun.events, (Events{"properties", "xml", "complete"}));
    EXPECT_EQ(begun.upload_id, "2~x");
    EXPECT_EQ(server_.requests()[0].method, "POST");
    EXPECT_EQ(server_.requests()[0].target, "/bucket/key?uploads");
    EXPECT_EQ(server_.requests()[0].header("x-amz-meta-n"), "v");
    EXPECT_EQ(server_.requests()[0].header("content-length"), "0");
    const Recorder nameless = initiate();
    EXPECT_EQ(nameless.status, S3StatusOK);
    EXPECT_TRUE(nameless.saw("xml"));
    EXPECT_FALSE(nameless.upload_id);
    EXPECT_EQ(initiate().status, S3StatusXmlParseFailure);
    EXPECT_EQ(initiate().status, S3StatusErrorSlowDown);
    EXPECT_EQ(initiate().events, Events{"complete"});
}

TEST_F(Multipart, PartsCarryNumberAndId) {
    server_.then(reply(200, {{"ETag", "\"" + kPartA + "\""}}));
    const Recorder part = upload(7, "part");
    EXPECT_EQ(part.status, S3StatusOK);
    EXPECT_EQ(part.etag, "\"" + kPartA + "\"");
    EXPECT_EQ(server_.requests()[0].target, "/bucket/key?partNumber=7&uploadId=2~id%2F%2B");
    EXPECT_EQ(server_.requests()[0].body, "part");
}

TEST_F(Multipart, APartWithoutAUsableETagFailed) {
    server_.then(reply(200)).then(reply(200, {{"ETag", "\"" + std::string(33, 'a') + "\""}}));
    for (int i = 0; i < 2; ++i) {
        const Recorder part = upload(1, "part");
        EXPECT_EQ(part.status, S3StatusInternalError);
        EXPECT_EQ(part.events, (Events{"body", "complete"}));
    }
}

TEST_F(Multipart, MissingIdsAndNumbersAreRefused) {
    EXPECT_EQ(upload(0, "x").status, S3StatusErrorInvalidArgument);
    EXPECT_EQ(upload(10001, "x").status, S3StatusErrorInvalidArgument);
    EXPECT_EQ(upload(1, "x", "").status, S3StatusErrorNoSuchUpload);
    EXPECT_EQ(upload(1, "x", nullptr).status, S3StatusErrorNoSuchUpload);
    Recorder recorder;
    const S3AbortMultipartUploadHandler handler{s3test::kResponse, &recorder};
    const S3BucketContext where = context();
    S3_abort_multipart_upload(&where, "key", "", 0, &handler);
    EXPECT_EQ(recorder.status, S3StatusErrorNoSuchUpload);
    S3_abort_multipart_upload(&where, nullptr, "id", 0, &handler);
    EXPECT_EQ(recorder.status, S3StatusErrorUserKeyMustBeSpecified);
    EXPECT_EQ(server_.connections(), 0);
}

// Without its key each of these would address the bucket.
TEST_F(Multipart, MissingKeysAreRefused) {
    const S3BucketContext where = context();
    for (const char* key : {static_cast<const char*>(nullptr), ""}) {
        Recorder got[9];
        for (Recorder& recorder : got)
            recorder.body = "x";
        const S3AbortMultipartUploadHandler abort{s3test::kResponse, &got[0]};
        S3_abort_multipart_upload(&where, key, "id", 0, &abort);
        S3_initiate_multipart(&where, key, nullptr, &s3test::kInitiate, nullptr, 0, &got[1]);
        S3_upload_part(&where, key, nullptr, &s3test::kPut, 1, "id", 1, nullptr, 0, &got[2]);
        S3_complete_multipart_upload(&where, key, &s3test::kCommit, "id", 1, nullptr, 0, &got[3]);
        S3_list_parts(&where, key, nullptr, "id", nullptr, 0, nullptr, 0, &s3test::kParts, &got[4]);
        S3_copy_object(&where, key, nullptr, "to", nullptr, nullptr, 0, nullptr, nullptr, 0,
                       &s3test::kResponse, &got[5]);
        S3_restore_object(&where, key, 1, nullptr, nullptr, 0, &s3test::kResponse, &got[6]);
        S3_delete_object(&where, key, nullptr, 0, &s3test::kResponse, &got[7]);
        S3_put_object(&where, key, 1, nullptr, nullptr, 0, &s3test::kPut, &got[8]);
        for (size_t i = 0; i < std::size(got); ++i) {
            EXPECT_EQ(got[i].status, S3StatusErrorUserKeyMustBeSpecified) << i;
            EXPECT_EQ(got[i].events, Events{"complete"}) << i;
        }
    }
    Recorder nowhere;
    S3_copy_object(&where, "key", nullptr, "", nullptr, nullptr, 0, nullptr, nullptr, 0, &s3test::kResponse,
                   &nowhere);
    EXPECT_EQ(nowhere.status, S3StatusErrorUserKeyMustBeSpecified);
    EXPECT_EQ(server_.connections(), 0);
}

TEST_F(Multipart, AbortPrintsNothing) {
    server_.then(error_reply(404, "NoSuchUpload"));
    Recorder recorder;
    const S3AbortMultipartUploadHandler handler{s3test::kResponse, &recorder};
    const S3BucketContext where = context();
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    S3_abort_multipart_upload(&where, "key", "id", 0, &handler);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(recorder.status, S3StatusErrorNoSuchUpload);
}

TEST_F(Multipart, AbortUsesTheHandlersData) {
    server_.then(reply(204)).then(error_reply(404, "NoSuchUpload"));
    Recorder recorder;
    const S3AbortMultipartUploadHandler handler{s3test::kResponse, &recorder};
    const S3BucketContext where = context();
    S3_abort_multipart_upload(&where, "key", "2~a", 0, &handler);
    EXPECT_EQ(recorder.status, S3StatusOK);
    EXPECT_EQ(recorder.events, (Events{"properties", "complete"}));
    EXPECT_EQ(server_.requests()[0].method, "DELETE");
    EXPECT_EQ(server_.requests()[0].target, "/bucket/key?uploadId=2~a");
    Recorder other;
    S3_abort_multipart_upload_ex(&where, "key", "2~a", 0, &handler, nullptr, &other);
    EXPECT_EQ(other.status, S3StatusErrorNoSuchUpload);
    EXPECT_EQ(recorder.completions, 1);
}

TEST_F(Multipart, CommitTellsLocationAndETag) {
    server_.then(commit_reply("<ETag>&quot;x-2&quot;</ETag>"))
        .then(commit_reply("<ETag>x-2</ETag>"))
        .then(commit_reply("<ETag></ETag>"))
        .then(commit_reply(""));
    const Recorder quoted = commit();
    EXPECT_EQ(quoted.status, S3StatusOK);
    EXPECT_EQ(quoted.events, (Events{"body", "properties", "xml", "complete"}));
    EXPECT_EQ(quoted.location, "http://l/b/k");
    EXPECT_EQ(quoted.commit_etag, "\"x-2\"");
    EXPECT_EQ(server_.requests()[0].method, "POST");
    EXPECT_EQ(server_.requests()[0].target, "/bucket/key?uploadId=id");
    EXPECT_EQ(server_.requests()[0].body, kCommitDocument);
    EXPECT_EQ(commit().commit_etag, "\"x-2\"");
    for (int i = 0; i < 2; ++i) {
        const Recorder none = commit();
        EXPECT_EQ(none.status, S3StatusOK);
        EXPECT_TRUE(none.saw("xml"));
        EXPECT_FALSE(none.commit_etag);
    }
    EXPECT_EQ(server_.requests().size(), 4u);
}

TEST_F(Multipart, ACommitWhoseReplyWasLostIsFoundInTheObject) {
    Step cut;
    cut.close = true;
    cut.reply = reply(200, {{"Content-Length", "1000"}}, "<?xml");
    server_.then(cut).then(reply(200, {{"ETag", committed_etag()}, {"Content-Length", "10"}}));
    const Recorder done = commit();
    EXPECT_EQ(done.status, S3StatusOK);
    EXPECT_EQ(done.commit_etag, committed_etag());
    EXPECT_EQ(done.events, (Events{"body", "properties", "xml", "complete"}));
    EXPECT_EQ(server_.requests()[1].method, "HEAD");
    EXPECT_EQ(server_.requests()[1].target, "/bucket/key");
}

TEST_F(Multipart, AnErrorInsideA200IsNoSuccess) {
    server_.then(reply(200, {}, "  \n<Error><Code>InternalError</Code></Error>"))
        .then(reply(404))
        .then(commit_reply("<ETag>x-2</ETag>"));
    EXPECT_EQ(commit().status, S3StatusOK);
    EXPECT_EQ(server_.requests()[2].body, kCommitDocument);

    server_.then(reply(200, {}, "<Error><Code>InvalidPart</Code></Error>")).then(reply(404));
    const Recorder wrong = commit();
    EXPECT_EQ(wrong.status, S3StatusErrorInvalidPart);
    EXPECT_EQ(wrong.events, (Events{"body", "complete"}));

    server_.then(reply(200, {}, "<Error><Code>InternalError</Code></Error>"))
        .then(reply(200, {{"ETag", committed_etag()}}));
    EXPECT_EQ(commit().status, S3StatusOK);
}

TEST_F(Multipart, ASuccessWithoutADocumentLeavesTheOutcomeOpen) {
    server_.then(reply(200, {}, "<html>a proxy's page</html>"))
        .then(reply(200, {{"ETag", committed_etag()}}));
    const Recorder found = commit();
    EXPECT_EQ(found.status, S3StatusOK);
    EXPECT_EQ(found.commit_etag, committed_etag());

    server_.then(reply(200, {}, "")).then(reply(404)).then(commit_reply("<ETag>x-2</ETag>"));
    const Recorder again = commit();
    EXPECT_EQ(again.status, S3StatusOK);
    EXPECT_EQ(again.commit_etag, "\"x-2\"");

    S3_set_option(S3OptionUploadResends, 0);
    server_.then(reply(200, {}, "<html/>")).then(reply(404));
    EXPECT_EQ(commit().status, S3StatusErrorInternalError);
    EXPECT_EQ(server_.requests().size(), 2u + 3u + 2u);
}

TEST_F(Multipart, TheObjectIsAskedForAgainWhenTheStoreIsBusy) {
    server_.then(error_reply(503, "SlowDown"))
        .then(reply(503))
        .then(reply(500))
        .then(reply(200, {{"ETag", committed_etag()}}));
    EXPECT_EQ(commit().status, S3StatusOK);
    auto requests = server_.requests();
    ASSERT_EQ(requests.size(), 4u);
    for (size_t i = 1; i < 4; ++i)
        EXPECT_EQ(requests[i].method, "HEAD");

    S3_set_option(S3OptionUploadResends, 1);
    server_.then(error_reply(503, "SlowDown")).then(reply(503)).then(reply(503)).then(commit_reply(""));
    EXPECT_EQ(commit().status, S3StatusOK);
    requests = server_.requests();
    ASSERT_EQ(requests.size(), 8u);
    EXPECT_EQ(requests[7].method, "POST");
}

// The ETag of an object follows from its parts only when theirs are MD5s: encrypting stores have others.
TEST_F(Multipart, WithoutMd5sTheObjectCannotTell) {
    S3_set_option(S3OptionUploadResends, 1);
    const auto part = [](const std::string& number, const std::string& etag) {
        return "<Part><PartNumber>" + number + "</PartNumber><ETag>" + etag + "</ETag></Part>";
    };
    for (const std::string& document :
         {"<CompleteMultipartUpload>" + part("1", kPartA) + part("2", "no digits") +
              "</CompleteMultipartUpload>",
          "<CompleteMultipartUpload>" + part("1", "abcd") + "</CompleteMultipartUpload>",
          "<CompleteMultipartUpload>" + part("one", kPartA) + "</CompleteMultipartUpload>",
          std::string("<CompleteMultipartUpload></CompleteMultipartUpload>"),
          "<Other>" + part("1", kPartA) + "</Other>", std::string("no document")}) {
        SCOPED_TRACE(document);
        server_.then(error_reply(503, "SlowDown")).then(error_reply(503, "SlowDown"));
        const size_t before = server_.requests().size();
        EXPECT_EQ(commit(document).status, S3StatusErrorSlowDown);
        const auto requests = server_.requests();
        ASSERT_EQ(requests.size(), before + 2);
        EXPECT_EQ(requests[before].method, "POST");
        EXPECT_EQ(requests[before + 1].method, "POST") << "nothing to ask the object for";
    }
}

TEST_F(Multipart, TheCallersLimitEndsTheCommitToo) {
    S3_set_option(S3OptionRetryPauseMs, 60000);
    server_.then(error_reply(503, "SlowDown")).then(reply(503));
    Recorder recorder;
    recorder.body = kCommitDocument;
    const S3BucketContext where = context();
    S3_complete_multipart_upload(&where, "key", &s3test::kCommit, "id", kCommitDocument.size(), nullptr, 9000,
                                 &recorder);
    EXPECT_EQ(recorder.status, S3StatusErrorSlowDown);
    EXPECT_EQ(server_.requests().size(), 2u) << "one commit, one look, and no time for a pause";
}

TEST_F(Multipart, ADocumentThatNoMemoryHoldsIsNeverSent) {
    Recorder recorder;
    const S3BucketContext where = context();
    S3_complete_multipart_upload(&where, "key", &s3test::kCommit, "id", UINT64_MAX, nullptr, 0, &recorder);
    EXPECT_EQ(recorder.status, S3StatusInternalError);
    EXPECT_EQ(recorder.events, Events{"complete"});
    EXPECT_EQ(server_.connections(), 0);
}

TEST_F(Multipart, AnotherObjectUnderTheKeyIsNoSuccess) {
    for (int i = 0; i < 4; ++i)
        server_.then(error_reply(500, "InternalError")).then(reply(200, {{"ETag", "\"" + kPartA + "-2\""}}));
    const Recorder failed = commit();
    EXPECT_EQ(failed.status, S3StatusErrorInternalError);
    EXPECT_EQ(failed.retryable_in_complete, 0);
    EXPECT_FALSE(failed.saw("xml"));
    EXPECT_EQ(server_.requests().size(), 8u);
}

TEST_F(Multipart, AnUploadThatVanishedAfterADoubtMayHaveSucceeded) {
    server_.then(error_reply(503, "SlowDown"))
        .then(reply(404))
        .then(error_reply(404, "NoSuchUpload"))
        .then(reply(200, {{"ETag", committed_etag()}}));
    EXPECT_EQ(commit().status, S3StatusOK);

    server_.then(error_reply(404, "NoSuchUpload"));
    const Recorder never = commit();
    EXPECT_EQ(never.status, S3StatusErrorNoSuchUpload);
    EXPECT_EQ(server_.requests().back().method, "POST");
}

TEST_F(Multipart, AFinalRefusalIsNotAskedAbout) {
    server_.then(error_reply(400, "InvalidPart"));
    EXPECT_EQ(commit().status, S3StatusErrorInvalidPart);
    EXPECT_EQ(server_.requests().size(), 1u);
}

TEST_F(Multipart, AShortCommitDocumentIsNeverSent) {
    Recorder recorder;
    recorder.body = "<Complete";
    const S3BucketContext where = context();
    S3_complete_multipart_upload(&where, "key", &s3test::kCommit, "id", 100, nullptr, 0, &recorder);
    EXPECT_EQ(recorder.status, S3StatusErrorIncompleteBody);
    EXPECT_EQ(server_.connections(), 0);
}

// Completing an upload of many parts takes a store longer than any other silence that is put up with.
TEST_F(Multipart, CommitMayTakeLongerThanTheOrdinaryLimit) {
    S3_set_option(S3OptionStallSeconds, 1);
    S3_set_option(S3OptionSlowStallSeconds, 120);
    Step slow;
    slow.reply = commit_reply("<ETag>e</ETag>");
    slow.look = [](const s3test::SeenRequest&) {
        std::this_thread::sleep_for(std::chrono::milliseconds(3500));
    };
    server_.then(slow);
    const Recorder done = commit();
    EXPECT_EQ(done.status, S3StatusOK);
    EXPECT_EQ(done.commit_etag, "\"e\"");
    EXPECT_EQ(server_.requests().size(), 1u);
}

TEST_F(Multipart, CommitThatGetsNoAnswerIsGivenUpAtItsOwnLimit) {
    S3_set_option(S3OptionStallSeconds, 3600);
    S3_set_option(S3OptionSlowStallSeconds, 1);
    S3_set_option(S3OptionUploadResends, 0);
    Step hang;
    hang.hang = true;
    server_.then(hang).then(reply(404));
    const Recorder given_up = commit();
    EXPECT_EQ(given_up.status, S3StatusErrorRequestTimeout);
    EXPECT_EQ(given_up.message, "no progress on the connection");
    ASSERT_EQ(server_.requests().size(), 2u);
    EXPECT_EQ(server_.requests()[1].method, "HEAD") << "the object decides";
}

std::string part_entry(const std::string& number, const std::string& etag) {
    return "<Part><PartNumber>" + number +
           "</PartNumber><LastModified>2013-05-24T00:00:00Z</LastModified><ETag>" + etag +
           "</ETag><Size>5000000000</Size></Part>";
}

std::string parts_page(const std::string& inside) {
    return reply(200, {}, "<ListPartsResult>" + inside + "</ListPartsResult>");
}

TEST_F(Multipart, PartsAreListed) {
    const std::string etag = "&quot;" + kPartA + "&quot;";
    server_
        .then(
            parts_page("<Owner><ID>o</ID></Owner><StorageClass>STANDARD</StorageClass><NextPartNumberMarker>2"
                       "</NextPartNumberMarker><IsTruncated>true</IsTruncated>" +
                       part_entry("1", etag) + part_entry("2", etag)))
        .then(parts_page("<NextPartNumberMarker>2</NextPartNumberMarker><IsTruncated>false</IsTruncated>"));
    const Recorder first = parts("0", 2);
    EXPECT_EQ(first.status, S3StatusOK);
    EXPECT_EQ(first.events, (Events{"properties", "page", "complete"}));
    EXPECT_EQ(first.numbers, (std::vector<uint64_t>{1, 2}));
    EXPECT_EQ(first.sizes[1], 5000000000u);
    EXPECT_EQ(first.etags[0], "\"" + kPartA + "\"");
    EXPECT_EQ(first.times[0], 1369353600);
    EXPECT_EQ(first.owner_id, "o");
    EXPECT_FALSE(first.owner_name);
    EXPECT_EQ(first.class_name, "STANDARD");
    EXPECT_TRUE(first.truncated);
    EXPECT_EQ(first.marker, "2");
    EXPECT_EQ(server_.requests()[0].target, "/bucket/key?max-parts=2&part-number-marker=0&uploadId=id");
    const Recorder last = parts("2");
    EXPECT_FALSE(last.truncated);
    EXPECT_FALSE(last.marker);
    EXPECT_TRUE(last.saw("page"));
}

TEST_F(Multipart, UnusablePartsFailTheListing) {
    for (const auto& [number, etag] : std::vector<std::pair<std::string, std::string>>{
             {"0", kPartA}, {"10001", kPartA}, {"x", kPartA}, {"1", ""}, {"1", std::string(35, 'a')}}) {
        server_.then(parts_page("<IsTruncated>false</IsTruncated>" + part_entry("1", kPartA) +
                                part_entry(number, etag)));
        const Recorder listed = parts();
        EXPECT_EQ(listed.status, S3StatusInternalError) << number << " " << etag;
        EXPECT_EQ(listed.events, Events{"complete"});
    }
}

TEST_F(Multipart, APageOfPartsThatLeadsBackIsRefused) {
    const auto page_to = [](const std::string& marker) {
        return parts_page("<NextPartNumberMarker>" + marker + "</NextPartNumberMarker><IsTruncated>true" +
                          "</IsTruncated>" + part_entry("2", kPartA));
    };
    for (const auto& [asked, next] : std::vector<std::pair<const char*, std::string>>{
             {"2", "2"}, {"3", "2"}, {"10", "9"}, {"02", "2"}, {"x", "x"}}) {
        server_.then(page_to(next));
        const Recorder listed = parts(asked);
        EXPECT_EQ(listed.status, S3StatusInternalError) << asked << " " << next;
        EXPECT_EQ(listed.message, "the list of parts repeats its page");
        EXPECT_EQ(listed.events, Events{"complete"});
    }
    // Without a marker of the page's own the last part is one.
    server_.then(parts_page("<IsTruncated>true</IsTruncated>" + part_entry("2", kPartA)));
    EXPECT_EQ(parts("2").status, S3StatusInternalError);
    // Without any part either there is no way on.
    server_.then(parts_page("<IsTruncated>true</IsTruncated>"));
    EXPECT_EQ(parts().message, "the list of parts goes on but has no marker");
    // The numbers count, not their texts; and the last page leads nowhere.
    server_.then(page_to("10")).then(page_to("1"));
    EXPECT_EQ(parts("9").marker, "10");
    EXPECT_EQ(parts().marker, "1");
    server_.then(
        parts_page("<NextPartNumberMarker>2</NextPartNumberMarker><IsTruncated>false</IsTruncated>"));
    EXPECT_EQ(parts("2").status, S3StatusOK);
}

std::string upload_entry(const std::string& key, const std::string& id) {
    return "<Upload><Key>" + key + "</Key><UploadId>" + id +
           "</UploadId><Initiated>2013-05-24T00:00:00.000Z</Initiated></Upload>";
}

std::string uploads_page(const std::string& inside) {
    return reply(200, {}, "<ListMultipartUploadsResult>" + inside + "</ListMultipartUploadsResult>");
}

TEST_F(Multipart, UploadsAreListed) {
    server_
        .then(uploads_page(
            "<NextKeyMarker>b</NextKeyMarker><NextUploadIdMarker>i2</NextUploadIdMarker><IsTruncated>"
            "true</IsTruncated>" +
            upload_entry("a%20b", "i1") + upload_entry("b", "i2") +
            "<CommonPrefixes><ListMultipartUploadsResult.Prefix>d/"
            "</ListMultipartUploadsResult.Prefix></CommonPrefixes>"))
        .then(uploads_page("<IsTruncated>true</IsTruncated>" + upload_entry("c", "i3")))
        .then(uploads_page("<NextKeyMarker>z</NextKeyMarker><IsTruncated>false</IsTruncated>"));
    const Recorder first = uploads();
    EXPECT_EQ(first.status, S3StatusOK);
    EXPECT_EQ(first.keys, (Names{"a%20b", "b"}));
    EXPECT_EQ(first.ids, (Names{"i1", "i2"}));
    EXPECT_EQ(first.prefixes, Names{"d/"});
    EXPECT_EQ(first.times[0], 1369353600);
    EXPECT_EQ(first.marker, "b");
    EXPECT_EQ(first.id_marker, "i2");
    EXPECT_EQ(server_.requests()[0].target, "/bucket/?delimiter=%2F&max-uploads=5&prefix=p&uploads");
    const Recorder second = uploads("b", "i2");
    EXPECT_EQ(second.marker, "c");
    EXPECT_EQ(second.id_marker, "i3");
    EXPECT_EQ(server_.requests()[1].target,
              "/bucket/?delimiter=%2F&key-marker=b&max-uploads=5&prefix=p&upload-id-marker=i2&uploads");
    const Recorder last = uploads();
    EXPECT_FALSE(last.truncated);
    EXPECT_FALSE(last.marker);
    EXPECT_TRUE(last.saw("page"));
}

TEST_F(Multipart, APageOfUploadsThatLeadsBackIsRefused) {
    const std::string again = uploads_page(
        "<NextKeyMarker>b</NextKeyMarker><NextUploadIdMarker>i2</NextUploadIdMarker><IsTruncated>"
        "true</IsTruncated>" +
        upload_entry("b", "i2"));
    server_.then(again);
    const Recorder listed = uploads("b", "i2");
    EXPECT_EQ(listed.status, S3StatusInternalError);
    EXPECT_EQ(listed.message, "the list of uploads repeats its page");
    EXPECT_EQ(listed.events, Events{"complete"});
    // Both markers make the place: a key may have many uploads.
    server_.then(again).then(again).then(again);
    EXPECT_EQ(uploads("b", "i1").status, S3StatusOK);
    EXPECT_EQ(uploads("a", "i2").status, S3StatusOK);
    EXPECT_EQ(uploads().status, S3StatusOK);
    server_.then(uploads_page("<NextKeyMarker>b</NextKeyMarker><IsTruncated>true</IsTruncated>"))
        .then(uploads_page("<NextKeyMarker>b</NextKeyMarker><IsTruncated>false</IsTruncated>"));
    EXPECT_EQ(uploads("b").status, S3StatusInternalError);
    EXPECT_EQ(uploads("b").status, S3StatusOK);
    // Without a marker and without any upload there is no way on.
    server_.then(uploads_page("<IsTruncated>true</IsTruncated>"));
    EXPECT_EQ(uploads().message, "the list of uploads goes on but has no marker");
}

TEST_F(Multipart, UploadsThatSpoilTheDocumentAreAskedForEncoded) {
    server_.then(uploads_page(upload_entry("a</b", "i1")))
        .then(uploads_page("<EncodingType>url</EncodingType><IsTruncated>false</IsTruncated>" +
                           upload_entry("a%01%3C/b", "i1")));
    const Recorder listed = uploads();
    EXPECT_EQ(listed.status, S3StatusOK);
    EXPECT_EQ(listed.keys, Names{"a\x01</b"});
    EXPECT_NE(server_.requests()[1].target.find("encoding-type=url"), std::string::npos);
}

// What XML cannot hold some stores replace by U+FFFD: the plain listing is readable, its name wrong.
TEST_F(Multipart, UploadsWithReplacedBytesAreAskedForEncoded) {
    const std::string plain =
        uploads_page(upload_entry("a\xEF\xBF\xBD"
                                  "b",
                                  "i1"));
    server_.then(plain).then(uploads_page("<EncodingType>url</EncodingType>" + upload_entry("a%02b", "i1")));
    EXPECT_EQ(uploads().keys, Names{"a\x02"
                                    "b"});
    server_.then(plain).then(uploads_page(upload_entry("a%EF%BF%BDb", "i1")));
    EXPECT_EQ(uploads().keys, Names{"a\xEF\xBF\xBD"
                                    "b"})
        << "encoded without saying so";
    EXPECT_EQ(server_.steps_left(), 0u);
}

TEST_F(Multipart, EncodedUploadsThatDoNotSaySoAreNotGuessed) {
    server_.then(uploads_page(upload_entry("a</b", "i1"))).then(uploads_page(upload_entry("a%3C/b", "i1")));
    const Recorder listed = uploads();
    EXPECT_EQ(listed.status, S3StatusXmlParseFailure);
    EXPECT_EQ(listed.events, Events{"complete"});
}

TEST_F(Multipart, NamesOfUploadsAreTakenByteByByte) {
    server_.then(uploads_page(upload_entry("&#x01;&#x0d;\x02\r\n\t", "i1") + upload_entry(" ", "i2") +
                              upload_entry(" a \xff", "i3") + upload_entry("<![CDATA[a&b]]>", "i4")));
    EXPECT_EQ(uploads().keys, (Names{"\x01\r\x02\r\n\t", " ", " a \xff", "a&b"}));
    EXPECT_EQ(server_.requests().size(), 1u);
}

TEST_F(Multipart, CopyReadsTheDocument) {
    server_
        .then(
            reply(200, {},
                  "<CopyObjectResult><Progress/><LastModified>2013-05-24T00:00:00.000Z</LastModified><ETag>" +
                      kPartA + "</ETag></CopyObjectResult>"))
        .then(reply(200, {}, "<Error><Code>SlowDown</Code></Error>"))
        .then(reply(200, {}, "<CopyObjectResult><LastModified/></CopyObjectResult>"))
        .then(reply(200, {}, "<CopyObjectResult><ETag>e</ETag></CopyObjectResult>"));
    const S3BucketContext where = context();
    const auto copy = [&](const char* bucket, const char* key, const S3PutProperties* properties,
                          Recorder& recorder, char* etag, int size, int64_t* modified) {
        S3_copy_object(&where, "from +%", bucket, key, properties, modified, size, etag, nullptr, 0,
                       &s3test::kResponse, &recorder);
    };
    char etag[40];
    int64_t modified = 0;
    Recorder done;
    copy("other-bucket", "to", nullptr, done, etag, sizeof(etag), &modified);
    EXPECT_EQ(done.status, S3StatusOK);
    EXPECT_EQ(etag, "\"" + kPartA + "\"");
    EXPECT_EQ(modified, 1369353600);
    const auto request = server_.requests()[0];
    EXPECT_EQ(request.target, "/other-bucket/to");
    EXPECT_EQ(request.header("x-amz-copy-source"), "/bucket/from%20%2B%25");
    EXPECT_FALSE(request.headers.contains("x-amz-metadata-directive"));
    Recorder busy;
    copy(nullptr, nullptr, nullptr, busy, nullptr, 0, nullptr);
    EXPECT_EQ(busy.status, S3StatusErrorSlowDown);
    EXPECT_EQ(busy.events, Events{"complete"});
    EXPECT_EQ(server_.requests()[1].target, "/bucket/from%20%2B%25");
    Recorder untagged;
    copy(nullptr, "to", nullptr, untagged, etag, sizeof(etag), &modified);
    EXPECT_EQ(untagged.status, S3StatusErrorInternalError);
    EXPECT_STREQ(etag, "");
    EXPECT_EQ(modified, -1);
    const S3PutProperties properties = s3test::no_properties();
    Recorder cut;
    char small[3];
    copy(nullptr, "to", &properties, cut, small, sizeof(small), nullptr);
    EXPECT_EQ(cut.status, S3StatusOK);
    EXPECT_STREQ(small, "\"e");
    EXPECT_EQ(server_.requests()[3].header("x-amz-metadata-directive"), "REPLACE");
}

TEST_F(Multipart, RestoreSendsDaysAndTier) {
    server_.then(reply(202)).then(reply(200)).then(error_reply(409, "RestoreAlreadyInProgress"));
    const S3BucketContext where = context();
    const auto restore = [&](int days, const char* tier) {
        Recorder recorder;
        S3_restore_object(&where, "key", days, tier, nullptr, 0, &s3test::kResponse, &recorder);
        return recorder;
    };
    EXPECT_EQ(restore(3, "Bulk").status, S3StatusOK);
    EXPECT_EQ(restore(0, nullptr).status, S3StatusOK);
    EXPECT_EQ(restore(1, "Standard").status, S3StatusErrorRestoreAlreadyInProgress);
    const auto request = server_.requests()[0];
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/bucket/key?restore");
    EXPECT_EQ(request.header("content-type"), "application/xml");
    EXPECT_EQ(request.header("content-md5"), s3::to_base64(s3::md5(request.body)));
    EXPECT_EQ(request.body,
              "<RestoreRequest xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"><Days>3</Days>"
              "<GlacierJobParameters><Tier>Bulk</Tier></GlacierJobParameters></RestoreRequest>");
    EXPECT_EQ(server_.requests()[1].body,
              "<RestoreRequest xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"></RestoreRequest>");
}

}  // namespace
