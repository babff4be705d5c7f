// Single objects against scripted replies: what is sent, what the properties say, and how errors are read.
#include "script_fixture.h"

namespace {

using s3test::error_reply;
using s3test::Recorder;
using s3test::reply;
using s3test::Step;
using ObjectCalls = s3test::Scripted;
using Events = std::vector<std::string>;

TEST_F(ObjectCalls, HeadTellsEveryProperty) {
    server_.then(reply(
        200, {{"Content-Length", "1234"},
              {"CONTENT-TYPE", " text/plain "},
              {"etag", "\"abc\""},
              {"Last-Modified", "Fri, 24 May 2013 00:00:00 GMT"},
              {"x-amz-request-id", "r1"},
              {"X-Amz-Id-2", "r2"},
              {"Server", "store"},
              {"X-Amz-Meta-MTime", "  12.5 "},
              {"x-amz-meta-md5", ""},
              {"x-amz-metadata", "no metadata"},
              {"x-amz-bucket-region", "eu-1"},
              {"x-amz-storage-class", "INTELLIGENT_TIERING"},
              {"x-amz-archive-status", "ARCHIVE_ACCESS"},
              {"x-amz-restore", "ongoing-request=\"false\", expiry-date=\"Fri, 24 May 2013 00:00:00 GMT\""},
              {"x-amz-server-side-encryption", "aws:kms"}}));
    const Recorder seen = head("key");
    EXPECT_EQ(seen.status, S3StatusOK);
    EXPECT_EQ(seen.events, (Events{"properties", "complete"}));
    EXPECT_FALSE(seen.has_details);
    EXPECT_EQ(seen.content_length, 1234u);
    EXPECT_EQ(seen.content_type, "text/plain");
    EXPECT_EQ(seen.etag, "\"abc\"");
    EXPECT_EQ(seen.last_modified, 1369353600);
    EXPECT_EQ(seen.request_id, "r1");
    EXPECT_EQ(seen.request_id2, "r2");
    EXPECT_EQ(seen.server, "store");
    EXPECT_EQ(seen.metadata,
              (std::vector<std::pair<std::string, std::string>>{{"mtime", "12.5"}, {"md5", ""}}));
    EXPECT_EQ(seen.bucket_region, "eu-1");
    EXPECT_EQ(seen.storage_class, "INTELLIGENT_TIERING:ARCHIVE_ACCESS");
    EXPECT_EQ(seen.restore_status, 2);
    EXPECT_EQ(seen.restore_expiry, 1369353600);
    EXPECT_EQ(seen.encryption, 2);
    const auto requests = server_.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "HEAD");
    EXPECT_EQ(requests[0].target, "/bucket/key");
    EXPECT_EQ(requests[0].header("host"), host_);
    EXPECT_EQ(requests[0].header("user-agent"), "scripted-test");
    EXPECT_TRUE(requests[0].header("authorization").starts_with("AWS4-HMAC-SHA256 Credential=ACCESS/"));
    EXPECT_EQ(requests[0].header("expect"), "");
}

TEST_F(ObjectCalls, AbsentPropertiesAreAbsent) {
    server_.then(reply(200));
    const Recorder seen = head("key");
    EXPECT_EQ(seen.status, S3StatusOK);
    EXPECT_EQ(seen.last_modified, -1);
    EXPECT_FALSE(seen.etag || seen.content_type || seen.storage_class || seen.bucket_region ||
                 seen.request_id);
    EXPECT_EQ(seen.restore_status, 0);
    EXPECT_EQ(seen.restore_expiry, 0);
    EXPECT_EQ(seen.encryption, 0);
    EXPECT_TRUE(seen.metadata.empty());
}

