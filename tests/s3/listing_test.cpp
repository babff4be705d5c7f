// Listings of objects and buckets, creating and deleting buckets.
#include "script_fixture.h"

namespace {

using s3test::error_reply;
using s3test::Recorder;
using s3test::reply;
using s3test::Step;
using Listings = s3test::Scripted;
using Events = std::vector<std::string>;
using Names = std::vector<std::string>;

std::string page(const std::string& inside) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><ListBucketResult "
           "xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\">" +
           inside + "</ListBucketResult>";
}

std::string entry(const std::string& key) {
    return "<Contents><Key>" + key +
           "</Key><LastModified>2013-05-24T00:00:00.000Z</LastModified><ETag>&quot;e&quot;</ETag><Size>7</"
           "Size>"
           "</Contents>";
}

std::string prefix_entry(const std::string& prefix) {
    return "<CommonPrefixes><Prefix>" + prefix + "</Prefix></CommonPrefixes>";
}

TEST_F(Listings, OneCallForThePage) {
    server_.then(
        reply(200, {},
              page("<IsTruncated>false</IsTruncated>" + prefix_entry("d/") +
                   "<Contents><Key>a</Key><LastModified>bad</LastModified><ETag>e</ETag><Size>12345678901"
                   "</Size><Owner><ID>o</ID></Owner></Contents>" +
                   entry("b &amp; c") + entry(" "))));
    const Recorder listed = list("p/x", "m/%", "/", 100);
    EXPECT_EQ(listed.status, S3StatusOK);
    EXPECT_EQ(listed.events, (Events{"properties", "page", "complete"}));
    EXPECT_EQ(listed.keys, (Names{"a", "b & c", " "}));
    EXPECT_EQ(listed.prefixes, Names{"d/"});
    EXPECT_EQ(listed.etags, (Names{"e", "\"e\"", "\"e\""}));
    EXPECT_EQ(listed.sizes[0], 12345678901u);
    EXPECT_EQ(listed.times, (std::vector<int64_t>{-1, 1369353600, 1369353600}));
    EXPECT_EQ(listed.owners[0], "o");
    EXPECT_FALSE(listed.owners[1]);
    EXPECT_FALSE(listed.truncated);
    EXPECT_FALSE(listed.marker);
    EXPECT_EQ(server_.requests()[0].target,
              "/bucket/?delimiter=%2F&encoding-type=url&marker=m%2F%25&max-keys=100&prefix=p%2Fx");
}

TEST_F(Listings, AnEmptyPageIsTold) {
    server_.then(reply(200, {}, page("<IsTruncated>false</IsTruncated>")));
    const Recorder listed = list();
    EXPECT_EQ(listed.events, (Events{"properties", "page", "complete"}));
    EXPECT_TRUE(listed.keys.empty());
    EXPECT_EQ(server_.requests()[0].target, "/bucket/?delimiter=%2F&encoding-type=url");
}

TEST_F(Listings, FlagsAfterTheEntriesCount) {
    server_.then(
        reply(200, {}, page(entry("a") + "<NextMarker>a</NextMarker><IsTruncated>true</IsTruncated>")));
    const Recorder listed = list();
    EXPECT_TRUE(listed.truncated);
    EXPECT_EQ(listed.marker, "a");
}

TEST_F(Listings, AMissingMarkerIsTheLargerLastName) {
    const std::string truncated = "<IsTruncated>true</IsTruncated>";
    server_.then(reply(200, {}, page(truncated + entry("a") + entry("m") + prefix_entry("c/"))))
        .then(reply(200, {}, page(truncated + entry("a") + prefix_entry("c/"))))
        .then(reply(200, {}, page(truncated)));
    EXPECT_EQ(list().marker, "m");
    EXPECT_EQ(list().marker, "c/");
    const Recorder nothing = list();
    EXPECT_EQ(nothing.status, S3StatusInternalError);
    EXPECT_EQ(nothing.events, Events{"complete"});
}

TEST_F(Listings, AStoreThatRepeatsItsPageIsStopped) {
    server_.then(
        reply(200, {},
              page("<IsTruncated>true</IsTruncated><NextMarker>b</NextMarker>" + entry("a") + entry("b"))));
    const Recorder listed = list(nullptr, "b");
    EXPECT_EQ(listed.status, S3StatusInternalError);
    EXPECT_EQ(listed.events, Events{"complete"});
}

