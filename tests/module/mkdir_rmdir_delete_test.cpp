// Make directory, remove directory, delete.
#include <cerrno>

#include "command_fixture.h"

using namespace module_test;

namespace {

class Mkdir : public CommandTest {};
class Rmdir : public CommandTest {};
class Delete : public CommandTest {};

TEST_F(Mkdir, DirectoryIsAnEmptyPlaceholder) {
    s3_bucket("b");
    session->put_option = 9;
    auto op = command(mkd, "/b/d");
    expect_success(*op);
    const auto calls = s3_calls(S3Kind::put_object);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].key, "d/");
    EXPECT_EQ(calls[0].length, 0u);
    EXPECT_EQ(calls[0].context.bucket, "b");
    EXPECT_FALSE(calls[0].request_context);
    EXPECT_EQ(calls[0].timeout, 0);
    const auto put = calls[0].put.value();
    EXPECT_EQ(put.content_type, "application/x-zorvan-dir-placeholder");
    EXPECT_EQ(put.md5.value_or(""), "");
    EXPECT_EQ(put.cache_control, std::nullopt);
    EXPECT_EQ(put.disposition, std::nullopt);
    EXPECT_EQ(put.encoding, std::nullopt);
    EXPECT_EQ(put.expires, -1);
    EXPECT_EQ(put.acl, S3CannedAclPrivate);
    EXPECT_TRUE(put.metadata.empty());
    EXPECT_EQ(put.encryption, 0);
    EXPECT_EQ(put.option, 9);
    EXPECT_TRUE(
        logged("INFO", "REST: op=" + pointer_text(op.get()) + " S3_put_object(bucket=b, key=d/) try=0"));
    expect_end_line(*op, "/b");
}

TEST_F(Mkdir, KeysAreNotNormalised) {
    s3_bucket("b");
    command(mkd, "/b/d/");
    command(mkd, "/b/");
    command(mkd, "/b/x/y");
    const auto calls = s3_calls(S3Kind::put_object);
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].key, "d//");
    EXPECT_EQ(calls[1].key, "/");
    EXPECT_EQ(calls[2].key, "x/y/");
}

TEST_F(Mkdir, KeysOfEveryLengthTakeTheirSlash) {
    zorvan_i_ZORVAN_S3_debug_handle.levels = 0;
    s3_bucket("b");
    for (size_t length = 1; length <= 70; ++length) {
        const std::string key(length, 'k');
        command(mkd, "/b/" + key);
        const auto call = s3_calls(S3Kind::put_object).back();
        EXPECT_EQ(call.key, key + "/");
        EXPECT_EQ(call.context.bucket, "b");
    }
}

TEST_F(Mkdir, BucketIsCreated) {
    session->security_token = strdup("token");
    auto op = command(mkd, "/nb");
    expect_success(*op);
    const auto calls = s3_calls(S3Kind::create_bucket);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].context.bucket, "nb");
    EXPECT_EQ(calls[0].context.host, std::nullopt);
    EXPECT_EQ(calls[0].thread_host, "rgw.example.org:8080") << "made where the session lives";
    EXPECT_EQ(s3_thread_host(), std::nullopt) << "and nobody else's requests go there";
    EXPECT_EQ(calls[0].context.protocol, S3ProtocolHTTP);
    EXPECT_EQ(calls[0].context.access_key, "AK-alice");
    EXPECT_EQ(calls[0].context.secret_key, "secret-alice");
    EXPECT_EQ(calls[0].context.token, "token");
    EXPECT_EQ(calls[0].context.region, std::nullopt);
    EXPECT_EQ(calls[0].location, std::nullopt);
    EXPECT_EQ(calls[0].acl, 0);
    EXPECT_FALSE(calls[0].request_context);
    EXPECT_EQ(calls[0].timeout, 0);
    EXPECT_TRUE(s3_calls(S3Kind::head_object).empty()) << "no region is looked up for a bucket to be made";
    EXPECT_TRUE(logged("INFO", "REST: op=" + pointer_text(op.get()) + " S3_create_bucket(bucket=nb) try=0"));
    expect_end_line(*op, "/nb");
}