TEST_F(ObjectCalls, RestoreAndEncryptionVariants) {
    server_
        .then(reply(
            200, {{"x-amz-restore", "ongoing-request=\"true\""}, {"x-amz-server-side-encryption", "AES256"}}))
        .then(reply(200, {{"x-amz-restore", "ongoing-request=\"false\""},
                          {"x-amz-server-side-encryption-customer-algorithm", "AES256"}}))
        .then(reply(200, {{"x-amz-restore", "ongoing-request=\"false\", expiry-date=\"never\""}}));
    const Recorder ongoing = head("key");
    EXPECT_EQ(ongoing.restore_status, 1);
    EXPECT_EQ(ongoing.encryption, 1);
    const Recorder never = head("key");
    EXPECT_EQ(never.restore_status, 0);
    EXPECT_EQ(never.encryption, 2);
    const Recorder unreadable = head("key");
    EXPECT_EQ(unreadable.restore_status, 2);
    EXPECT_EQ(unreadable.restore_expiry, 0);

    server_.then(reply(200, {{"x-amz-restore", "expiry-date=\"Fri, 24 May 2013 00:00:00 GMT\""}}))
        .then(
            reply(200, {{"x-amz-restore", "ongoing-request:\"true\""}, {"x-amz-server-side-encryption", ""}}))
        .then(reply(200, {{"x-amz-server-side-encryption", "aws:kms"}, {"x-amz-archive-status", "ARCHIVE"}}));
    EXPECT_EQ(head("key").restore_status, 0) << "nothing says that a restore was asked for";
    const Recorder unquoted = head("key");
    EXPECT_EQ(unquoted.restore_status, 0);
    EXPECT_EQ(unquoted.encryption, 0);
    const Recorder other_keys = head("key");
    EXPECT_EQ(other_keys.encryption, 2);
    EXPECT_EQ(other_keys.storage_class, ":ARCHIVE");
}

// All but the complete callback may be missing: the call does its work and says how it ended.
TEST_F(ObjectCalls, CallersNeedNotListen) {
    const S3BucketContext where = context();
    const S3ResponseHandler end{nullptr, &Recorder::on_complete};
    Recorder recorder;
    const auto ended_well = [&](const char* what) {
        EXPECT_EQ(recorder.events, Events{"complete"}) << what;
        EXPECT_EQ(recorder.status, S3StatusOK) << what;
        recorder = Recorder();
    };
    server_.then(reply(200, {{"ETag", "\"e\""}}, "hello"));
    const S3GetObjectHandler get_handler{end, nullptr};
    S3_get_object(&where, "key", nullptr, 0, 0, nullptr, 0, &get_handler, &recorder);
    ended_well("get");
    server_.then(reply(200, {}, "<ListBucketResult><Contents><Key>k</Key></Contents></ListBucketResult>"));
    const S3ListBucketHandler list_handler{end, nullptr};
    S3_list_bucket(&where, nullptr, nullptr, nullptr, 0, nullptr, 0, &list_handler, &recorder);
    ended_well("list");
    server_.then(reply(200, {},
                       "<ListAllMyBucketsResult><Buckets><Bucket><Name>b</Name></Bucket></Buckets>"
                       "</ListAllMyBucketsResult>"));
    const S3ListServiceHandler service_handler{end, nullptr};
    S3_list_service(S3ProtocolHTTP, "A", "S", nullptr, nullptr, nullptr, nullptr, 0, &service_handler,
                    &recorder);
    ended_well("service");
    server_.then(reply(
        200, {}, "<InitiateMultipartUploadResult><UploadId>i</UploadId></InitiateMultipartUploadResult>"));
    const S3MultipartInitialHandler initial_handler{end, nullptr};
    S3_initiate_multipart(&where, "key", nullptr, &initial_handler, nullptr, 0, &recorder);
    ended_well("initiate");
    server_.then(reply(200, {}, "<ListPartsResult></ListPartsResult>"));
    const S3ListPartsHandler parts_handler{end, nullptr};
    S3_list_parts(&where, "key", nullptr, "id", nullptr, 0, nullptr, 0, &parts_handler, &recorder);
    ended_well("parts");
    server_.then(reply(200, {}, "<ListMultipartUploadsResult></ListMultipartUploadsResult>"));
    const S3ListMultipartUploadsHandler uploads_handler{end, nullptr};
    S3_list_multipart_uploads(&where, nullptr, nullptr, nullptr, nullptr, nullptr, 0, nullptr, 0,
                              &uploads_handler, &recorder);
    ended_well("uploads");
    server_.then(reply(200, {}, "<CompleteMultipartUploadResult></CompleteMultipartUploadResult>"));
    const S3MultipartCommitHandler commit_handler{end, nullptr, nullptr};
    S3_complete_multipart_upload(&where, "key", &commit_handler, "id", 0, nullptr, 0, &recorder);
    ended_well("commit");
    server_.then(reply(200, {}, R"({"user_id":"u","keys":[]})"));
    const RGUserInfoHandler user_handler{end, nullptr};
    RG_get_user_info(&where, "u", nullptr, &user_handler, &recorder);
    ended_well("user");
    // A body that nobody gives cannot be sent.
    const S3PutObjectHandler put_handler{end, nullptr};
    S3_put_object(&where, "key", 1, nullptr, nullptr, 0, &put_handler, &recorder);
    EXPECT_EQ(recorder.status, S3StatusErrorIncompleteBody);
}

