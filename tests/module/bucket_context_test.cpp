// Where requests on a bucket go: host, region, credentials, the probe and its cache.
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "module_fixture.h"
#include "region_table.h"

using namespace module_test;

namespace {

Reply region_reply(const std::string& region, S3Status status = S3StatusErrorPermanentRedirect) {
    Reply reply;
    reply.status = status;
    reply.properties = Properties{};
    reply.properties->region = region;
    return reply;
}

class BucketContext : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        activate();
    }
    // A session as log-in makes it.
    void session_for(const std::string& host, const char* region = nullptr) {
        destroy_session();
        session = new zorvan_i_s3_handle_t{};
        session->protocol = S3ProtocolHTTPS;
        session->uri_style = S3UriStylePath;
        session->host_name = strdup(host.c_str());
        session->access_key_id = strdup("ID");
        session->secret_access_key = strdup("SECRET");
        session->region = region;
        session->default_key_pair = {session->access_key_id, session->secret_access_key};
    }
    // A context for a bucket; the names must outlive it, so they are kept.
    S3BucketContext context_of(const std::string& bucket) {
        names_.push_back(strdup(bucket.c_str()));
        S3BucketContext context{};
        EXPECT_EQ(zorvan_i_s3_bucket_context(session, "/x/y", names_.back(), &context), ZORVAN_SUCCESS);
        return context;
    }
    void TearDown() override {
        for (auto* name : names_)
            std::free(name);
        ModuleTest::TearDown();
    }
    static size_t probes() { return s3_calls(S3Kind::head_object).size(); }

    // An empty or foreign cache: a probe of a bucket that nobody asks for again.
    static int unrecognized_lines() {
        int count = 0;
        for (const auto& line : host_log())
            count += line.level == 2 && line.text.starts_with("HeadBucket returned an unrecognized region.");
        return count;
    }

  private:
    std::vector<char*> names_;
};

TEST_F(BucketContext, GatewayNeverProbes) {
    session_for("rgw.example.org:8080", "zonegroup");
    session->security_token = strdup("token");
    session->context_option = 5;
    const auto context = context_of("gw-bucket");
    EXPECT_STREQ(context.hostName, "rgw.example.org:8080");
    EXPECT_STREQ(context.bucketName, "gw-bucket");
    EXPECT_EQ(context.protocol, S3ProtocolHTTPS);
    EXPECT_EQ(context.uriStyle, S3UriStylePath);
    EXPECT_STREQ(context.accessKeyId, "ID");
    EXPECT_STREQ(context.secretAccessKey, "SECRET");
    EXPECT_STREQ(context.securityToken, "token");
    EXPECT_STREQ(context.authRegion, "zonegroup");
    EXPECT_EQ(context.contextOption, 5);
    EXPECT_EQ(probes(), 0u);
    EXPECT_TRUE(logged("DEBUG", "zorvan_i_s3_bucket_context", "Using the key id ID")) << log_text();
    EXPECT_TRUE(logged("TRACE", "zorvan_l_is_aws_endpoint", "exit: 0"));
    EXPECT_TRUE(logged("TRACE", "zorvan_i_s3_bucket_context", "result=ZORVAN_SUCCESS"));
}

TEST_F(BucketContext, AwsEndpointIsTraced) {
    session_for("s3.eu-west-1.amazonaws.com", "eu-west-1");
    s3_script(S3Kind::head_object, region_reply("eu-west-1", S3StatusOK));
    context_of("traced-bucket");
    EXPECT_TRUE(logged("TRACE", "zorvan_l_is_aws_endpoint", "exit: 1"));
    EXPECT_TRUE(logged("TRACE", "responsePropertiesCallback", "exit status=0: OK"));
    EXPECT_TRUE(logged("TRACE", "responseCompleteCallback", "exit status=0: OK"));
}

TEST_F(BucketContext, ProbeAsksForTheBucketItself) {
    session_for("s3.amazonaws.com", "us-east-1");
    s3_script(S3Kind::head_object, region_reply("us-east-1", S3StatusOK));
    context_of("probe-arguments");
    const auto calls = s3_calls(S3Kind::head_object);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].key, std::nullopt);
    EXPECT_EQ(calls[0].context.bucket, "probe-arguments");
    EXPECT_EQ(calls[0].context.host, "s3.amazonaws.com");
    EXPECT_EQ(calls[0].context.region, "us-east-1");
    EXPECT_FALSE(calls[0].request_context);
    EXPECT_EQ(calls[0].timeout, 0);
}