TEST_F(Listings, EncodedNamesAreDecodedWhenTheReplySaysSo) {
    const std::string encoded = "<EncodingType>url</EncodingType><IsTruncated>true</IsTruncated>";
    server_
        .then(reply(
            200, {},
            page(encoded + "<NextMarker>b%2Fc</NextMarker>" + entry("a%01%20+") + prefix_entry("b%2Fc"))))
        .then(reply(200, {}, page(encoded + "<NextMarker>50%</NextMarker>" + entry("50%25"))))
        .then(reply(200, {}, page(encoded + "<NextMarker>x%41</NextMarker>" + entry("x%2541"))))
        .then(reply(200, {},
                    page("<IsTruncated>true</IsTruncated><NextMarker>y%41</NextMarker>" + entry("y%41"))));
    const Recorder first = list();
    EXPECT_EQ(first.keys, Names{"a\x01 +"});
    EXPECT_EQ(first.prefixes, Names{"b/c"});
    EXPECT_EQ(first.marker, "b/c");
    const Recorder raw_marker = list();
    EXPECT_EQ(raw_marker.keys, Names{"50%"});
    EXPECT_EQ(raw_marker.marker, "50%");
    EXPECT_EQ(list().marker, "x%41");
    const Recorder plain = list();
    EXPECT_EQ(plain.keys, Names{"y%41"});
    EXPECT_EQ(plain.marker, "y%41");
}

TEST_F(Listings, ANameWithANulIsNeitherCutShortNorAMarker) {
    const std::string encoded = "<EncodingType>url</EncodingType><IsTruncated>";
    server_.then(reply(200, {}, page(encoded + "false</IsTruncated>" + entry("a%00b") + entry("a%2500b"))))
        .then(reply(200, {}, page(encoded + "true</IsTruncated>" + entry("a%00b"))))
        .then(reply(200, {}, page(encoded + "true</IsTruncated>" + entry("a%2500b"))));
    EXPECT_EQ(list().keys, (Names{"a%00b", "a%00b"}));
    const Recorder truncated = list();
    EXPECT_EQ(truncated.status, S3StatusInternalError);
    EXPECT_EQ(truncated.events, Events{"complete"});
    EXPECT_EQ(list().marker, "a%00b");
}

TEST_F(Listings, TheOtherDialectWritesBlanksAsPlus) {
    const std::string encoded = "<EncodingType>url</EncodingType><IsTruncated>false</IsTruncated>";
    server_.then(reply(200, {{"Server", "AmazonS3"}}, page(encoded + entry("a+b"))))
        .then(reply(200, {}, page(encoded + entry("a+b%2B"))))
        .then(reply(200, {}, page(encoded + entry("a+b"))));
    EXPECT_EQ(list().keys, Names{"a b"});
    EXPECT_EQ(list().keys, Names{"a b+"});
    EXPECT_EQ(list().keys, Names{"a+b"});
}

TEST_F(Listings, OnlyCompleteDocumentsCount) {
    const std::string whole = page("<IsTruncated>false</IsTruncated>" + entry("a"));
    server_.then(reply(200, {}, whole.substr(0, whole.size() - 5)))
        .then(reply(200, {}, ""))
        .then(reply(200, {}, "<html></html>"));
    Step cut;
    cut.reply =
        reply(200, {{"Content-Length", std::to_string(whole.size())}}, whole.substr(0, whole.size() / 2));
    cut.close = true;
    server_.then(cut);
    for (int i = 0; i < 3; ++i) {
        const Recorder listed = list();
        EXPECT_EQ(listed.status, S3StatusXmlParseFailure);
        EXPECT_EQ(listed.events, Events{"complete"});
    }
    const Recorder broken = list();
    EXPECT_EQ(broken.status, S3StatusConnectionFailed);
    EXPECT_EQ(broken.retryable_in_complete, 1);
    EXPECT_EQ(broken.events, Events{"complete"});
}

TEST_F(Listings, ThePageCallbackMayRefuse) {
    server_.then(reply(200, {}, page("<IsTruncated>false</IsTruncated>")));
    Recorder recorder;
    recorder.refuse_page_with = S3StatusOutOfMemory;
    const S3BucketContext where = context();
    S3_list_bucket(&where, nullptr, nullptr, nullptr, 0, nullptr, 0, &s3test::kList, &recorder);
    EXPECT_EQ(recorder.status, S3StatusOutOfMemory);
}

TEST_F(Listings, BucketsOnceEachAfterTheWholeDocument) {
    const std::string document =
        "<ListAllMyBucketsResult><Owner><ID>o</ID><DisplayName>O</DisplayName></Owner><Buckets>"
        "<Bucket><Name>one</Name><CreationDate>2013-05-24T00:00:00.000Z</CreationDate></Bucket>"
        "<Bucket><Name>two</Name></Bucket><Bucket><Name>one</Name></Bucket></Buckets></"
        "ListAllMyBucketsResult>";
    server_.then(reply(200, {}, document)).then(reply(200, {}, document.substr(0, document.size() - 10)));
    const auto service = [&](Recorder& recorder) {
        S3_list_service(S3ProtocolHTTP, "A", "S", nullptr, host_.c_str(), nullptr, nullptr, 0,
                        &s3test::kService, &recorder);
    };
    Recorder listed;
    service(listed);
    EXPECT_EQ(listed.status, S3StatusOK);
    EXPECT_EQ(listed.events, (Events{"properties", "bucket", "bucket", "complete"}));
    EXPECT_EQ(listed.keys, (Names{"one", "two"}));
    EXPECT_EQ(listed.times, (std::vector<int64_t>{1369353600, -1}));
    EXPECT_EQ(listed.owner_id, "o");
    EXPECT_EQ(listed.owner_name, "O");
    EXPECT_EQ(server_.requests()[0].target, "/");
    Recorder cut;
    service(cut);
    EXPECT_EQ(cut.status, S3StatusXmlParseFailure);
    EXPECT_EQ(cut.events, Events{"complete"});
}