TEST_F(ObjectCalls, PutSendsWhatThePropertiesSay) {
    server_.then(reply(200, {{"ETag", "\"e\""}}));
    const S3NameValue metadata[] = {{"MTime", "1.5  "}, {"Empty", ""}};
    S3PutProperties properties = s3test::no_properties();
    properties.contentType = "text/plain";
    properties.md5 = "1B2M2Y8AsgTpgAmY7PhCfg==";
    properties.cacheControl = "no-cache";
    properties.contentDispositionFilename = "a\"b";
    properties.contentEncoding = "gzip";
    properties.expires = 0;
    properties.cannedAcl = S3CannedAclPublicRead;
    properties.metaData = metadata;
    properties.metaDataCount = 2;
    properties.useServerSideEncryption = 1;
    const Recorder stored = put("a b/+%\xc3\xa4", "hello", &properties);
    EXPECT_EQ(stored.status, S3StatusOK);
    EXPECT_EQ(stored.events, (Events{"body", "properties", "complete"}));
    EXPECT_EQ(stored.etag, "\"e\"");
    const auto requests = server_.requests();
    ASSERT_EQ(requests.size(), 1u);
    const auto& request = requests[0];
    EXPECT_EQ(request.method, "PUT");
    EXPECT_EQ(request.target, "/bucket/a%20b/%2B%25%C3%A4");
    EXPECT_EQ(request.body, "hello");
    EXPECT_EQ(request.header("content-length"), "5");
    EXPECT_EQ(request.header("transfer-encoding"), "");
    EXPECT_EQ(request.header("content-type"), "text/plain");
    EXPECT_EQ(request.header("content-md5"), "1B2M2Y8AsgTpgAmY7PhCfg==");
    EXPECT_EQ(request.header("cache-control"), "no-cache");
    EXPECT_EQ(request.header("content-disposition"), "attachment; filename=\"a\\\"b\"");
    EXPECT_EQ(request.header("content-encoding"), "gzip");
    EXPECT_EQ(request.header("expires"), "Thu, 01 Jan 1970 00:00:00 GMT");
    EXPECT_EQ(request.header("x-amz-acl"), "public-read");
    EXPECT_EQ(request.header("x-amz-meta-mtime"), "1.5");
    EXPECT_TRUE(request.headers.contains("x-amz-meta-empty"));
    EXPECT_EQ(request.header("x-amz-server-side-encryption"), "AES256");
    EXPECT_EQ(request.header("x-amz-content-sha256"), "UNSIGNED-PAYLOAD");
    EXPECT_NE(
        request.header("authorization")
            .find("SignedHeaders=content-md5;content-type;host;x-amz-acl;x-amz-content-sha256;x-amz-date;"
                  "x-amz-meta-empty;x-amz-meta-mtime;x-amz-server-side-encryption,"),
        std::string::npos)
        << request.header("authorization");
}

TEST_F(ObjectCalls, EveryCannedAclHasItsName) {
    for (const auto& [acl, name] : std::vector<std::pair<S3CannedAcl, std::string>>{
             {S3CannedAclPrivate, ""},
             {S3CannedAclPublicRead, "public-read"},
             {S3CannedAclPublicReadWrite, "public-read-write"},
             {S3CannedAclAuthenticatedRead, "authenticated-read"},
             {S3CannedAclBucketOwnerFullControl, "bucket-owner-full-control"}}) {
        server_.then(reply(200));
        S3PutProperties properties = s3test::no_properties();
        properties.cannedAcl = acl;
        EXPECT_EQ(put("key", "x", &properties).status, S3StatusOK);
        EXPECT_EQ(server_.requests().back().header("x-amz-acl"), name);
    }
}

