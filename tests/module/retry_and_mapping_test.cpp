// The retry rule and the mapping of S3 failures to errors with FTP replies.
#include <climits>
#include <cstring>
#include <set>

#include "module_fixture.h"

using namespace module_test;

namespace {

// ---------------------------------------------------------------------------------------------- mapping

class Mapping : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        activate();
    }
    static ErrorView map(S3Status status, const char* path, const std::optional<Details>& details = {}) {
        ErrorView view;
        with_details(details, [&](const S3ErrorDetails* record) {
            auto* error = zorvan_i_S3Error_to_error(status, path, record);
            view = view_error(error);
            zorvan_error_free(error);
        });
        return view;
    }
    static void expect_mapped(S3Status status, int code, const char* word, const Text& text = std::nullopt) {
        const auto view = map(status, "b/k");
        expect_ftp(view, code, word, text);
        EXPECT_EQ(view.module, "");
        ASSERT_NE(view.cause, nullptr);
        expect_s3(*view.cause, s3_text("b/k", status));
    }
};

TEST_F(Mapping, AccessDenied) {
    expect_mapped(S3StatusErrorAccessDenied, 550, "PERMISSION_DENIED");
}
TEST_F(Mapping, NotSignedUp) {
    expect_mapped(S3StatusErrorNotSignedUp, 550, "PERMISSION_DENIED");
}
TEST_F(Mapping, BucketAlreadyExists) {
    expect_mapped(S3StatusErrorBucketAlreadyExists, 553, "PATH_EXISTS", "GridFTP-Path: b/k");
}
TEST_F(Mapping, InvalidAccessKeyId) {
    expect_mapped(S3StatusErrorInvalidAccessKeyId, 530, "LOGIN_DENIED");
}
TEST_F(Mapping, SignatureDoesNotMatch) {
    expect_mapped(S3StatusErrorSignatureDoesNotMatch, 530, "LOGIN_DENIED");
}
TEST_F(Mapping, InvalidRange) {
    expect_mapped(S3StatusErrorInvalidRange, 553, "APPEND_NOT_SUPPORTED");
}
TEST_F(Mapping, NoSuchBucket) {
    expect_mapped(S3StatusErrorNoSuchBucket, 550, "PATH_NOT_FOUND", "GridFTP-Path: \"b/k\"");
}
TEST_F(Mapping, NoSuchKey) {
    expect_mapped(S3StatusErrorNoSuchKey, 550, "PATH_NOT_FOUND", "GridFTP-Path: \"b/k\"");
}
TEST_F(Mapping, HttpNotFound) {
    expect_mapped(S3StatusHttpErrorNotFound, 550, "PATH_NOT_FOUND", "GridFTP-Path: \"b/k\"");
}
TEST_F(Mapping, NoSuchUpload) {
    expect_mapped(S3StatusErrorNoSuchUpload, 553, "MULTI_PART_UPLOAD_NOT_FOUND");
}
TEST_F(Mapping, ServiceUnavailable) {
    expect_mapped(S3StatusErrorServiceUnavailable, 451, "TOO_BUSY");
}
TEST_F(Mapping, SlowDown) {
    expect_mapped(S3StatusErrorSlowDown, 451, "TOO_BUSY");
}

TEST_F(Mapping, NotFoundOfANullPathHasEmptyQuotes) {
    const auto view = map(S3StatusErrorNoSuchKey, nullptr);
    expect_ftp(view, 550, "PATH_NOT_FOUND", "GridFTP-Path: \"\"");
    ASSERT_NE(view.cause, nullptr);
    expect_s3(*view.cause, s3_text("", S3StatusErrorNoSuchKey));
}

TEST_F(Mapping, BucketExistsOfANullPathIsNoCrash) {
    const auto view = map(S3StatusErrorBucketAlreadyExists, nullptr);
    EXPECT_EQ(view.ftp_code, 553);
    EXPECT_EQ(view.ftp_word, "PATH_EXISTS");
}

TEST_F(Mapping, BadDigestNamesBothSums) {
    const Details details{{},
                          {},
                          {},
                          {{"CalculatedDigest", "old"},
                           {"ExpectedDigest", "want"},
                           {"Other", "x"},
                           {"CalculatedDigest", "got"}}};
    const auto view = map(S3StatusErrorBadDigest, "b/k", details);
    expect_ftp(view, 550, "INCORRECT_CHECKSUM",
               "GridFTP-Computed-Checksum: got\nGridFTP-Expected-Checksum: want");
}