TEST_F(BucketContext, RedirectNamingEuWest2GoesThere) {
    session_for("s3.amazonaws.com", "us-east-1");
    s3_script(S3Kind::head_object, region_reply("eu-west-2"));
    const auto context = context_of("redirected");
    EXPECT_STREQ(context.hostName, "s3.eu-west-2.amazonaws.com");
    EXPECT_STREQ(context.authRegion, "eu-west-2");
}

TEST_F(BucketContext, FoundBucketGoesToItsRegionToo) {
    session_for("s3.us-west-2.amazonaws.com", "us-west-2");
    s3_script(S3Kind::head_object, region_reply("ap-south-1", S3StatusOK));
    const auto context = context_of("found-elsewhere");
    EXPECT_STREQ(context.hostName, "s3.ap-south-1.amazonaws.com");
    EXPECT_STREQ(context.authRegion, "ap-south-1");
}

TEST_F(BucketContext, CachedBucketIsNotProbedAgain) {
    session_for("s3.amazonaws.com", "us-east-1");
    s3_script(S3Kind::head_object, region_reply("eu-west-3"));
    context_of("cached-once");
    const auto again = context_of("cached-once");
    EXPECT_EQ(probes(), 1u);
    EXPECT_STREQ(again.hostName, "s3.eu-west-3.amazonaws.com");
    EXPECT_STREQ(again.authRegion, "eu-west-3");
}

TEST_F(BucketContext, AnotherBucketReplacesTheCache) {
    session_for("s3.amazonaws.com", "us-east-1");
    s3_script(S3Kind::head_object, region_reply("eu-west-3"));
    s3_script(S3Kind::head_object, region_reply("eu-west-2"));
    s3_script(S3Kind::head_object, region_reply("eu-west-1"));
    context_of("first-bucket");
    context_of("second-bucket");
    EXPECT_STREQ(context_of("first-bucket").authRegion, "eu-west-1");
    EXPECT_EQ(probes(), 3u);
}

TEST_F(BucketContext, CacheHitGivesTheFirstHostWhateverTheSessionsForm) {
    session_for("s3.dualstack.us-east-2.amazonaws.com", "us-east-2");
    s3_script(S3Kind::head_object, region_reply("us-west-1"));
    EXPECT_STREQ(context_of("form-bucket").hostName, "s3.dualstack.us-west-1.amazonaws.com");
    EXPECT_STREQ(context_of("form-bucket").hostName, "s3.us-west-1.amazonaws.com");
}

TEST_F(BucketContext, GatewaySessionNeverTakesACachedAmazonHost) {
    session_for("s3.amazonaws.com", "us-east-1");
    s3_script(S3Kind::head_object, region_reply("eu-west-3"));
    context_of("shared-name");
    session_for("rgw.example.org", "zonegroup");
    const auto context = context_of("shared-name");
    EXPECT_STREQ(context.hostName, "rgw.example.org");
    EXPECT_STREQ(context.authRegion, "zonegroup");
    EXPECT_EQ(probes(), 1u);
}

TEST_F(BucketContext, FipsSessionTakesTheFipsHost) {
    session_for("s3-fips.us-east-2.amazonaws.com", "us-east-2");
    s3_script(S3Kind::head_object, region_reply("us-west-2"));
    EXPECT_STREQ(context_of("fips").hostName, "s3-fips.us-west-2.amazonaws.com");
}

TEST_F(BucketContext, DualStackSessionTakesTheDualStackHost) {
    session_for("s3.dualstack.us-east-2.amazonaws.com", "us-east-2");
    s3_script(S3Kind::head_object, region_reply("eu-north-1"));
    EXPECT_STREQ(context_of("dual").hostName, "s3.dualstack.eu-north-1.amazonaws.com");
}

TEST_F(BucketContext, FipsDualStackSessionTakesThatHost) {
    session_for("s3-fips.dualstack.us-east-2.amazonaws.com", "us-east-2");
    s3_script(S3Kind::head_object, region_reply("ca-central-1"));
    EXPECT_STREQ(context_of("fips-dual").hostName, "s3-fips.dualstack.ca-central-1.amazonaws.com");
}