TEST_F(ObjectCalls, WhatAHeaderCannotSayIsLeftOut) {
    server_.then(reply(200));
    const S3NameValue no_value{"Empty", nullptr};
    S3PutProperties properties = s3test::no_properties();
    properties.contentType = "";
    properties.expires = 253402300800;  // the year 10000
    properties.metaData = &no_value;
    properties.metaDataCount = 1;
    EXPECT_EQ(put("key", "x", &properties).status, S3StatusOK);
    const auto request = server_.requests()[0];
    EXPECT_FALSE(request.headers.contains("content-type"));
    EXPECT_FALSE(request.headers.contains("expires"));
    EXPECT_TRUE(request.headers.contains("x-amz-meta-empty"));
}

TEST_F(ObjectCalls, EmptyPutAsksForNoBytes) {
    server_.then(reply(200));
    Recorder recorder;
    put_from(recorder, "key", 0);
    EXPECT_EQ(recorder.events, (Events{"properties", "complete"}));
    EXPECT_EQ(server_.requests()[0].header("content-length"), "0");
}

TEST_F(ObjectCalls, RefusedBeforeSending) {
    const std::string long_key(1025, 'k');
    EXPECT_EQ(get("").status, S3StatusErrorUserKeyMustBeSpecified);
    EXPECT_EQ(get(nullptr).status, S3StatusErrorUserKeyMustBeSpecified);
    EXPECT_EQ(put(nullptr, "x").status, S3StatusErrorUserKeyMustBeSpecified);
    EXPECT_EQ(remove("").status, S3StatusErrorUserKeyMustBeSpecified);
    EXPECT_EQ(head(long_key.c_str()).status, S3StatusUriTooLong);
    EXPECT_EQ(get("key", UINT64_MAX, 2).status, S3StatusErrorInvalidRange);
    const auto with_properties = [&](auto change) {
        S3PutProperties properties = s3test::no_properties();
        change(properties);
        const Recorder recorder = put("key", "x", &properties);
        EXPECT_EQ(recorder.events, Events{"complete"});
        EXPECT_FALSE(recorder.has_details);
        return recorder.status;
    };
    EXPECT_EQ(with_properties([](auto& p) { p.contentType = "a\r\nX-Evil: 1"; }), S3StatusBadContentType);
    EXPECT_EQ(with_properties([](auto& p) { p.contentType = "  "; }), S3StatusBadContentType);
    EXPECT_EQ(with_properties([](auto& p) { p.md5 = " "; }), S3StatusBadMD5);
    EXPECT_EQ(with_properties([](auto& p) { p.cacheControl = " "; }), S3StatusBadCacheControl);
    const S3NameValue bad_name{"a b", "v"};
    const S3NameValue bad_value{"a", "v\nw"};
    EXPECT_EQ(with_properties([&](auto& p) { p.metaData = &bad_name, p.metaDataCount = 1; }),
              S3StatusBadMetaData);
    EXPECT_EQ(with_properties([&](auto& p) { p.metaData = &bad_value, p.metaDataCount = 1; }),
              S3StatusBadMetaData);
    const S3NameValue no_name{nullptr, "v"};
    const S3NameValue empty_name{"", "v"};
    EXPECT_EQ(with_properties([&](auto& p) { p.metaData = &no_name, p.metaDataCount = 1; }),
              S3StatusBadMetaData);
    EXPECT_EQ(with_properties([&](auto& p) { p.metaData = &empty_name, p.metaDataCount = 1; }),
              S3StatusBadMetaData);
    const std::pair<const char*, S3Status> names[] = {
        {nullptr, S3StatusInvalidBucketNameTooShort},
        {"", S3StatusInvalidBucketNameTooShort},
        {"ab", S3StatusInvalidBucketNameTooShort},
        {"-abc", S3StatusInvalidBucketNameFirstCharacter},
        {"a/b", S3StatusInvalidBucketNameCharacter},
        {"1.22.333.4", S3StatusInvalidBucketNameDotQuadNotation},
    };
    for (const auto& [name, status] : names) {
        S3BucketContext where = context();
        where.bucketName = name;
        Recorder recorder;
        S3_delete_object(&where, "key", nullptr, 0, &s3test::kResponse, &recorder);
        EXPECT_EQ(recorder.status, status) << (name != nullptr ? name : "(null)");
    }
    const std::string long_name(256, 'b');
    S3BucketContext where = context();
    where.bucketName = long_name.c_str();
    Recorder recorder;
    S3_delete_object(&where, "key", nullptr, 0, &s3test::kResponse, &recorder);
    EXPECT_EQ(recorder.status, S3StatusInvalidBucketNameTooLong);
    EXPECT_EQ(server_.connections(), 0);
}