TEST_F(Mapping, BadDigestWithoutDetailsIsNoCrash) {
    const auto view = map(S3StatusErrorBadDigest, "b/k");
    EXPECT_EQ(view.ftp_code, 550);
    EXPECT_EQ(view.ftp_word, "INCORRECT_CHECKSUM");
    ASSERT_TRUE(view.text);
    EXPECT_TRUE(view.text->starts_with("GridFTP-Computed-Checksum: "));
    EXPECT_NE(view.text->find("\nGridFTP-Expected-Checksum: "), std::string::npos);
}

TEST_F(Mapping, EveryOtherStatusIsTheCauseItself) {
    const std::set<int> mapped{49, 107, 52, 53, 66, 118, 79, 101, 102, 132, 104, 119, 120};
    for (int number = 1; number <= 134; ++number) {
        if (mapped.contains(number)) continue;
        const auto status = static_cast<S3Status>(number);
        const auto view = map(status, "b/k");
        expect_s3(view, s3_text("b/k", status));
        EXPECT_EQ(view.cause, nullptr);
    }
}

TEST_F(Mapping, IsTraced) {
    map(S3StatusErrorNoSuchKey, "b/k");
    EXPECT_TRUE(logged("TRACE", "zorvan_i_S3Error_to_error", "enter"));
    EXPECT_TRUE(logged("TRACE", "zorvan_i_S3Error_to_error", "exit"));
}

TEST_F(Mapping, DetailsFillTheText) {
    const auto view =
        map(S3StatusErrorInternalError, "b/k", Details{"the message", "/the/resource", "and further", {}});
    expect_s3(view, s3_text("/the/resource", S3StatusErrorInternalError, "the message", "and further"));
    EXPECT_EQ(view.text,
              "S3 Error accessing \"/the/resource\": ErrorInternalError: the message: and further");
}

TEST_F(Mapping, AbsentDetailsFallBack) {
    const auto view = map(S3StatusErrorInternalError, "b/k", Details{});
    EXPECT_EQ(view.text, "S3 Error accessing \"b/k\": ErrorInternalError: ErrorInternalError: ");
    EXPECT_EQ(map(S3StatusErrorInternalError, nullptr).text,
              "S3 Error accessing \"\": ErrorInternalError: ErrorInternalError: ");
}

TEST_F(Mapping, TextsWithPercentSignsStand) {
    const auto view = map(S3StatusErrorNoSuchKey, "b/100%s%n", Details{"50%d", {}, "%n", {}});
    EXPECT_EQ(view.text, "GridFTP-Path: \"b/100%s%n\"");
    ASSERT_NE(view.cause, nullptr);
    EXPECT_EQ(view.cause->text, "S3 Error accessing \"b/100%s%n\": ErrorNoSuchKey: 50%d: %n");
}

TEST_F(Mapping, LongTextsAreNotCut) {
    const std::string path(3000, 'p');
    const std::string message(5000, 'm');
    const auto view = map(S3StatusErrorNoSuchKey, path.c_str(), Details{message, {}, {}, {}});
    EXPECT_EQ(view.text, "GridFTP-Path: \"" + path + "\"");
    EXPECT_EQ(view.cause->text, s3_text(path, S3StatusErrorNoSuchKey, message));
}

// ------------------------------------------------------------------------------- the probe's two handlers

class ProbeHandlers : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        activate();
        state = {S3StatusOK, ZORVAN_SUCCESS, "bucket", region};
    }
    void TearDown() override {
        release_result(state.result);
        ModuleTest::TearDown();
    }
    S3Status properties(const char* name) {
        S3ResponseProperties record{};
        record.bucketRegion = name;
        return responsePropertiesCallback(&record, &state);
    }
    char region[64] = {};
    zorvan_i_s3_region_probe_t state{};
};

TEST_F(ProbeHandlers, RegionIsCopied) {
    EXPECT_EQ(properties("eu-west-2"), S3StatusOK);
    EXPECT_STREQ(region, "eu-west-2");
}

TEST_F(ProbeHandlers, RegionOf63CharactersFitsOneOf64IsIgnored) {
    EXPECT_EQ(properties(std::string(63, 'r').c_str()), S3StatusOK);
    EXPECT_EQ(std::strlen(region), 63u);
    region[0] = '\0';
    EXPECT_EQ(properties(std::string(64, 'r').c_str()), S3StatusOK);
    EXPECT_STREQ(region, "");
}