TEST_F(Listings, BucketsOverSeveralPages) {
    const auto buckets = [](const std::string& name, const std::string& token) {
        return reply(200, {},
                     "<ListAllMyBucketsResult><Buckets><Bucket><Name>" + name + "</Name></Bucket></Buckets>" +
                         (token.empty() ? "" : "<ContinuationToken>" + token + "</ContinuationToken>") +
                         "</ListAllMyBucketsResult>");
    };
    server_.then(buckets("one", "t/1")).then(buckets("two", ""));
    Recorder listed;
    S3_list_service(S3ProtocolHTTP, "A", "S", nullptr, host_.c_str(), nullptr, nullptr, 0, &s3test::kService,
                    &listed);
    EXPECT_EQ(listed.status, S3StatusOK);
    EXPECT_EQ(listed.keys, (Names{"one", "two"}));
    EXPECT_EQ(server_.requests()[1].target, "/?continuation-token=t%2F1");
}

TEST_F(Listings, TheCallerMayRefuseABucket) {
    server_.then(reply(200, {},
                       "<ListAllMyBucketsResult><Buckets><Bucket></Bucket><Bucket><Name>a</Name></Bucket>"
                       "<Bucket><Name>b</Name></Bucket></Buckets></ListAllMyBucketsResult>"));
    Recorder recorder;
    recorder.refuse_page_with = S3StatusAbortedByCallback;
    S3_list_service(S3ProtocolHTTP, "A", "S", nullptr, nullptr, nullptr, nullptr, 0, &s3test::kService,
                    &recorder);
    EXPECT_EQ(recorder.status, S3StatusAbortedByCallback);
    EXPECT_EQ(recorder.keys, std::vector<std::string>{"a"});
}

TEST_F(Listings, AListOfBucketsThatRepeatsItsPageIsStopped) {
    const std::string page =
        reply(200, {},
              "<ListAllMyBucketsResult><Buckets><Bucket><Name>a</Name></Bucket></Buckets>"
              "<ContinuationToken>t</ContinuationToken></ListAllMyBucketsResult>");
    server_.then(page).then(page).then(page);
    Recorder recorder;
    S3_list_service(S3ProtocolHTTP, "A", "S", nullptr, nullptr, nullptr, nullptr, 0, &s3test::kService,
                    &recorder);
    EXPECT_EQ(recorder.status, S3StatusInternalError);
    EXPECT_EQ(recorder.message, "the list of buckets repeats its page");
    EXPECT_EQ(recorder.events, std::vector<std::string>{"complete"});
    EXPECT_EQ(server_.requests().size(), 2u);
}

TEST_F(Listings, BucketsAreCreatedInPathStyle) {
    server_.then(reply(200)).then(reply(200)).then(error_reply(409, "BucketAlreadyExists"));
    const auto create = [&](S3CannedAcl acl, const char* location) {
        Recorder recorder;
        S3_create_bucket(S3ProtocolHTTP, "A", "S", nullptr, nullptr, "new-bucket", nullptr, acl, location,
                         nullptr, 0, &s3test::kResponse, &recorder);
        return recorder;
    };
    EXPECT_EQ(create(S3CannedAclPrivate, nullptr).status, S3StatusOK);
    EXPECT_EQ(create(S3CannedAclBucketOwnerFullControl, "eu<1").status, S3StatusOK);
    EXPECT_EQ(create(S3CannedAclPrivate, "").status, S3StatusErrorBucketAlreadyExists);
    const auto requests = server_.requests();
    EXPECT_EQ(requests[0].method, "PUT");
    EXPECT_EQ(requests[0].target, "/new-bucket/");
    EXPECT_EQ(requests[0].body, "");
    EXPECT_EQ(requests[0].header("content-length"), "0");
    EXPECT_FALSE(requests[0].headers.contains("x-amz-acl"));
    EXPECT_EQ(requests[1].body,
              "<CreateBucketConfiguration><LocationConstraint>eu&lt;1</LocationConstraint>"
              "</CreateBucketConfiguration>");
    EXPECT_EQ(requests[1].header("x-amz-acl"), "bucket-owner-full-control");
}

TEST_F(Listings, BucketsAreDeleted) {
    server_.then(error_reply(409, "BucketNotEmpty"));
    Recorder recorder;
    S3_delete_bucket(S3ProtocolHTTP, S3UriStylePath, "A", "S", nullptr, host_.c_str(), "bucket", nullptr,
                     nullptr, 0, &s3test::kResponse, &recorder);
    EXPECT_EQ(recorder.status, S3StatusErrorBucketNotEmpty);
    EXPECT_EQ(server_.requests()[0].method, "DELETE");
    EXPECT_EQ(server_.requests()[0].target, "/bucket/");
}

}  // namespace
