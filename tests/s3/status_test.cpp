// Statuses, options and the library's life.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <thread>

#include "options.h"
#include "recorder.h"
#include "status.h"

extern "C" int s3_interface_in_c(void);

namespace {

TEST(Status, NamesAndNumbers) {
    EXPECT_STREQ(S3_get_status_name(S3StatusOK), "OK");
    EXPECT_STREQ(S3_get_status_name(S3StatusErrorNoSuchKey), "ErrorNoSuchKey");
    EXPECT_STREQ(S3_get_status_name(S3StatusHttpErrorUnknown), "HttpErrorUnknown");
    EXPECT_STREQ(S3_get_status_name(static_cast<S3Status>(135)), "Unknown");
    EXPECT_STREQ(S3_get_status_name(static_cast<S3Status>(255)), "Unknown");
    EXPECT_EQ(S3StatusConnectionFailed, 46);
    EXPECT_EQ(S3StatusErrorIncompleteBody, 62);
    EXPECT_EQ(S3StatusErrorUserKeyMustBeSpecified, 126);
    EXPECT_EQ(S3StatusHttpErrorUnknown, 134);
}

TEST(Status, EveryErrorNameMapsOntoItself) {
    for (int i = S3StatusErrorAccessDenied; i < S3StatusErrorUnknown; ++i) {
        const std::string name = S3_get_status_name(static_cast<S3Status>(i));
        ASSERT_TRUE(name.starts_with("Error")) << name;
        EXPECT_EQ(s3::status_from_error_code(name.substr(5)), static_cast<S3Status>(i)) << name;
    }
    EXPECT_FALSE(s3::status_from_error_code("Unknown"));
    EXPECT_FALSE(s3::status_from_error_code(""));
    EXPECT_FALSE(s3::status_from_error_code("nosuchkey"));
}

TEST(Status, HttpStatusesWithoutADocument) {
    const std::pair<long, S3Status> cases[] = {
        {200, S3StatusOK},
        {206, S3StatusOK},
        {0, S3StatusConnectionFailed},
        {301, S3StatusErrorPermanentRedirect},
        {302, S3StatusHttpErrorUnknown},
        {304, S3StatusHttpErrorUnknown},
        {307, S3StatusHttpErrorMovedTemporarily},
        {400, S3StatusHttpErrorBadRequest},
        {403, S3StatusHttpErrorForbidden},
        {404, S3StatusHttpErrorNotFound},
        {405, S3StatusErrorMethodNotAllowed},
        {409, S3StatusHttpErrorConflict},
        {411, S3StatusErrorMissingContentLength},
        {412, S3StatusErrorPreconditionFailed},
        {416, S3StatusErrorInvalidRange},
        {500, S3StatusErrorInternalError},
        {501, S3StatusErrorNotImplemented},
        {502, S3StatusErrorServiceUnavailable},
        {503, S3StatusErrorSlowDown},
        {504, S3StatusErrorServiceUnavailable},
        {599, S3StatusHttpErrorUnknown},
    };
    for (const auto& [http, status] : cases)
        EXPECT_EQ(s3::status_from_http(http), status) << http;
}

TEST(Status, ExactlyTheseAreRetryable) {
    s3::note_request_begin();
    for (int i = 0; i < 140; ++i) {
        const bool expected =
            i == 43 || i == 44 || i == 46 || i == 65 || i == 109 || i == 115 || i == 119 || i == 120;
        EXPECT_EQ(S3_status_is_retryable(static_cast<S3Status>(i)), expected ? 1 : 0) << i;
    }
}

TEST(Status, NotRetryableAfterBytesWereTakenOnThisThread) {
    s3::note_request_end(S3StatusErrorSlowDown, true);
    EXPECT_EQ(S3_status_is_retryable(S3StatusErrorSlowDown), 0);
    EXPECT_EQ(S3_status_is_retryable(S3StatusErrorInternalError), 1);
    int elsewhere = -1;
    std::thread([&] { elsewhere = S3_status_is_retryable(S3StatusErrorSlowDown); }).join();
    EXPECT_EQ(elsewhere, 1);
    s3::note_request_begin();
    EXPECT_EQ(S3_status_is_retryable(S3StatusErrorSlowDown), 1);
}

TEST(Interface, CompilesAndRunsAsC) {
    EXPECT_EQ(s3_interface_in_c(), S3StatusErrorUserKeyMustBeSpecified);
}

TEST(Options, RangesAreChecked) {
    EXPECT_EQ(S3_set_option(S3OptionStallSeconds, 0), S3StatusErrorInvalidArgument);
    EXPECT_EQ(S3_set_option(S3OptionStallSeconds, -1), S3StatusErrorInvalidArgument);
    EXPECT_EQ(S3_set_option(static_cast<S3Option>(10), 1), S3StatusErrorInvalidArgument);
    EXPECT_EQ(S3_set_option(static_cast<S3Option>(15), 1), S3StatusErrorInvalidArgument);
    EXPECT_EQ(S3_set_option(S3OptionStallSeconds, 120), S3StatusOK);
}

// In a process of its own: the environment is read once.
TEST(OptionsDeathTest, TheEnvironmentReplacesDefaults) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto started_with = [](const char* variable, const char* value, S3Option which, int64_t expected) {
        ::setenv(variable, value, 1);
        std::exit(s3::option(which) == expected ? 0 : 1);
    };
    const auto good = ::testing::ExitedWithCode(0);
    EXPECT_EXIT(started_with("ZORVAN_S3_STALL_SECONDS", "7", S3OptionStallSeconds, 7), good, "^$");
    EXPECT_EXIT(started_with("ZORVAN_S3_BUCKET_PROBE_SECONDS", "0", S3OptionBucketProbeSeconds, 0), good,
                "^$");
    EXPECT_EXIT(started_with("ZORVAN_S3_STALL_SECONDS", "", S3OptionStallSeconds, 120), good, "^$");
    for (const char* wrong : {"0", "-1", "86401", "5s", "x", "99999999999999999999"}) {
        EXPECT_EXIT(started_with("ZORVAN_S3_STALL_SECONDS", wrong, S3OptionStallSeconds, 120), good,
                    "ZORVAN_S3_STALL_SECONDS: not a number from 1 to 86400, left out")
            << wrong;
    }
    // Where 0 is allowed, a number that is too large must not pass for it.
    EXPECT_EXIT(started_with("ZORVAN_S3_BUCKET_PROBE_SECONDS", "99999999999999999999",
                             S3OptionBucketProbeSeconds, 30),
                good, "ZORVAN_S3_BUCKET_PROBE_SECONDS: not a number from 0 to 86400, left out");
}