TEST_F(BucketContext, FipsSessionAndARegionWithoutFipsTakesThePlainHost) {
    session_for("s3-fips.us-east-1.amazonaws.com", "us-east-1");
    s3_script(S3Kind::head_object, region_reply("eu-west-1"));
    const auto context = context_of("no-fips-there");
    EXPECT_STREQ(context.hostName, "s3.eu-west-1.amazonaws.com");
    EXPECT_STREQ(context.authRegion, "eu-west-1");
}

TEST_F(BucketContext, FipsDualStackSessionAndARegionWithoutFipsTakesThePlainHost) {
    session_for("s3-fips.dualstack.us-east-1.amazonaws.com", "us-east-1");
    s3_script(S3Kind::head_object, region_reply("eu-west-1"));
    EXPECT_STREQ(context_of("no-fips-dual-there").hostName, "s3.eu-west-1.amazonaws.com");
}

TEST_F(BucketContext, GlobalHostAndItsRegionsPlainHost) {
    session_for("s3.amazonaws.com", "us-east-1");
    s3_script(S3Kind::head_object, region_reply("us-east-1", S3StatusOK));
    EXPECT_STREQ(context_of("home-region").hostName, "s3.us-east-1.amazonaws.com");
}

TEST_F(BucketContext, UnknownRegionIsLoggedOnceAndKeepsTheSessionsHost) {
    session_for("s3.us-west-2.amazonaws.com", "us-west-2");
    s3_script(S3Kind::head_object, region_reply("mars-north-1", S3StatusOK));
    const auto context = context_of("on-mars");
    EXPECT_STREQ(context.hostName, "s3.us-west-2.amazonaws.com");
    EXPECT_STREQ(context.authRegion, "us-west-2");
    EXPECT_EQ(host_logged(2,
                          "HeadBucket returned an unrecognized region.  Continuing with default region.  "
                          "endpoint: s3.us-west-2.amazonaws.com, bucket: on-mars, region: mars-north-1\n"),
              1);
    const auto again = context_of("on-mars");
    EXPECT_STREQ(again.hostName, "s3.us-west-2.amazonaws.com");
    EXPECT_STREQ(again.authRegion, "us-west-2");
    EXPECT_EQ(probes(), 1u);
    EXPECT_EQ(unrecognized_lines(), 1);
}

TEST_F(BucketContext, EmptyRegionIsLoggedOnce) {
    session_for("s3.us-west-2.amazonaws.com", "us-west-2");
    Reply reply;
    reply.properties = Properties{};
    s3_script(S3Kind::head_object, reply);
    context_of("no-region");
    context_of("no-region");
    EXPECT_EQ(host_logged(2,
                          "HeadBucket returned an unrecognized region.  Continuing with default region.  "
                          "endpoint: s3.us-west-2.amazonaws.com, bucket: no-region, region: \n"),
              1);
    EXPECT_EQ(probes(), 1u);
}

TEST_F(BucketContext, FailedProbeKeepsTheSessionsHostAndIsNotCached) {
    session_for("s3.us-west-2.amazonaws.com", "us-west-2");
    s3_fail(S3Kind::head_object, 1, S3StatusHttpErrorForbidden);
    const auto context = context_of("forbidden-bucket");
    EXPECT_STREQ(context.hostName, "s3.us-west-2.amazonaws.com");
    EXPECT_STREQ(context.authRegion, "us-west-2");
    s3_on_call(S3Kind::head_object, 2, region_reply("eu-west-2"));
    EXPECT_STREQ(context_of("forbidden-bucket").authRegion, "eu-west-2");
    EXPECT_EQ(probes(), 2u);
    EXPECT_EQ(unrecognized_lines(), 0);
}

TEST_F(BucketContext, FailedProbeLeavesNoErrorObject) {
    session_for("s3.us-west-2.amazonaws.com", "us-west-2");
    const auto before = zorvan_error_table_count();
    s3_fail(S3Kind::head_object, 1, S3StatusErrorAccessDenied);
    context_of("forbidden-again");
    EXPECT_EQ(zorvan_error_table_count(), before);
}