TEST_F(Mkdir, RegionIsTheLocationExceptForUsEast1) {
    session->region = "eu-west-1";
    command(mkd, "/one");
    session->region = "us-east-1";
    command(mkd, "/two");
    session->restricted_endpoint = true;
    command(mkd, "/three");
    session->region = nullptr;
    command(mkd, "/four");
    const auto calls = s3_calls(S3Kind::create_bucket);
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0].location, "eu-west-1");
    EXPECT_EQ(calls[0].context.region, "eu-west-1");
    EXPECT_EQ(calls[1].location, std::nullopt);
    EXPECT_EQ(calls[1].context.region, "us-east-1");
    EXPECT_EQ(calls[2].location, "us-east-1");
    EXPECT_EQ(calls[3].location, std::nullopt);
}

TEST_F(Mkdir, ForbiddenBucketIsNotCreated) {
    forbid_all_but("mine");
    auto op = command(mkd, "/other");
    expect_ftp(op->finish().error, 550, "PERMISSION_DENIED", std::nullopt);
    EXPECT_TRUE(s3_calls(S3Kind::create_bucket).empty());
    expect_end_line(*op, "/other");
}

TEST_F(Mkdir, ExistingBucketIsReportedWithoutAPath) {
    s3_fail(S3Kind::create_bucket, 1, S3StatusErrorBucketAlreadyExists);
    auto op = command(mkd, "/b");
    EXPECT_EQ(op->finish().error.ftp_code, 553);
    EXPECT_EQ(op->finish().error.ftp_word, "PATH_EXISTS");
    ASSERT_NE(op->finish().error.cause, nullptr);
    expect_s3(*op->finish().error.cause, s3_text("", S3StatusErrorBucketAlreadyExists));
    EXPECT_TRUE(logged(
        "DEBUG", "S3_create_bucket: op=" + pointer_text(op.get()) + " status=ErrorBucketAlreadyExists[53]"));
}

TEST_F(Mkdir, FailedPlaceholderIsReportedWithItsKey) {
    s3_fail(S3Kind::put_object, 1, S3StatusErrorNoSuchBucket);
    auto op = command(mkd, "/b/d");
    expect_ftp(op->finish().error, 550, "PATH_NOT_FOUND", "GridFTP-Path: \"d/\"");
    EXPECT_TRUE(
        logged("DEBUG", "S3_put_object: op=" + pointer_text(op.get()) + " status=ErrorNoSuchBucket[101]"));
}

TEST_F(Mkdir, RetriesDoubleTheirDelay) {
    zorvan_i_s3_max_retries = 3;
    for (int i = 1; i <= 4; ++i)
        s3_fail(S3Kind::put_object, i, S3StatusErrorSlowDown);
    auto op = command(mkd, "/b/d");
    EXPECT_EQ(s3_calls(S3Kind::put_object).size(), 4u);
    EXPECT_EQ(sleeps(), (std::vector<int64_t>{100000, 200000, 400000}));
    expect_ftp(op->finish().error, 451, "TOO_BUSY", std::nullopt);
}

TEST_F(Mkdir, BucketCreationIsRetried) {
    s3_fail(S3Kind::create_bucket, 1, S3StatusErrorSlowDown);
    expect_success(*command(mkd, "/b"));
    EXPECT_EQ(s3_calls(S3Kind::create_bucket).size(), 2u);
}

TEST_F(Rmdir, OnlyThePlaceholderIsDeleted) {
    s3_object("b", "d/", "");
    s3_object("b", "d/x", "1");
    auto op = command(rmd, "/b/d");
    expect_success(*op);
    const auto calls = s3_calls(S3Kind::delete_object);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].key, "d/");
    EXPECT_FALSE(calls[0].request_context);
    EXPECT_EQ(calls[0].timeout, 0);
    EXPECT_EQ(s3_find("b", "d/"), nullptr);
    EXPECT_NE(s3_find("b", "d/x"), nullptr);
    EXPECT_TRUE(
        logged("INFO", "REST: op=" + pointer_text(op.get()) + " S3_delete_object(bucket=b, key=d/) try=0"));
    expect_end_line(*op, std::nullopt);
}