TEST_F(ObjectCalls, VirtualHostStyle) {
    // The name must resolve, which only the names of this machine surely do.
    host_ = "localhost:" + std::to_string(server_.port());
    S3BucketContext where = context();
    where.uriStyle = S3UriStyleVirtualHost;
    where.bucketName = "dotted.bucket";
    server_.then(reply(200));
    Recorder recorder;
    S3_head_object(&where, "key", nullptr, 0, &s3test::kResponse, &recorder);
    EXPECT_EQ(recorder.status, S3StatusOK);
    EXPECT_EQ(server_.requests()[0].target, "/key");
    EXPECT_EQ(server_.requests()[0].header("host"), "dotted.bucket." + host_);
    where.bucketName = "under_score";
    Recorder refused;
    S3_head_object(&where, "key", nullptr, 0, &s3test::kResponse, &refused);
    EXPECT_EQ(refused.status, S3StatusInvalidBucketNameCharacter);
}

TEST_F(ObjectCalls, TenantBucketsInPathStyle) {
    S3BucketContext where = context();
    where.bucketName = "tenant:bucket";
    server_.then(reply(200));
    Recorder recorder;
    S3_head_object(&where, "key", nullptr, 0, &s3test::kResponse, &recorder);
    EXPECT_EQ(recorder.status, S3StatusOK);
    EXPECT_EQ(server_.requests()[0].target, "/tenant%3Abucket/key");
}

TEST_F(ObjectCalls, CredentialsDecideTheSignature) {
    S3BucketContext where = context();
    where.securityToken = "token";
    where.authRegion = "eu-1";
    server_.then(reply(200)).then(reply(200)).then(reply(200));
    Recorder recorder;
    S3_head_object(&where, "key", nullptr, 0, &s3test::kResponse, &recorder);
    where.securityToken = nullptr;
    where.authRegion = "";
    S3_head_object(&where, "key", nullptr, 0, &s3test::kResponse, &recorder);
    where.secretAccessKey = nullptr;
    S3_head_object(&where, "key", nullptr, 0, &s3test::kResponse, &recorder);
    const auto requests = server_.requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].header("x-amz-security-token"), "token");
    EXPECT_NE(requests[0].header("authorization").find("/eu-1/s3/aws4_request"), std::string::npos);
    EXPECT_NE(requests[0].header("authorization").find("x-amz-security-token"), std::string::npos);
    EXPECT_NE(requests[1].header("authorization").find("/us-east-1/s3/aws4_request"), std::string::npos);
    EXPECT_EQ(requests[2].header("authorization"), "");
}

TEST_F(ObjectCalls, ThreadDefaultHostStandsInForNull) {
    server_.then(reply(200));
    s3test::ScriptServer other;
    other.then(reply(204));
    const std::string other_host = other.host();
    S3BucketContext where = context();
    where.hostName = nullptr;
    Recorder recorder;
    S3_head_object(&where, "key", nullptr, 0, &s3test::kResponse, &recorder);
    EXPECT_EQ(server_.requests().size(), 1u);
    ASSERT_EQ(S3_set_thread_default_host(other_host.c_str()), S3StatusOK);
    S3_delete_object(&where, "key", nullptr, 0, &s3test::kResponse, &recorder);
    ASSERT_EQ(S3_set_thread_default_host(nullptr), S3StatusOK);
    ASSERT_EQ(other.requests().size(), 1u);
    EXPECT_EQ(other.requests()[0].method, "DELETE");
    EXPECT_EQ(recorder.status, S3StatusOK);
}

