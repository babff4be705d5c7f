// Rename: copy, then delete.
#include "command_fixture.h"

using namespace module_test;

namespace {

class Rename : public CommandTest {};

TEST_F(Rename, CopyAcrossBucketsThenDelete) {
    s3_object("b", "a", "data");
    auto op = command(rnto, "/c/z", "/b/a");
    expect_success(*op);
    const auto copies = s3_calls(S3Kind::copy_object);
    ASSERT_EQ(copies.size(), 1u);
    EXPECT_EQ(copies[0].context.bucket, "b");
    EXPECT_EQ(copies[0].key, "a");
    EXPECT_EQ(copies[0].destination_bucket, "c");
    EXPECT_EQ(copies[0].destination_key, "z");
    EXPECT_FALSE(copies[0].put);
    EXPECT_FALSE(copies[0].request_context);
    EXPECT_EQ(copies[0].timeout, 0);
    const auto deletes = s3_calls(S3Kind::delete_object);
    ASSERT_EQ(deletes.size(), 1u);
    EXPECT_EQ(deletes[0].context.bucket, "b");
    EXPECT_EQ(deletes[0].key, "a");
    EXPECT_EQ(s3_find("b", "a"), nullptr);
    ASSERT_NE(s3_find("c", "z"), nullptr);
    const auto handle = pointer_text(op.get());
    EXPECT_TRUE(logged(
        "INFO",
        "REST: op=" + handle + " S3_copy_object(from_bucket=b, from_key=a, to_bucket=c, to_key=z) try=0"));
    EXPECT_TRUE(logged("INFO", "REST: op=" + handle + " S3_delete_object(bucket=b, key=a) try=0"));
    expect_end_line(*op, std::nullopt);
}

TEST_F(Rename, OntoItselfIsRefusedBeforeAnyAllocation) {
    Operation op;
    const auto threads = threads_asked_for();
    call_command(op, rnto, "/b/x", "/b/x");
    ASSERT_FALSE(op.finishes.empty());
    expect_ftp(op.finish().error, 553, "PATH_EXISTS", "GridFTP-Path: /b/x");
    EXPECT_EQ(threads_asked_for(), threads);
    op.close();
}

TEST_F(Rename, SamePlaceSpeltOtherwiseIsAnotherPath) {
    s3_object("b", "x", "data");
    command(rnto, "b/x", "/b/x");
    EXPECT_EQ(s3_calls(S3Kind::copy_object).size(), 1u);
}

TEST_F(Rename, PathsWithoutAKeyAreRefused) {
    auto from = command(rnto, "/b/y", "/b");
    expect_generic(from->finish().error, "rename", "Invalid source filename");
    auto none = command(rnto, "/b/y", std::nullopt);
    expect_generic(none->finish().error, "rename", "Invalid source filename");
    auto to = command(rnto, "/b", "/b/y");
    expect_generic(to->finish().error, "rename", "Invalid destination filename");
    EXPECT_TRUE(s3_calls(S3Kind::copy_object).empty());
    expect_end_line(*to, std::nullopt);
}

TEST_F(Rename, DestinationBucketMustBeAllowed) {
    forbid_all_but("b");
    auto op = command(rnto, "/c/z", "/b/a");
    expect_ftp(op->finish().error, 550, "PERMISSION_DENIED", std::nullopt);
    EXPECT_TRUE(s3_calls(S3Kind::copy_object).empty());
}

TEST_F(Rename, SourceBucketMustBeAllowed) {
    forbid_all_but("c");
    auto op = command(rnto, "/c/z", "/b/a");
    expect_ftp(op->finish().error, 550, "PERMISSION_DENIED", std::nullopt);
    EXPECT_TRUE(s3_calls(S3Kind::copy_object).empty());
}

TEST_F(Rename, MissingSourceNamesItAndDeletesNothing) {
    s3_fail(S3Kind::copy_object, 1, S3StatusErrorNoSuchKey);
    auto op = command(rnto, "/c/z", "/b/dir/a");
    expect_ftp(op->finish().error, 550, "PATH_NOT_FOUND", "GridFTP-Path: \"/b/dir/a\"");
    EXPECT_TRUE(s3_calls(S3Kind::delete_object).empty());
    EXPECT_TRUE(
        logged("DEBUG", "S3_copy_object: op=" + pointer_text(op.get()) + " status=ErrorNoSuchKey[102]"));
}

TEST_F(Rename, EveryFailureOfTheCopyDeletesNothing) {
    s3_object("b", "a", "data");
    for (int number = 1; number <= 134; ++number) {
        s3_script(S3Kind::copy_object, failing(static_cast<S3Status>(number)));
        s3_script(S3Kind::copy_object, failing(static_cast<S3Status>(number)));
        auto op = command(rnto, "/c/z", "/b/a");
        s3_script_clear(S3Kind::copy_object);
        EXPECT_TRUE(op->finish().error.present) << number;
    }
    EXPECT_TRUE(s3_calls(S3Kind::delete_object).empty());
    EXPECT_NE(s3_find("b", "a"), nullptr);
}

TEST_F(Rename, RefusedDeleteIsReportedAndBothObjectsExist) {
    s3_object("b", "a", "data");
    s3_fail(S3Kind::delete_object, 1, S3StatusErrorAccessDenied);
    auto op = command(rnto, "/c/z", "/b/a");
    expect_ftp(op->finish().error, 550, "PERMISSION_DENIED", std::nullopt);
    ASSERT_NE(op->finish().error.cause, nullptr);
    expect_s3(*op->finish().error.cause, s3_text("/b/a", S3StatusErrorAccessDenied));
    EXPECT_NE(s3_find("b", "a"), nullptr);
    EXPECT_NE(s3_find("c", "z"), nullptr);
}

TEST_F(Rename, CopyAndDeleteHaveRetriesOfTheirOwn) {
    s3_object("b", "a", "data");
    zorvan_i_s3_max_retries = 2;
    for (int i = 1; i <= 2; ++i) {
        s3_fail(S3Kind::copy_object, i, S3StatusErrorSlowDown);
        s3_fail(S3Kind::delete_object, i, S3StatusErrorSlowDown);
    }
    expect_success(*command(rnto, "/c/z", "/b/a"));
    EXPECT_EQ(s3_calls(S3Kind::copy_object).size(), 3u);
    EXPECT_EQ(s3_calls(S3Kind::delete_object).size(), 3u);
    EXPECT_EQ(sleeps(), (std::vector<int64_t>{100000, 200000, 100000, 200000}));
}

TEST_F(Rename, DirectoriesAreNotFollowed) {
    s3_object("b", "d/", "");
    s3_object("b", "d/x", "1");
    command(rnto, "/b/e", "/b/d");
    EXPECT_EQ(s3_calls(S3Kind::copy_object).at(0).key, "d");
    EXPECT_NE(s3_find("b", "d/x"), nullptr);
}

}  // namespace