TEST_F(BucketContext, RedirectWithoutARegionIsAFailedProbe) {
    session_for("s3.us-west-2.amazonaws.com", "us-west-2");
    s3_fail(S3Kind::head_object, 1, S3StatusErrorPermanentRedirect);
    EXPECT_STREQ(context_of("redirect-nowhere").hostName, "s3.us-west-2.amazonaws.com");
    EXPECT_EQ(unrecognized_lines(), 0) << "a failed probe is not answered";
    s3_on_call(S3Kind::head_object, 2, region_reply("eu-west-2"));
    context_of("redirect-nowhere");
    EXPECT_EQ(probes(), 2u);
}

TEST_F(BucketContext, RetryableProbeIsRepeatedWithoutDelayAndBeyondTheBound) {
    session_for("s3.us-west-2.amazonaws.com", "us-west-2");
    for (int i = 1; i <= 6; ++i)
        s3_fail(S3Kind::head_object, i, S3StatusErrorSlowDown);
    s3_on_call(S3Kind::head_object, 7, region_reply("eu-west-2"));
    EXPECT_STREQ(context_of("slow-probe").authRegion, "eu-west-2");
    EXPECT_EQ(probes(), 7u);
    EXPECT_TRUE(sleeps().empty());
}

TEST_F(BucketContext, NamesOf255And256CharactersBehave) {
    session_for("s3.us-west-2.amazonaws.com", "us-west-2");
    const std::string longest(255, 'l');
    const std::string too_long(256, 'l');
    s3_respond(S3Kind::head_object, [](const S3Call&) { return region_reply("eu-west-2"); });
    EXPECT_STREQ(context_of(longest).authRegion, "eu-west-2");
    EXPECT_STREQ(context_of(longest).authRegion, "eu-west-2");
    EXPECT_EQ(probes(), 1u);
    EXPECT_STREQ(context_of(too_long).authRegion, "eu-west-2");
    EXPECT_EQ(probes(), 2u);
    const auto again = context_of(too_long);
    EXPECT_STREQ(again.authRegion, "eu-west-2");
    EXPECT_STREQ(again.bucketName, too_long.c_str());
    EXPECT_EQ(probes(), 2u) << "256 characters fill the cache and are found there";
    EXPECT_STREQ(context_of(longest).bucketName, longest.c_str());
    EXPECT_EQ(probes(), 3u);
}

TEST_F(BucketContext, NameBeyondTheCacheIsProbedEachTime) {
    session_for("s3.us-west-2.amazonaws.com", "us-west-2");
    s3_respond(S3Kind::head_object, [](const S3Call&) { return region_reply("eu-west-2"); });
    const std::string name(257, 'm');
    EXPECT_STREQ(context_of(name).authRegion, "eu-west-2");
    EXPECT_STREQ(context_of(name).authRegion, "eu-west-2");
    EXPECT_EQ(probes(), 2u);
    // The row goes with the characters that were kept.
    EXPECT_STREQ(context_of(std::string(256, 'm')).authRegion, "eu-west-2");
    EXPECT_EQ(probes(), 2u);
}

TEST_F(BucketContext, EmptyNameIsNeverTakenForCached) {
    session_for("s3.us-west-2.amazonaws.com", "us-west-2");
    s3_respond(S3Kind::head_object, [](const S3Call&) { return region_reply("eu-west-2"); });
    context_of("");
    context_of("");
    EXPECT_EQ(probes(), 2u);
}

TEST_F(BucketContext, NullKeyIsNoCrash) {
    session_for("rgw");
    S3BucketContext context{};
    EXPECT_EQ(zorvan_i_s3_bucket_context(session, nullptr, "b", &context), ZORVAN_SUCCESS);
    EXPECT_STREQ(context.accessKeyId, "ID");
}

TEST_F(BucketContext, ForbiddenBucketIsNotProbed) {
    session_for("s3.us-west-2.amazonaws.com", "us-west-2");
    session->allowed_buckets = static_cast<char**>(std::calloc(2, sizeof(char*)));
    session->allowed_buckets[0] = strdup("mine");
    S3BucketContext context{};
    const auto result = zorvan_i_s3_bucket_context(session, "/other/x", "other", &context);
    expect_ftp(view_result(result), 550, "PERMISSION_DENIED", std::nullopt);
    release_result(result);
    EXPECT_EQ(probes(), 0u);
}