TEST(Life, HostTooLongIsRefused) {
    EXPECT_EQ(S3_initialize(nullptr, S3_INIT_ALL, std::string(256, 'h').c_str()), S3StatusUriTooLong);
    EXPECT_EQ(S3_set_thread_default_host(std::string(256, 'h').c_str()), S3StatusUriTooLong);
}

TEST(Life, RequestsNeedTheLibraryReady) {
    S3_deinitialize();
    S3_deinitialize();
    const S3BucketContext where = {"127.0.0.1:1", "bucket", S3ProtocolHTTP, S3UriStylePath, "a", "s", nullptr,
                                   nullptr,       0};
    s3test::Recorder before;
    S3_head_object(&where, "key", nullptr, 0, &s3test::kResponse, &before);
    EXPECT_EQ(before.status, S3StatusFailedToInitializeRequest);
    EXPECT_EQ(before.completions, 1);
    ASSERT_EQ(S3_initialize(nullptr, S3_INIT_ALL, nullptr), S3StatusOK);
    s3test::Recorder ready;
    S3_head_object(&where, "key", nullptr, 0, &s3test::kResponse, &ready);
    EXPECT_EQ(ready.status, S3StatusFailedToConnect);
    EXPECT_EQ(ready.retryable_in_complete, 1);
    S3_deinitialize();
    ASSERT_EQ(S3_initialize(nullptr, S3_INIT_ALL, nullptr), S3StatusOK);
    S3_deinitialize();
}

TEST(Life, SigpipeIsIgnoredOnlyWhenAtItsDefault) {
    using Handler = void (*)(int);
    const Handler before = std::signal(SIGPIPE, SIG_DFL);
    S3_deinitialize();
    ASSERT_EQ(S3_initialize(nullptr, S3_INIT_ALL, nullptr), S3StatusOK);
    S3_deinitialize();
    EXPECT_EQ(std::signal(SIGPIPE, SIG_DFL), SIG_IGN);
    const Handler own = [](int) {};
    std::signal(SIGPIPE, own);
    ASSERT_EQ(S3_initialize(nullptr, S3_INIT_ALL, nullptr), S3StatusOK);
    S3_deinitialize();
    EXPECT_EQ(std::signal(SIGPIPE, before), own);
}

}  // namespace