TEST_F(Rmdir, BucketIsDeleted) {
    session->security_token = strdup("token");
    session->region = "eu-west-1";
    auto op = command(rmd, "/b");
    expect_success(*op);
    const auto calls = s3_calls(S3Kind::delete_bucket);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].context.bucket, "b");
    EXPECT_EQ(calls[0].context.host, "rgw.example.org:8080");
    EXPECT_EQ(calls[0].context.protocol, S3ProtocolHTTP);
    EXPECT_EQ(calls[0].context.uri_style, S3UriStylePath);
    EXPECT_EQ(calls[0].context.access_key, "AK-alice");
    EXPECT_EQ(calls[0].context.secret_key, "secret-alice");
    EXPECT_EQ(calls[0].context.token, "token");
    EXPECT_EQ(calls[0].context.region, "eu-west-1");
    EXPECT_TRUE(s3_calls(S3Kind::delete_object).empty());
    EXPECT_TRUE(logged("INFO", "REST: op=" + pointer_text(op.get()) + " S3_delete_bucket(bucket=b) try=0"));
}

TEST_F(Rmdir, BucketThatIsNotEmptyIsReportedWithItsPath) {
    s3_fail(S3Kind::delete_bucket, 1, S3StatusErrorBucketNotEmpty);
    auto op = command(rmd, "/b");
    expect_s3(op->finish().error, s3_text("/b", S3StatusErrorBucketNotEmpty));
    EXPECT_TRUE(logged("DEBUG",
                       "S3_delete_bucket: op=" + pointer_text(op.get()) + " status=ErrorBucketNotEmpty[55]"));
}

TEST_F(Rmdir, FailureOfAPlaceholderNamesTheBucketsPath) {
    s3_fail(S3Kind::delete_object, 1, S3StatusErrorNoSuchKey);
    auto op = command(rmd, "/b/d");
    expect_ftp(op->finish().error, 550, "PATH_NOT_FOUND", "GridFTP-Path: \"/b\"");
}

TEST_F(Rmdir, RetryReplacesTheEarlierError) {
    s3_fail(S3Kind::delete_bucket, 1, S3StatusErrorSlowDown);
    s3_fail(S3Kind::delete_bucket, 2, S3StatusErrorAccessDenied);
    auto op = command(rmd, "/b");
    expect_ftp(op->finish().error, 550, "PERMISSION_DENIED", std::nullopt);
    EXPECT_EQ(sleeps().size(), 1u);
}

TEST_F(Delete, ObjectIsDeleted) {
    s3_object("b", "dir/x", "1");
    auto op = command(dele, "/b/dir/x");
    expect_success(*op);
    EXPECT_EQ(s3_find("b", "dir/x"), nullptr);
    EXPECT_TRUE(logged(
        "INFO", "REST: op=" + pointer_text(op.get()) + " S3_delete_object(bucket=b, key=dir/x) try=0"));
    expect_end_line(*op, "/b");
}

TEST_F(Delete, BucketPathIsEinvalBeforeAnyRequest) {
    const auto threads = threads_asked_for();
    auto op = command(dele, "/b");
    expect_system(op->finish().error, "delete", EINVAL);
    EXPECT_EQ(threads_asked_for(), threads);
    expect_end_line(*op, "/b");
}

TEST_F(Delete, EmptyKeyIsPassedOn) {
    s3_fail(S3Kind::delete_object, 1, S3StatusErrorUserKeyMustBeSpecified);
    auto op = command(dele, "/b/");
    EXPECT_EQ(s3_calls(S3Kind::delete_object).at(0).key, "");
    expect_s3(op->finish().error, s3_text("b/", S3StatusErrorUserKeyMustBeSpecified));
}

TEST_F(Delete, FailureNamesBucketAndKey) {
    s3_fail(S3Kind::delete_object, 1, S3StatusErrorNoSuchKey);
    auto op = command(dele, "/b/dir/x");
    expect_ftp(op->finish().error, 550, "PATH_NOT_FOUND", "GridFTP-Path: \"b/dir/x\"");
    EXPECT_TRUE(
        logged("DEBUG", "S3_delete_object: op=" + pointer_text(op.get()) + " status=ErrorNoSuchKey[102]"));
}

TEST_F(Delete, RetryReplacesTheEarlierError) {
    s3_fail(S3Kind::delete_object, 1, S3StatusErrorSlowDown);
    s3_fail(S3Kind::delete_object, 2, S3StatusErrorAccessDenied);
    expect_ftp(command(dele, "/b/x")->finish().error, 550, "PERMISSION_DENIED", std::nullopt);
}

}  // namespace