zorvan_result_t refresh_result = 0;
int refresh_calls = 0;
zorvan_result_t refresh(zorvan_i_s3_handle_t* handle) {
    ++refresh_calls;
    if (refresh_result == ZORVAN_SUCCESS) {
        std::free(handle->access_key_id);
        handle->access_key_id = strdup("NEWID");
        handle->default_key_pair.access_key_id = handle->access_key_id;
    }
    return refresh_result;
}

TEST_F(BucketContext, CredentialHookRunsFirst) {
    session_for("rgw");
    session->refresh_credentials = refresh;
    refresh_result = ZORVAN_SUCCESS;
    refresh_calls = 0;
    EXPECT_STREQ(context_of("hooked").accessKeyId, "NEWID");
    EXPECT_EQ(refresh_calls, 1);
}

TEST_F(BucketContext, FailingCredentialHookIsReturned) {
    session_for("s3.us-west-2.amazonaws.com");
    session->refresh_credentials = refresh;
    refresh_result = zorvan_error_put(
        zorvan_error_construct_error(nullptr, nullptr, 6, "f", "g", 1, "%s", "credentials are stale"));
    refresh_calls = 0;
    S3BucketContext context{};
    EXPECT_EQ(zorvan_i_s3_bucket_context(session, "/b/x", "b", &context), refresh_result);
    EXPECT_TRUE(logged("ERROR", "zorvan_i_s3_bucket_context",
                       "result=" + result_text(refresh_result) + " message=credentials are stale"));
    release_result(refresh_result);
    EXPECT_EQ(probes(), 0u);
}

TEST_F(BucketContext, CredentialHookIsNotAskedForAForbiddenBucket) {
    session_for("rgw");
    session->refresh_credentials = refresh;
    session->allowed_buckets = static_cast<char**>(std::calloc(1, sizeof(char*)));
    refresh_calls = 0;
    S3BucketContext context{};
    release_result(zorvan_i_s3_bucket_context(session, "/b/x", "b", &context));
    EXPECT_EQ(refresh_calls, 0);
}

TEST_F(BucketContext, ManyThreadsShareTheCache) {
    session_for("s3.amazonaws.com", "us-east-1");
    s3_respond(S3Kind::head_object, [](const S3Call& call) {
        return region_reply(call.context.bucket == "west" ? "us-west-2" : "eu-west-2");
    });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([this, t] {
            const char* bucket = t % 2 == 0 ? "west" : "east";
            for (int i = 0; i < 200; ++i) {
                S3BucketContext context{};
                EXPECT_EQ(zorvan_i_s3_bucket_context(session, "/x/y", bucket, &context), ZORVAN_SUCCESS);
                EXPECT_STREQ(context.authRegion, t % 2 == 0 ? "us-west-2" : "eu-west-2");
                EXPECT_STREQ(context.bucketName, bucket);
            }
        });
    for (auto& thread : threads)
        thread.join();
}

// ------------------------------------------------------------------------------------- the endpoint table

struct Row {
    const char* region;
    const char* display_name;
    bool fips;
};
constexpr Row rows[] = {
    {"us-east-2", "US East (Ohio)", true},
    {"us-east-1", "US East (N. Virginia)", true},
    {"us-west-1", "US West (N. California)", true},
    {"us-west-2", "US West (Oregon)", true},
    {"af-south-1", "Africa (Cape Town)", false},
    {"ap-east-1", "Asia Pacific (Hong Kong)***", false},
    {"ap-south-2", "Asia Pacific (Hyderabad)", false},
    {"ap-southeast-3", "Asia Pacific (Jakarta)", false},
    {"ap-southeast-4", "Asia Pacific (Melbourne)", false},
    {"ap-south-1", "Asia Pacific (Mumbai)", false},
    {"ap-northeast-3", "Asia Pacific (Osaka)", false},
    {"ap-northeast-2", "Asia Pacific (Seoul)", false},
    {"ap-southeast-1", "Asia Pacific (Singapore)", false},
    {"ap-southeast-2", "Asia Pacific (Sydney)", false},
    {"ap-northeast-1", "Asia Pacific (Tokyo)", false},
    {"ca-central-1", "Canada (Central)", true},
    {"cn-north-1", "China (Beijing)", false},
    {"cn-northwest-1", "China (Ningxia)", false},
    {"eu-central-1", "Europe (Frankfurt)", false},
    {"eu-west-1", "Europe (Ireland)", false},
    {"eu-west-2", "Europe (London)", false},
    {"eu-south-1", "Europe (Milan)", false},
    {"eu-west-3", "Europe (Paris)", false},
    {"eu-north-1", "Europe (Stockholm)", false},
    {"eu-south-2", "Europe (Spain)", false},
    {"eu-central-2", "Europe (Zurich)", false},
    {"sa-east-1", "South America (São Paulo)", false},
    {"me-south-1", "Middle East (Bahrain)", false},
    {"me-central-1", "Middle East (UAE)", false},
    {"il-central-1", "Israel (Tel Aviv)", false},
    {"us-gov-east-1", "AWS GovCloud (US-East)", true},
    {"us-gov-west-1", "AWS GovCloud (US-West)", true},
};
static_assert(std::size(rows) == 32);