TEST_F(ProbeHandlers, AbsentRegionLeavesTheBufferAlone) {
    EXPECT_EQ(properties(nullptr), S3StatusOK);
    EXPECT_STREQ(region, "");
}

TEST_F(ProbeHandlers, RedirectWithARegionOf10CharactersIsNoError) {
    properties("eu-south-1");
    responseCompleteCallback(S3StatusErrorPermanentRedirect, nullptr, &state);
    EXPECT_EQ(state.status, S3StatusOK);
    EXPECT_EQ(state.result, ZORVAN_SUCCESS);
}

TEST_F(ProbeHandlers, RedirectWithoutARegionIsAnError) {
    responseCompleteCallback(S3StatusErrorPermanentRedirect, nullptr, &state);
    EXPECT_EQ(state.status, S3StatusErrorPermanentRedirect);
    expect_s3(view_result(state.result), s3_text("bucket", S3StatusErrorPermanentRedirect));
}

TEST_F(ProbeHandlers, FailureIsRecordedWithTheBucketAsPath) {
    responseCompleteCallback(S3StatusErrorNoSuchBucket, nullptr, &state);
    EXPECT_EQ(state.status, S3StatusErrorNoSuchBucket);
    expect_ftp(view_result(state.result), 550, "PATH_NOT_FOUND", "GridFTP-Path: \"bucket\"");
}

TEST_F(ProbeHandlers, SecondFailureDoesNotReplaceTheFirst) {
    responseCompleteCallback(S3StatusErrorNoSuchBucket, nullptr, &state);
    const auto first = state.result;
    const auto count = zorvan_error_table_count();
    responseCompleteCallback(S3StatusErrorAccessDenied, nullptr, &state);
    EXPECT_EQ(state.result, first);
    EXPECT_EQ(view_result(state.result).ftp_word, "PATH_NOT_FOUND");
    EXPECT_EQ(zorvan_error_table_count(), count);
}

TEST_F(ProbeHandlers, SuccessRecordsNothing) {
    responseCompleteCallback(S3StatusOK, nullptr, &state);
    EXPECT_EQ(state.status, S3StatusOK);
    EXPECT_EQ(state.result, ZORVAN_SUCCESS);
}

// ------------------------------------------------------------------------------------------- retry rule

class Retry : public ModuleTest {
  protected:
    // A stat of a bucket is one request; all its tries fail with this status.
    void stat_bucket(S3Status status) {
        login();
        s3_respond(S3Kind::list_bucket, [status](const S3Call&) {
            Reply reply;
            reply.status = status;
            return reply;
        });
        set_thread_mode(ThreadMode::deferred);
        call_stat(op, "/bucket", true);
        run_deferred_threads();
        EXPECT_TRUE(op.wait_finished());
        op.close();
        set_thread_mode(ThreadMode::real);
    }
    static size_t tries() { return s3_calls(S3Kind::list_bucket).size(); }
    Operation op;
};

TEST_F(Retry, ZeroRetriesMeansOneTry) {
    activate(std::string(standard_config) + "max_retries = 0\n");
    stat_bucket(S3StatusErrorSlowDown);
    EXPECT_EQ(tries(), 1u);
    EXPECT_TRUE(sleeps().empty());
    expect_ftp(op.finish().error, 451, "TOO_BUSY", std::nullopt);
}

TEST_F(Retry, DefaultIsTwoTries) {
    activate();
    stat_bucket(S3StatusNameLookupError);
    EXPECT_EQ(tries(), 2u);
    EXPECT_EQ(sleeps(), std::vector<int64_t>{100000});
}

TEST_F(Retry, ThreeRetriesSleepOneTwoAndFourDelays) {
    activate(std::string(standard_config) + "max_retries = 3\nretry_delay = 7\n");
    stat_bucket(S3StatusConnectionFailed);
    EXPECT_EQ(tries(), 4u);
    EXPECT_EQ(sleeps(), (std::vector<int64_t>{7000, 14000, 28000}));
}

TEST_F(Retry, StatusThatIsNotRetryableEndsAtOnce) {
    activate(std::string(standard_config) + "max_retries = 5\n");
    stat_bucket(S3StatusErrorAccessDenied);
    EXPECT_EQ(tries(), 1u);
    EXPECT_TRUE(sleeps().empty());
}