TEST_F(ObjectCalls, XmlErrorsAreReadWhole) {
    server_.then(
        reply(403, {},
              "<?xml version=\"1.0\"?>\n<Error><Code>AccessDenied</Code><Message>no &amp; never</Message>"
              "<Resource>/b/k</Resource><FurtherDetails>f</FurtherDetails><Region>eu-1</Region>"
              "<Outer><Inner>deep</Inner></Outer><HostId/></Error>"));
    const Recorder got = get("key");
    EXPECT_EQ(got.status, S3StatusErrorAccessDenied);
    EXPECT_EQ(got.events, Events{"complete"});
    EXPECT_EQ(got.message, "no & never");
    EXPECT_EQ(got.resource, "/b/k");
    EXPECT_EQ(got.further_details, "f");
    EXPECT_EQ(got.extra, (std::vector<std::pair<std::string, std::string>>{
                             {"Region", "eu-1"}, {"Outer/Inner", "deep"}, {"HostId", ""}}));
}

TEST_F(ObjectCalls, TheDocumentWinsOverTheHttpStatus) {
    server_.then(error_reply(404, "NoSuchBucket"))
        .then(error_reply(400, "RequestTimeout"))
        .then(error_reply(403, "Odd"));
    EXPECT_EQ(get("key").status, S3StatusErrorNoSuchBucket);
    const Recorder late = get("key");
    EXPECT_EQ(late.status, S3StatusErrorRequestTimeout);
    EXPECT_EQ(late.retryable_in_complete, 1);
    EXPECT_EQ(get("key").status, S3StatusErrorUnknown);
}