TEST_F(BucketContext, EveryHostOfTheTableHasItsRegion) {
    for (const auto& row : rows) {
        const std::string region = row.region;
        const std::string tail = "." + region + ".amazonaws.com" + (region.starts_with("cn-") ? ".cn" : "");
        EXPECT_STREQ(zorvan_i_host_to_region(("s3" + tail).c_str()), row.region);
        EXPECT_STREQ(zorvan_i_host_to_region(("s3.dualstack" + tail).c_str()), row.region);
        const char* fips = zorvan_i_host_to_region(("s3-fips" + tail).c_str());
        const char* fips_dual = zorvan_i_host_to_region(("s3-fips.dualstack" + tail).c_str());
        if (row.fips) {
            EXPECT_STREQ(fips, row.region);
            EXPECT_STREQ(fips_dual, row.region);
        } else {
            EXPECT_EQ(fips, nullptr) << region;
            EXPECT_EQ(fips_dual, nullptr) << region;
        }
    }
    EXPECT_STREQ(zorvan_i_host_to_region("s3.amazonaws.com"), "us-east-1");
}

TEST_F(BucketContext, RowsStandInOrderWithTheirHostsInOrder) {
    const auto* row = zorvan_l_lookup_aws_region(rows[0].region);
    for (const auto& expected : rows) {
        ASSERT_EQ(zorvan_l_lookup_aws_region(expected.region), row) << expected.region;
        EXPECT_STREQ(row->display_name, expected.display_name);
        EXPECT_STREQ(row->region, expected.region);
        EXPECT_STREQ(row->location_name, expected.region);
        const std::string region = expected.region;
        const std::string tail = "." + region + ".amazonaws.com" + (region.starts_with("cn-") ? ".cn" : "");
        std::vector<std::string> hosts{"s3" + tail};
        if (expected.fips) hosts.push_back("s3-fips" + tail);
        if (region == "us-east-1") hosts.emplace_back("s3.amazonaws.com");
        hosts.push_back("s3.dualstack" + tail);
        if (expected.fips) hosts.push_back("s3-fips.dualstack" + tail);
        std::vector<std::string> listed;
        for (const char* const* host = row->hosts; *host != nullptr; ++host)
            listed.emplace_back(*host);
        EXPECT_EQ(listed, hosts);
        ++row;
    }
    EXPECT_EQ(zorvan_l_lookup_aws_region(""), nullptr);
    EXPECT_EQ(zorvan_l_lookup_aws_region("US-EAST-1"), nullptr);
}

TEST_F(BucketContext, OtherHostsHaveNone) {
    for (const char* host : {"", "s3.example.org", "S3.amazonaws.com", "s3.amazonaws.com:443",
                             "amazonaws.com", "bucket.s3.amazonaws.com"})
        EXPECT_EQ(zorvan_i_host_to_region(host), nullptr) << host;
}

TEST_F(BucketContext, EveryRegionIsReachedByAProbe) {
    session_for("s3.amazonaws.com", "us-east-1");
    int n = 0;
    for (const auto& row : rows) {
        s3_script(S3Kind::head_object, region_reply(row.region));
        const auto context = context_of("every-" + std::to_string(++n));
        EXPECT_STREQ(context.authRegion, row.region);
        EXPECT_TRUE(std::string(context.hostName).starts_with(std::string("s3.") + row.region)) << row.region;
    }
}

}  // namespace
