// The stage command: restores of archived objects.
#include <cerrno>

#include "command_fixture.h"

using namespace module_test;

namespace {

constexpr const char* not_required = "250 Stage is not required.\r\n";
constexpr const char* started = "450 Stage has started.\r\n";
constexpr const char* in_progress = "450 Stage is in progress.\r\n";
constexpr const char* completed = "250 Stage has completed.\r\n";
constexpr int64_t now = 2000000000;

class Stage : public CommandTest {
  protected:
    void SetUp() override {
        CommandTest::SetUp();
        set_clock([] { return now; });
    }
    void archived(const Text& storage_class, int status = 0, int64_t expiry = 0) {
        auto& properties = s3_object("b", "dir/k", "data").properties;
        properties.storage_class = storage_class;
        properties.restore_status = status;
        properties.restore_expiry = expiry;
    }
    std::unique_ptr<Operation> run() { return command(module_test::stage, "/b/dir/k"); }
    static std::vector<S3Call> restores() { return s3_calls(S3Kind::restore_object); }
    void tier(const char* name) { zorvan_i_s3_restore_tier = strdup(name); }
};

TEST_F(Stage, ObjectWithoutAClassIsNotStaged) {
    archived(std::nullopt);
    auto op = run();
    expect_success(*op, not_required);
    EXPECT_TRUE(restores().empty());
    EXPECT_TRUE(logged("INFO", "STAGE: restorecheck(bucket=b, key=dir/k) status=0 exp=0 class=STANDARD"));
    EXPECT_TRUE(
        logged("INFO", "REST: op=" + pointer_text(op.get()) + " S3_head_object(bucket=b, key=dir/k) try=0"));
    expect_end_line(*op, "/b");
}

TEST_F(Stage, OtherClassesAreNotStaged) {
    for (const auto* name : {"STANDARD", "STANDARD_IA", "GLACIER_IR", "INTELLIGENT_TIERING", ""}) {
        archived(name);
        expect_success(*run(), not_required);
    }
    EXPECT_TRUE(restores().empty());
}

TEST_F(Stage, ArchiveClassesAreRestoredWhateverTheirCase) {
    for (const auto* name : {"glacier", "GLACIER", "Deep_Archive", "INTELLIGENT_TIERING:ARCHIVE_ACCESS",
                             "intelligent_tiering:deep_archive_access"}) {
        archived(name);
        const auto before = restores().size();
        expect_success(*run(), started);
        ASSERT_EQ(restores().size(), before + 1) << name;
        EXPECT_EQ(restores().back().days, 4);
        EXPECT_EQ(restores().back().tier, "Standard");
        EXPECT_EQ(restores().back().key, "dir/k");
        EXPECT_EQ(restores().back().context.bucket, "b");
        EXPECT_FALSE(restores().back().request_context);
        EXPECT_EQ(restores().back().timeout, 0);
    }
}

TEST_F(Stage, ConfiguredDaysAndTier) {
    zorvan_i_s3_restore_days = 11;
    tier("Bulk");
    archived("GLACIER");
    run();
    EXPECT_EQ(restores().at(0).days, 11);
    EXPECT_EQ(restores().at(0).tier, "Bulk");
}

TEST_F(Stage, ExpeditedIsStandardForDeepArchives) {
    tier("expedited");
    archived("DEEP_ARCHIVE");
    run();
    archived("INTELLIGENT_TIERING:DEEP_ARCHIVE_ACCESS");
    run();
    archived("GLACIER");
    run();
    archived("INTELLIGENT_TIERING:ARCHIVE_ACCESS");
    run();
    ASSERT_EQ(restores().size(), 4u);
    EXPECT_EQ(restores()[0].tier, "Standard");
    EXPECT_EQ(restores()[1].tier, "Standard");
    EXPECT_EQ(restores()[2].tier, "expedited");
    EXPECT_EQ(restores()[3].tier, "expedited");
}

TEST_F(Stage, OtherTiersStandForDeepArchives) {
    tier("Bulk");
    archived("DEEP_ARCHIVE");
    run();
    EXPECT_EQ(restores().at(0).tier, "Bulk");
}

TEST_F(Stage, RestoreUnderWay) {
    archived("GLACIER", 1);
    expect_success(*run(), in_progress);
    EXPECT_TRUE(restores().empty());
}

TEST_F(Stage, RestoredCopyThatLasts) {
    for (const int64_t expiry :
         {now + 13 * 3600, now + 43200, int64_t{0}, int64_t{-5}, INT64_MAX, INT64_MIN}) {
        archived("GLACIER", 2, expiry);
        expect_success(*run(), completed);
        EXPECT_TRUE(logged("INFO", "zorvan_l_s3_stage_needs_restore",
                           "STAGE: restorecheck(bucket=b, key=dir/k) status=2 exp=" + std::to_string(expiry) +
                               " class=GLACIER"));
    }
    EXPECT_TRUE(restores().empty());
}

TEST_F(Stage, RestoredCopyThatExpiresSoonIsExtended) {
    for (const int64_t expiry : {now + 11 * 3600, now + 43199, int64_t{1}, now}) {
        archived("GLACIER", 2, expiry);
        const auto before = restores().size();
        expect_success(*run(), started);
        EXPECT_EQ(restores().size(), before + 1) << expiry;
    }
}

TEST_F(Stage, CopyThatExpiresSoonOutsideTheArchiveIsNotRequired) {
    archived("STANDARD", 2, now + 10);
    expect_success(*run(), not_required);
}

TEST_F(Stage, OtherRestoreStatusesGiveNoReply) {
    for (const int status : {3, -1, 17}) {
        archived("GLACIER", status);
        expect_success(*run(), std::nullopt);
    }
    EXPECT_TRUE(restores().empty());
}

TEST_F(Stage, BucketPathIsEinvalBeforeAnyRequest) {
    auto op = command(module_test::stage, "/b");
    expect_system(op->finish().error, "stage", EINVAL);
    EXPECT_TRUE(s3_calls(S3Kind::head_object).empty());
    expect_end_line(*op, "/b");
}

TEST_F(Stage, HeadFailureNamesTheBucketsPathAndGivesNoReply) {
    s3_bucket("b");
    auto op = run();
    expect_ftp(op->finish().error, 550, "PATH_NOT_FOUND", "GridFTP-Path: \"/b\"");
    EXPECT_EQ(op->finish().text, std::nullopt);
    EXPECT_TRUE(restores().empty());
}

TEST_F(Stage, RefusedRestoreIsMappedAndGivesNoReply) {
    archived("GLACIER");
    s3_fail(S3Kind::restore_object, 1, S3StatusErrorAccessDenied);
    auto op = run();
    expect_ftp(op->finish().error, 550, "PERMISSION_DENIED", std::nullopt);
    ASSERT_NE(op->finish().error.cause, nullptr);
    expect_s3(*op->finish().error.cause, s3_text("b/dir/k", S3StatusErrorAccessDenied));
    EXPECT_EQ(op->finish().text, std::nullopt);
}

TEST_F(Stage, RefusedExtensionOfACopyIsTold) {
    archived("GLACIER", 2, now + 11 * 3600);
    s3_fail(S3Kind::restore_object, 1, S3StatusErrorInvalidObjectState);
    auto op = run();
    expect_s3(op->finish().error, s3_text("b/dir/k", S3StatusErrorInvalidObjectState));
    EXPECT_EQ(op->finish().text, std::nullopt);
}

TEST_F(Stage, ASecondHeadDecidesAnew) {
    // What a failed try had said of the object is forgotten.
    Reply first = failing(S3StatusConnectionFailed);
    first.properties = Properties{};
    first.properties->storage_class = "GLACIER";
    s3_on_call(S3Kind::head_object, 1, first);
    archived("STANDARD");
    expect_success(*run(), not_required);
    EXPECT_TRUE(restores().empty());
}

TEST_F(Stage, HeadThatFailsAfterItsPropertiesRestoresNothing) {
    Reply failed = failing(S3StatusErrorMalformedXML);
    failed.properties = Properties{};
    failed.properties->storage_class = "GLACIER";
    s3_on_call(S3Kind::head_object, 1, failed);
    const auto op = run();
    expect_s3(op->finish().error, s3_text("/b", S3StatusErrorMalformedXML));
    EXPECT_EQ(op->finish().text, std::nullopt);
    EXPECT_TRUE(restores().empty());
}

TEST_F(Stage, HeadWithoutPropertiesGivesNoReply) {
    archived("GLACIER");
    Reply empty;
    empty.null_properties = true;
    s3_on_call(S3Kind::head_object, 1, empty);
    expect_success(*run(), std::nullopt);
    EXPECT_TRUE(restores().empty());
}

TEST_F(Stage, HeadAndRestoreHaveRetriesOfTheirOwn) {
    archived("GLACIER");
    s3_fail(S3Kind::head_object, 1, S3StatusErrorSlowDown);
    s3_fail(S3Kind::restore_object, 1, S3StatusErrorSlowDown);
    auto op = run();
    expect_success(*op, started);
    EXPECT_EQ(restores().size(), 2u);
    EXPECT_EQ(sleeps(), (std::vector<int64_t>{100000, 100000}));
}

}  // namespace