TEST_F(ObjectCalls, HostileErrorDocumentsAreSurvived) {
    std::string nested;
    for (int i = 0; i < 50'000; ++i)
        nested += "<a>";
    nested += "x";
    for (int i = 0; i < 50'000; ++i)
        nested += "</a>";
    server_.then(reply(404, {}, "<Error><Code>NoSuchKey</Code><Message></Message>" + nested + "</Error>"));
    const Recorder recorder = get("key");
    EXPECT_EQ(recorder.status, S3StatusErrorNoSuchKey);
    EXPECT_FALSE(recorder.message) << "an empty element says nothing";
}

TEST_F(ObjectCalls, OtherErrorBodiesFallBackToTheHttpStatus) {
    server_
        .then(reply(403, {{"Content-Type", "text/html"}}, "<html><body><p>Proxy says no<br></body></html>"))
        .then(reply(404, {}, "{\"Code\":\"NoSuchUser\",\"Message\":\"m\",\"HostId\":\"h\"}"))
        .then(reply(403, {}, "{\"Code\":\"InvalidAccessKeyId\"}"))
        .then(reply(500, {}, ""))
        .then(reply(503, {}, "<Error><Code>SlowDo"))
        .then(reply(502, {}, "Bad gateway"))
        .then(reply(400, {}, "<Error><Message>no code</Message></Error>"))
        .then(reply(405, {}, "{not json"));
    EXPECT_EQ(get("key").status, S3StatusHttpErrorForbidden);
    const Recorder json = get("key");
    EXPECT_EQ(json.status, S3StatusHttpErrorNotFound);
    EXPECT_EQ(json.message, "m");
    EXPECT_EQ(json.detail("HostId"), "h");
    EXPECT_EQ(get("key").status, S3StatusErrorInvalidAccessKeyId);
    EXPECT_EQ(get("key").status, S3StatusErrorInternalError);
    EXPECT_EQ(get("key").status, S3StatusErrorSlowDown);
    EXPECT_EQ(get("key").status, S3StatusErrorServiceUnavailable);
    EXPECT_EQ(get("key").status, S3StatusHttpErrorBadRequest);
    EXPECT_EQ(get("key").status, S3StatusErrorMethodNotAllowed);
}

TEST_F(ObjectCalls, TheFirstRefusalOfACallbackIsTheStatus) {
    server_.then(reply(200, {}, "data")).then(reply(200));
    Recorder recorder;
    recorder.refuse_properties_with = S3StatusOutOfMemory;
    get_into(recorder, "key");
    EXPECT_EQ(recorder.status, S3StatusOutOfMemory);
    EXPECT_EQ(recorder.events, (Events{"properties", "complete"}));
    Recorder head_refused;
    head_refused.refuse_properties_with = S3StatusInterrupted;
    const S3BucketContext where = context();
    S3_head_object(&where, "key", nullptr, 0, &s3test::kResponse, &head_refused);
    EXPECT_EQ(head_refused.status, S3StatusInterrupted);
    EXPECT_EQ(head_refused.completions, 1);
}

TEST_F(ObjectCalls, DeleteIsPlain) {
    server_.then(reply(204)).then(error_reply(409, "OperationAborted"));
    EXPECT_EQ(remove("key").status, S3StatusOK);
    EXPECT_EQ(server_.requests()[0].method, "DELETE");
    const Recorder again = remove("key");
    EXPECT_EQ(again.status, S3StatusErrorOperationAborted);
    EXPECT_EQ(again.retryable_in_complete, 1);
}

TEST_F(ObjectCalls, BucketProbeTellsTheRegionOfARedirect) {
    const std::string moved =
        reply(301, {{"x-amz-bucket-region", "eu-1"}, {"Location", "http://elsewhere/"}});
    server_.then(moved).then(moved).then(reply(301));
    const Recorder bucket = head(nullptr);
    EXPECT_EQ(bucket.status, S3StatusErrorPermanentRedirect);
    EXPECT_EQ(bucket.events, (Events{"properties", "complete"}));
    EXPECT_EQ(bucket.bucket_region, "eu-1");
    EXPECT_EQ(server_.requests()[0].target, "/bucket/");
    const Recorder object = head("key");
    EXPECT_EQ(object.status, S3StatusErrorPermanentRedirect);
    EXPECT_EQ(object.events, Events{"complete"});
    EXPECT_EQ(head(nullptr).events, Events{"complete"});
}

TEST_F(ObjectCalls, BucketProbeRepeatsTransientFailures) {
    Step cut;
    cut.close = true;
    server_.then(reply(503)).then(cut).then(reply(500)).then(reply(200));
    EXPECT_EQ(head(nullptr).status, S3StatusOK);
    EXPECT_EQ(server_.steps_left(), 0u);
}

TEST_F(ObjectCalls, BucketProbeGivesUpWithAFinalStatus) {
    S3_set_option(S3OptionBucketProbeSeconds, 1);
    S3_set_option(S3OptionRetryPauseMs, 100);
    for (int i = 0; i < 50; ++i)
        server_.then(reply(503));
    const Recorder bucket = head(nullptr);
    EXPECT_EQ(bucket.status, S3StatusInternalError);
    EXPECT_EQ(bucket.retryable_in_complete, 0);
    EXPECT_GT(server_.requests().size(), 1u);
    EXPECT_GT(server_.steps_left(), 0u);
}

// One silent try must not outlast the patience of the whole probe.
TEST_F(ObjectCalls, BucketProbeEndsInASilentTryToo) {
    S3_set_option(S3OptionBucketProbeSeconds, 1);
    Step hang;
    hang.hang = true;
    server_.then(reply(503)).then(hang);
    const Recorder bucket = head(nullptr);
    EXPECT_EQ(bucket.status, S3StatusInternalError);
    EXPECT_EQ(bucket.retryable_in_complete, 0);
    EXPECT_EQ(server_.requests().size(), 2u);
}

TEST_F(ObjectCalls, BucketProbeWithoutPatienceTriesOnce) {
    S3_set_option(S3OptionBucketProbeSeconds, 0);
    server_.then(reply(503)).then(reply(200)).then(reply(200));
    EXPECT_EQ(head(nullptr).status, S3StatusInternalError);
    EXPECT_EQ(head("").status, S3StatusOK);
}

// Its caller repeats whatever is retryable, at once and for ever.
TEST_F(ObjectCalls, BucketProbeOfAMalformedHostIsFinal) {
    for (const char* name : {"evil.example/path", "a b", "user@host", "h\nost"}) {
        host_ = name;
        const Recorder bucket = head(nullptr);
        EXPECT_EQ(bucket.status, S3StatusInternalError) << name;
        EXPECT_EQ(bucket.retryable_in_complete, 0) << name;
        EXPECT_EQ(bucket.message, "the name of the bucket's host is malformed");
    }
}

TEST_F(ObjectCalls, RedirectsOfADottedBucketKeepItsHostHeader) {
    host_ = "localhost:" + std::to_string(server_.port());
    const std::string own = "dotted.bucket." + host_;
    S3BucketContext where = context();
    where.uriStyle = S3UriStyleVirtualHost;
    where.bucketName = "dotted.bucket";
    for (const std::string& location : {std::string("/other"), "http://" + own + "/other"}) {
        server_.then(reply(307, {{"Location", location}})).then(reply(200));
        Recorder recorder;
        S3_head_object(&where, "key", nullptr, 0, &s3test::kResponse, &recorder);
        EXPECT_EQ(recorder.status, S3StatusOK) << location;
        EXPECT_EQ(server_.requests().back().header("host"), own) << location;
        EXPECT_EQ(server_.requests().back().target, "/other") << location;
    }
    // Back to path style, on the store's own name.
    server_.then(reply(307, {{"Location", "http://" + host_ + "/dotted.bucket/key"}})).then(reply(200));
    Recorder recorder;
    S3_head_object(&where, "key", nullptr, 0, &s3test::kResponse, &recorder);
    EXPECT_EQ(recorder.status, S3StatusOK);
    EXPECT_EQ(server_.requests().back().header("host"), host_);
}

TEST_F(ObjectCalls, AnErrorDocumentInASuccessIsThatError) {
    server_.then(reply(200, {}, "\n<Error><Code>QuotaExceeded</Code><Message>full</Message></Error>"));
    const Recorder stored = put("key", "hello");
    EXPECT_EQ(stored.status, S3StatusErrorQuotaExceeded);
    EXPECT_EQ(stored.message, "full");
    EXPECT_FALSE(stored.saw("properties"));
}

TEST_F(ObjectCalls, RedirectsInsideTheStoreAreSignedAnew) {
    server_.then(reply(307, {{"Location", "http://" + host_ + "/other/place?x=1"}}))
        .then(reply(200, {}, "data"));
    const Recorder got = get("key");
    EXPECT_EQ(got.status, S3StatusOK);
    EXPECT_EQ(got.data, "data");
    const auto requests = server_.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[1].target, "/other/place?x=1");
    EXPECT_NE(requests[1].header("authorization"), "");
    EXPECT_NE(requests[1].header("authorization"), requests[0].header("authorization"));
}

TEST_F(ObjectCalls, ARedirectsQueryIsKeptWhole) {
    server_.then(reply(307, {{"Location", "/other?flag&a=1%2B1&&b=x=y#fragment"}}))
        .then(reply(200, {}, "data"));
    EXPECT_EQ(get("key").data, "data");
    EXPECT_EQ(server_.requests()[1].target, "/other?flag&a=1%2B1&b=x%3Dy");
}

TEST_F(ObjectCalls, RedirectsAreReadAsTheyMayBeWritten) {
    struct Form {
        int status;
        std::string location;
        std::string target;  // empty: not followed
    };
    for (const auto& [status, location, target] : std::vector<Form>{
             {308, "/other", "/other"},
             {307, "HTTP://" + host_ + "/other", "/other"},
             {307, "http://" + host_, "/"},
             {307, "http://" + host_ + "?x=1", "/?x=1"},
             {301, "/other", ""},
             {307, "//" + host_ + "/other", ""},
             {307, "other", ""},
             {307, "http://", ""},
         }) {
        SCOPED_TRACE(location);
        server_.then(reply(status, {{"Location", location}}));
        if (!target.empty()) server_.then(reply(200));
        const Recorder got = get("key");
        EXPECT_EQ(got.status == S3StatusOK, !target.empty()) << got.status;
        EXPECT_EQ(server_.requests().back().target, target.empty() ? "/bucket/key" : target);
        EXPECT_EQ(server_.steps_left(), 0u);
    }
}

TEST_F(ObjectCalls, RedirectsElsewhereAreReported) {
    s3test::ScriptServer other;
    server_.then(reply(307, {{"Location", "http://" + other.host() + "/bucket/key"}}))
        .then(reply(307, {{"Location", "https://" + host_ + "/bucket/key"}}));
    EXPECT_EQ(get("key").status, S3StatusHttpErrorMovedTemporarily);
    EXPECT_EQ(get("key").status, S3StatusHttpErrorMovedTemporarily);
    EXPECT_EQ(other.connections(), 0);
    EXPECT_EQ(server_.requests().size(), 2u);
}

TEST_F(ObjectCalls, RedirectLoopsEnd) {
    for (int i = 0; i < 20; ++i)
        server_.then(reply(307, {{"Location", "/bucket/key"}}));
    EXPECT_EQ(get("key").status, S3StatusHttpErrorMovedTemporarily);
    EXPECT_EQ(server_.requests().size(), 6u);
}

}  // namespace