TEST_F(Retry, EachTryIsLoggedAndEachFailure) {
    activate(std::string(standard_config) + "max_retries = 2\n");
    stat_bucket(S3StatusErrorRequestTimeout);
    const auto handle = pointer_text(&op);
    for (int n = 0; n < 3; ++n)
        EXPECT_TRUE(
            logged("INFO", "REST: op=" + handle + " S3_list_bucket(bucket=bucket) try=" + std::to_string(n)))
            << n;
    EXPECT_FALSE(log_holds("try=3"));
    int failures = 0;
    for (const auto& line : log_lines())
        failures += line.level == "DEBUG" &&
                    line.message == "S3_list_bucket: op=" + handle + " status=ErrorRequestTimeout[115]";
    EXPECT_EQ(failures, 3);
}

TEST_F(Retry, EachTryIsAnnouncedAfterItsPauseAndBeforeItsCall) {
    activate(std::string(standard_config) + "max_retries = 2\n");
    login();
    size_t calls = 0;
    s3_respond(S3Kind::list_bucket, [&](const S3Call&) {
        EXPECT_TRUE(log_holds("S3_list_bucket(bucket=bucket) try=" + std::to_string(calls)));
        EXPECT_EQ(sleeps().size(), calls);
        ++calls;
        Reply reply;
        reply.status = S3StatusErrorSlowDown;
        return reply;
    });
    set_thread_mode(ThreadMode::deferred);
    call_stat(op, "/bucket", true);
    run_deferred_threads();
    op.close();
    EXPECT_EQ(calls, 3u);
}

TEST_F(Retry, SuccessIsNotLoggedAsAFailure) {
    activate();
    login();
    s3_bucket("bucket");
    set_thread_mode(ThreadMode::deferred);
    call_stat(op, "/bucket", true);
    run_deferred_threads();
    op.close();
    EXPECT_FALSE(log_holds("S3_list_bucket: op="));
    EXPECT_TRUE(log_holds("S3_list_bucket(bucket=bucket) try=0"));
}

TEST_F(Retry, ReportedErrorIsThatOfTheLastTry) {
    activate();
    login();
    s3_fail(S3Kind::list_bucket, 1, S3StatusErrorSlowDown);
    s3_fail(S3Kind::list_bucket, 2, S3StatusErrorAccessDenied);
    call_stat(op, "/bucket", true);
    ASSERT_TRUE(op.wait_finished());
    expect_ftp(op.finish().error, 550, "PERMISSION_DENIED", std::nullopt);
    op.close();
}

TEST_F(Retry, SuccessAfterAFailureLeavesNoError) {
    activate();
    login();
    s3_bucket("bucket");
    s3_fail(S3Kind::list_bucket, 1, S3StatusErrorSlowDown);
    call_stat(op, "/bucket", true);
    ASSERT_TRUE(op.wait_finished());
    EXPECT_EQ(op.finish().result, ZORVAN_SUCCESS);
    op.close();
}

TEST_F(Retry, DelayIsComputedIn32Bits) {
    // 32 retries: the shift count runs from 0 to 31, products wrap, negative ones are no sleep.
    activate(std::string(standard_config) + "max_retries = 34\nretry_delay = 100000\n");
    stat_bucket(S3StatusErrorSlowDown);
    EXPECT_EQ(tries(), 35u);
    std::vector<int64_t> expected;
    for (unsigned i = 0; i < 34; ++i) {
        const auto shifted = uint32_t{100000} << (i % 32);
        expected.push_back(static_cast<int32_t>(shifted * uint32_t{1000}));
    }
    for (const auto value : sleeps())
        EXPECT_GE(value, 0) << "a negative product sleeps not at all";
    // Whether a zero is passed on is the same.
    const auto positive = [](const std::vector<int64_t>& all) {
        std::vector<int64_t> kept;
        for (const auto value : all)
            if (value > 0) kept.push_back(value);
        return kept;
    };
    EXPECT_EQ(positive(sleeps()), positive(expected));
}

TEST_F(Retry, ZeroDelaySleepsNotAtAll) {
    activate(std::string(standard_config) + "max_retries = 2\nretry_delay = 0\n");
    stat_bucket(S3StatusErrorSlowDown);
    EXPECT_EQ(tries(), 3u);
    for (const auto value : sleeps())
        EXPECT_EQ(value, 0);
}

}  // namespace
