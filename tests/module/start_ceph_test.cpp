// Session start: storage policy or configuration, region, client library, the user's keys.
#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "host_refusals.h"
#include "module_fixture.h"

using namespace module_test;

namespace {

std::string policy_for(const std::string& endpoint, const std::string& more = "") {
    return R"({"s3_endpoint":")" + endpoint +
           R"(","ceph_admin_key_id":"POLICYKEY","ceph_admin_secret_key":"policysecret")" + more + "}";
}

class StartCeph : public ModuleTest {
  protected:
    void TearDown() override {
        for (auto* handle : handles_)
            iface->session_destroy(handle);
        ModuleTest::TearDown();
    }
    // Start a session to its end; @return its finished call.
    Finish run(const std::optional<std::string>& policy = std::nullopt, const std::string& user = "alice") {
        Operation op;
        op.config_data = policy;
        start(op, user);
        EXPECT_TRUE(op.wait_finished());
        const auto finish = op.finish();
        EXPECT_EQ(finish.kind, Ending::session_start);
        EXPECT_EQ(op.finishes.size(), 1u);
        op.close();
        EXPECT_EQ(zorvan_thread_wait_all(20000), 1);
        if (finish.session_handle != nullptr)
            handles_.push_back(static_cast<zorvan_i_s3_handle_t*>(finish.session_handle));
        return finish;
    }
    static const zorvan_i_s3_handle_t& handle_of(const Finish& finish) {
        return *static_cast<zorvan_i_s3_handle_t*>(finish.session_handle);
    }
    void known_user() { s3_user("alice", {{"alice", "AKALICE", "skalice"}}); }
    void expect_no_key(const Finish& finish, const std::string& user = "alice") {
        expect_generic(finish.error, "start_ceph", "No access key for ceph user \"" + user + "\"");
    }

  private:
    std::vector<zorvan_i_s3_handle_t*> handles_;
};

TEST_F(StartCeph, SuccessfulStartHandsOverAFilledSession) {
    activate();
    known_user();
    const auto finish = run();
    ASSERT_EQ(finish.result, ZORVAN_SUCCESS);
    EXPECT_EQ(finish.text, "alice");
    EXPECT_EQ(finish.directory, "/");
    ASSERT_NE(finish.session_handle, nullptr);
    const auto& handle = handle_of(finish);
    EXPECT_EQ(handle.first_field, 0);
    EXPECT_EQ(handle.protocol, S3ProtocolHTTP);
    EXPECT_EQ(handle.uri_style, S3UriStylePath);
    EXPECT_STREQ(handle.host_name, "rgw.example.org:8080");
    EXPECT_STREQ(handle.access_key_id, "AKALICE");
    EXPECT_STREQ(handle.secret_access_key, "skalice");
    EXPECT_EQ(handle.security_token, nullptr);
    EXPECT_EQ(handle.region, nullptr);
    EXPECT_EQ(handle.allowed_buckets, nullptr);
    EXPECT_EQ(handle.put_option, 0);
    EXPECT_EQ(handle.context_option, 0);
    EXPECT_FALSE(handle.suppress_restart_markers);
    EXPECT_EQ(handle.refresh_credentials, nullptr);
    EXPECT_FALSE(handle.restricted_endpoint);
    EXPECT_EQ(handle.extra_string_1, nullptr);
    EXPECT_EQ(handle.extra_string_2, nullptr);
    EXPECT_EQ(handle.key_pairs, nullptr);
    EXPECT_EQ(handle.default_key_pair.access_key_id, handle.access_key_id);
    EXPECT_EQ(handle.default_key_pair.secret_access_key, handle.secret_access_key);
}

TEST_F(StartCeph, LookupGoesToTheAdminBucketWithTheAdministratorsKeys) {
    activate();
    known_user();
    run();
    const auto calls = s3_calls(S3Kind::user_info);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].user, "alice");
    EXPECT_EQ(calls[0].context.host, "rgw.example.org:8080");
    EXPECT_EQ(calls[0].context.bucket, "admin");
    EXPECT_EQ(calls[0].context.protocol, S3ProtocolHTTP);
    EXPECT_EQ(calls[0].context.uri_style, S3UriStylePath);
    EXPECT_EQ(calls[0].context.access_key, "ADMINKEY");
    EXPECT_EQ(calls[0].context.secret_key, "adminsecret");
    EXPECT_EQ(calls[0].context.token, std::nullopt);
    EXPECT_EQ(calls[0].context.region, std::nullopt);
    EXPECT_EQ(calls[0].context.option, 0);
    EXPECT_FALSE(calls[0].request_context);
}

TEST_F(StartCeph, ConfiguredAdminBucketIsUsed) {
    activate(std::string(standard_config) + "ceph_rgw_admin_bucket = management\n");
    known_user();
    run();
    const auto calls = s3_calls(S3Kind::user_info);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].context.bucket, "management");
}

TEST_F(StartCeph, LookupHasNoRegionEvenWhenTheSessionHasOne) {
    activate(std::string(standard_config) + "default_region = zonegroup\n");
    known_user();
    const auto finish = run();
    EXPECT_STREQ(handle_of(finish).region, "zonegroup");
    EXPECT_EQ(s3_calls(S3Kind::user_info).at(0).context.region, std::nullopt);
}

TEST_F(StartCeph, OrderOfTheSteps) {
    activate();
    known_user();
    run();
    const std::vector<std::string> expected{"get_config_data", "S3_initialize", "zorvan_thread_create",
                                            "RG_get_user_info", "finished_session_start"};
    EXPECT_EQ(trace(), expected);
}

TEST_F(StartCeph, PolicyIsAskedForUnderTheKeyConfig) {
    activate();
    known_user();
    Operation op;
    start(op);
    ASSERT_TRUE(op.wait_finished());
    EXPECT_EQ(op.config_keys, std::vector<std::string>{"config"});
    auto* handle = op.finish().session_handle;
    op.close();
    iface->session_destroy(handle);
}

TEST_F(StartCeph, HttpsIsTheDefaultWithPeerVerification) {
    activate("host_name = h\nceph_rgw_admin_access_key_id = A\nceph_rgw_admin_secret_access_key = S\n");
    known_user();
    const auto finish = run();
    EXPECT_EQ(handle_of(finish).protocol, S3ProtocolHTTPS);
    const auto calls = s3_calls(S3Kind::initialize);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].flags, 3);
    EXPECT_EQ(calls[0].context.host, "h");
    EXPECT_EQ(calls[0].user_agent, std::nullopt);
}

TEST_F(StartCeph, HttpDoesNotAskForVerification) {
    activate();
    known_user();
    run();
    EXPECT_EQ(s3_calls(S3Kind::initialize).at(0).flags, 1);
}

TEST_F(StartCeph, VerificationMayBeSwitchedOff) {
    activate(std::string(standard_config) + "use_https = true\nverify_peer = false\n");
    known_user();
    run();
    EXPECT_EQ(s3_calls(S3Kind::initialize).at(0).flags, 1);
}

TEST_F(StartCeph, VirtualHostStyleIsConfigured) {
    activate(std::string(standard_config) + "use_virtual_host = true\n");
    known_user();
    EXPECT_EQ(handle_of(run()).uri_style, S3UriStyleVirtualHost);
    EXPECT_EQ(s3_calls(S3Kind::user_info).at(0).context.uri_style, S3UriStyleVirtualHost);
}

TEST_F(StartCeph, InitialisedAtEverySessionStart) {
    activate();
    known_user();
    run();
    run();
    EXPECT_EQ(s3_calls(S3Kind::initialize).size(), 2u);
}

TEST_F(StartCeph, NoPolicyAndNoHostIsRefused) {
    activate("ceph_rgw_admin_access_key_id = A\nceph_rgw_admin_secret_access_key = S\n");
    const auto finish = run();
    expect_generic(finish.error, "start_ceph", "Invalid configuration, ceph hostname not set.");
    EXPECT_EQ(finish.session_handle, nullptr);
    EXPECT_EQ(threads_asked_for(), 0);
    EXPECT_TRUE(s3_calls().empty());
}

TEST_F(StartCeph, MissingAdministratorKeyIsAConfigurationError) {
    activate("host_name = h\nceph_rgw_admin_secret_access_key = S\n");
    const auto finish = run();
    EXPECT_NE(finish.result, ZORVAN_SUCCESS);
    EXPECT_TRUE(finish.error.present);
    EXPECT_EQ(finish.error.type, 6);
    EXPECT_TRUE(s3_calls(S3Kind::user_info).empty());
}

TEST_F(StartCeph, MissingAdministratorSecretIsAConfigurationError) {
    activate("host_name = h\nceph_rgw_admin_access_key_id = S\n");
    const auto finish = run();
    EXPECT_NE(finish.result, ZORVAN_SUCCESS);
    EXPECT_TRUE(finish.error.present);
    EXPECT_EQ(finish.error.type, 6);
    EXPECT_TRUE(s3_calls(S3Kind::user_info).empty());
}

// ------------------------------------------------------------------------------------------ with a policy

TEST_F(StartCeph, PolicyWithHttpsAndPort) {
    activate();
    known_user();
    const auto finish = run(policy_for("https://store.example:4443/"));
    ASSERT_EQ(finish.result, ZORVAN_SUCCESS);
    EXPECT_EQ(handle_of(finish).protocol, S3ProtocolHTTPS);
    EXPECT_STREQ(handle_of(finish).host_name, "store.example:4443");
    EXPECT_EQ(s3_calls(S3Kind::initialize).at(0).flags, 3);
    const auto call = s3_calls(S3Kind::user_info).at(0);
    EXPECT_EQ(call.context.access_key, "POLICYKEY");
    EXPECT_EQ(call.context.secret_key, "policysecret");
    EXPECT_EQ(call.context.host, "store.example:4443");
}

TEST_F(StartCeph, PolicyWithHttp) {
    activate("");
    known_user();
    const auto finish = run(policy_for("http://store.example"));
    ASSERT_EQ(finish.result, ZORVAN_SUCCESS);
    EXPECT_EQ(handle_of(finish).protocol, S3ProtocolHTTP);
    EXPECT_STREQ(handle_of(finish).host_name, "store.example");
}

TEST_F(StartCeph, PolicyTakesTheAddressingStyleFromTheConfiguration) {
    activate("use_virtual_host = yes\n");
    known_user();
    EXPECT_EQ(handle_of(run(policy_for("http://store.example"))).uri_style, S3UriStyleVirtualHost);
}

TEST_F(StartCeph, PolicyBucketsBecomeTheAllowedList) {
    activate();
    known_user();
    const auto finish = run(policy_for("http://s", R"(,"s3_buckets":["x","y"])"));
    char** allowed = handle_of(finish).allowed_buckets;
    ASSERT_NE(allowed, nullptr);
    EXPECT_STREQ(allowed[0], "x");
    EXPECT_STREQ(allowed[1], "y");
    EXPECT_EQ(allowed[2], nullptr);
}

TEST_F(StartCeph, EndpointWithoutSchemeEndsQuietlyWithoutASession) {
    activate();
    known_user();
    const auto finish = run(policy_for("store.example"));
    EXPECT_EQ(finish.result, ZORVAN_SUCCESS);
    EXPECT_EQ(finish.session_handle, nullptr);
    EXPECT_EQ(finish.text, std::nullopt);
    EXPECT_EQ(finish.directory, std::nullopt);
    EXPECT_EQ(threads_asked_for(), 0);
    EXPECT_TRUE(s3_calls().empty());
}

TEST_F(StartCeph, EndpointSchemeIsComparedAsItStands) {
    activate();
    const auto finish = run(policy_for("HTTP://store.example", R"(,"s3_buckets":["x"])"));
    EXPECT_EQ(finish.result, ZORVAN_SUCCESS);
    EXPECT_EQ(finish.session_handle, nullptr);
}

TEST_F(StartCeph, MalformedPolicyIsReported) {
    activate();
    const auto finish = run("{");
    EXPECT_EQ(finish.error.source_file, "config_parse");
    ASSERT_TRUE(finish.error.text);
    EXPECT_TRUE(finish.error.text->starts_with("Error loading collection storage policy: "));
    EXPECT_EQ(finish.session_handle, nullptr);
    EXPECT_TRUE(s3_calls().empty());
}

TEST_F(StartCeph, PolicyWithoutSecretIsReported) {
    activate();
    const auto finish = run(R"({"s3_endpoint":"http://a","ceph_admin_key_id":"K"})");
    ASSERT_TRUE(finish.error.text);
    EXPECT_TRUE(finish.error.text->starts_with("Error unpacking collection storage policy: "));
}

// -------------------------------------------------------------------------------------------- the region

TEST_F(StartCeph, AwsHostDecidesTheRegion) {
    activate(std::string(standard_config) + "default_region = elsewhere\n");
    known_user();
    EXPECT_STREQ(handle_of(run(policy_for("https://s3.eu-west-1.amazonaws.com"))).region, "eu-west-1");
    EXPECT_STREQ(handle_of(run(policy_for("https://s3.amazonaws.com"))).region, "us-east-1");
    EXPECT_STREQ(handle_of(run(policy_for("https://s3.dualstack.ap-east-1.amazonaws.com"))).region,
                 "ap-east-1");
    EXPECT_STREQ(handle_of(run(policy_for("https://s3-fips.dualstack.us-gov-west-1.amazonaws.com"))).region,
                 "us-gov-west-1");
    EXPECT_STREQ(handle_of(run(policy_for("https://s3.cn-north-1.amazonaws.com.cn"))).region, "cn-north-1");
}

TEST_F(StartCeph, OtherHostsTakeTheConfiguredRegion) {
    activate(std::string(standard_config) + "default_region = elsewhere\n");
    known_user();
    EXPECT_STREQ(handle_of(run()).region, "elsewhere");
}

TEST_F(StartCeph, HostAndRegionAreLogged) {
    activate(std::string(standard_config) + "default_region = elsewhere\n");
    known_user();
    set_thread_mode(ThreadMode::at_once);
    run();
    EXPECT_TRUE(logged("DEBUG", "zorvan_i_s3_base_initialize",
                       "initializing to use host: rgw.example.org:8080 and region: elsewhere"))
        << log_text();
    EXPECT_TRUE(logged("TRACE", "zorvan_i_host_to_region", "enter"));
}

TEST_F(StartCeph, HostWithoutRegionIsLogged) {
    activate();
    known_user();
    set_thread_mode(ThreadMode::at_once);
    run();
    EXPECT_TRUE(
        logged("DEBUG", "zorvan_i_s3_base_initialize", "initializing to use host: rgw.example.org:8080"));
}

// ------------------------------------------------------------------------------------------- failures

TEST_F(StartCeph, FailingInitialisationIsMapped) {
    activate();
    known_user();
    s3_fail(S3Kind::initialize, 1, S3StatusInternalError);
    set_thread_mode(ThreadMode::at_once);
    const auto finish = run();
    expect_s3(finish.error, s3_text("initialization", S3StatusInternalError));
    EXPECT_EQ(finish.session_handle, nullptr);
    EXPECT_EQ(threads_asked_for(), 0);
    EXPECT_TRUE(log_says("S3_initialize returns: 1s3: ")) << "no line end follows: " << log_text();
    bool at_error = false;
    for (const auto& line : log_lines())
        at_error =
            at_error || (line.level == "ERROR" && line.message.starts_with("S3_initialize returns: 1"));
    EXPECT_TRUE(at_error);
}

TEST_F(StartCeph, FailingInitialisationMayCarryAnFtpCode) {
    activate();
    s3_fail(S3Kind::initialize, 1, S3StatusErrorSlowDown);
    const auto finish = run();
    expect_ftp(finish.error, 451, "TOO_BUSY", std::nullopt);
    expect_s3(*finish.error.cause, s3_text("initialization", S3StatusErrorSlowDown));
}

TEST_F(StartCeph, FailingThreadIsReported) {
    activate();
    known_user();
    fail_next_thread(EAGAIN);
    const auto finish = run();
    expect_system(finish.error, "zorvan_thread_create", EAGAIN);
    EXPECT_EQ(finish.session_handle, nullptr);
    EXPECT_TRUE(s3_calls(S3Kind::user_info).empty());
    EXPECT_LT(log_text().find("zorvan_i_s3_destroy: exit\n"), log_text().find("zorvan_i_ceph_start: result="))
        << "everything is released when the failure is told";
}

TEST_F(StartCeph, FailingThreadWithAPolicyIsReported) {
    activate();
    fail_next_thread(EAGAIN);
    const auto finish = run(policy_for("http://s", R"(,"s3_buckets":["x","y"])"));
    expect_system(finish.error, "zorvan_thread_create", EAGAIN);
    EXPECT_EQ(finish.session_handle, nullptr);
}

TEST_F(StartCeph, FirstAllocationThatFailsIsTheMallocError) {
    activate();
    known_user();
    fail_allocation(1);
    const auto finish = run();
    fail_allocation(0);
    expect_system(finish.error, "malloc", ENOMEM);
    EXPECT_EQ(finish.session_handle, nullptr);
    EXPECT_TRUE(s3_calls().empty());
}

TEST_F(StartCeph, SecondAllocationThatFailsIsTheMallocError) {
    activate();
    known_user();
    fail_allocation(2);
    const auto finish = run();
    fail_allocation(0);
    expect_system(finish.error, "malloc", ENOMEM);
    EXPECT_EQ(finish.session_handle, nullptr);
}

TEST_F(StartCeph, KeyThatCannotBeCopiedAbortsTheLookup) {
    activate();
    Reply reply;
    reply.keys = std::vector<UserKey>{{"alice", "A1", "S1"}};
    reply.before = [] { fail_allocation(1); };
    reply.after = [] { fail_allocation(0); };
    s3_script(S3Kind::user_info, reply);
    expect_no_key(run());
    EXPECT_EQ(s3_calls(S3Kind::user_info).at(0).status, S3StatusOutOfMemory);
    EXPECT_TRUE(log_says("exit status=2: OutOfMemory\n"));
    EXPECT_TRUE(log_holds("S3 Error accessing \"admin/user\": OutOfMemory")) << "the completion has the word";
}

TEST_F(StartCeph, SecretThatCannotBeCopiedAbortsTheLookup) {
    activate();
    Reply reply;
    reply.keys = std::vector<UserKey>{{"alice", "A1", "S1"}};
    reply.before = [] { fail_allocation(2); };
    reply.after = [] { fail_allocation(0); };
    s3_script(S3Kind::user_info, reply);
    expect_no_key(run());
    EXPECT_EQ(s3_calls(S3Kind::user_info).at(0).status, S3StatusOutOfMemory);
}

TEST_F(StartCeph, UnknownUserLeadsToTheNoAccessKeyError) {
    activate();
    const auto finish = run(std::nullopt, "bob");
    expect_no_key(finish, "bob");
    EXPECT_NE(finish.session_handle, nullptr) << "the session is handed over with the failure";
    EXPECT_EQ(finish.text, "bob");
    EXPECT_EQ(finish.directory, "/");
}

TEST_F(StartCeph, FailedLookupIsReplacedByTheNoAccessKeyError) {
    activate();
    s3_fail(S3Kind::user_info, 1, S3StatusErrorAccessDenied);
    set_thread_mode(ThreadMode::at_once);
    Operation op;
    start(op);
    ASSERT_TRUE(op.wait_finished());
    expect_no_key(op.finish());
    EXPECT_TRUE(
        logged("DEBUG", "RG_get_user_info: op=" + pointer_text(&op) + " status=ErrorAccessDenied[49]"));
    EXPECT_TRUE(logged("INFO", "S3 request error: op=" + pointer_text(&op)));
    const auto lines = log_lines();
    EXPECT_TRUE(std::ranges::any_of(lines, [](const LogLine& line) {
        return line.level == "INFO" && line.function == "zorvan_l_ceph_start_thread" &&
               line.message.starts_with("result=") &&
               line.message.find("S3 Error accessing \"admin/user\": ErrorAccessDenied") != std::string::npos;
    })) << "what is replaced is told first";
    EXPECT_LT(log_text().find("zorvan_i_S3Error_to_error: exit\n"),
              log_text().find("zorvan_l_ceph_start_complete: exit status=49"));
    EXPECT_TRUE(
        logged("INFO", "zorvan_l_ceph_start_thread",
               "result=" + result_text(op.finish().result) + " message=" + op.finish().error.friendly));
    EXPECT_EQ(s3_calls(S3Kind::user_info).size(), 1u);
    iface->session_destroy(op.finish().session_handle);
    op.close();
}

TEST_F(StartCeph, FailureAfterTheKeysCameStands) {
    activate();
    Reply reply;
    reply.status = S3StatusErrorAccessDenied;
    reply.keys = std::vector<UserKey>{{"alice", "A1", "S1"}};
    s3_script(S3Kind::user_info, reply);
    const auto finish = run();
    expect_ftp(finish.error, 550, "PERMISSION_DENIED", std::nullopt);
    expect_s3(*finish.error.cause, s3_text("admin/user", S3StatusErrorAccessDenied));
    ASSERT_NE(finish.session_handle, nullptr);
    EXPECT_EQ(handle_of(finish).default_key_pair.access_key_id, handle_of(finish).access_key_id);
    EXPECT_EQ(handle_of(finish).default_key_pair.secret_access_key, handle_of(finish).secret_access_key);
    EXPECT_STREQ(handle_of(finish).access_key_id, "A1");
}

TEST_F(StartCeph, PolicyThatTheHostCannotTellIsNotTheAbsenceOfOne) {
    activate();
    known_user();
    host_refuse_config_data();
    const auto finish = run();
    EXPECT_TRUE(finish.error.present);
    EXPECT_EQ(finish.session_handle, nullptr);
    EXPECT_TRUE(s3_calls().empty());
}

TEST_F(StartCeph, EarlyEndIsLogged) {
    activate("");
    Operation op;
    start(op);
    ASSERT_TRUE(op.wait_finished());
    const auto result = result_text(op.finish().result);
    EXPECT_TRUE(logged("INFO", "zorvan_i_ceph_start",
                       "finished_session_start: op=" + pointer_text(&op) + " result=" + result))
        << log_text();
    EXPECT_TRUE(logged("ERROR", "zorvan_i_ceph_start",
                       "result=" + result + " message=" + op.finish().error.friendly));
    op.close();
}

TEST_F(StartCeph, UserWithoutKeysHasNoAccessKey) {
    activate();
    s3_user("alice", {});
    expect_no_key(run());
}

TEST_F(StartCeph, FirstKeyWithAnEmptySecretIsPassedOver) {
    activate();
    s3_user("alice", {{"alice", "A1", ""}, {"alice", "A2", "S2"}, {"alice", "A3", "S3"}});
    const auto finish = run();
    ASSERT_EQ(finish.result, ZORVAN_SUCCESS);
    EXPECT_STREQ(handle_of(finish).access_key_id, "A2");
    EXPECT_STREQ(handle_of(finish).secret_access_key, "S2");
}

TEST_F(StartCeph, KeyWithAnEmptyIdIsPassedOver) {
    activate();
    s3_user("alice", {{"alice", "", "S1"}, {"alice", "A2", "S2"}});
    EXPECT_STREQ(handle_of(run()).access_key_id, "A2");
}

TEST_F(StartCeph, KeysOfSubusersArePassedOver) {
    activate();
    s3_user("alice", {{"alice:sub", "A1", "S1"}, {"alice", "A2", "S2"}});
    EXPECT_STREQ(handle_of(run()).access_key_id, "A2");
}

TEST_F(StartCeph, KeysOfOthersAloneAreNoKeys) {
    activate();
    s3_user("alice", {{"Alice", "A1", "S1"}, {"alice:sub", "A2", "S2"}});
    expect_no_key(run());
}

TEST_F(StartCeph, ShortestFieldsAreTaken) {
    activate();
    s3_user("u", {{"u", "a", "s"}});
    const auto finish = run(std::nullopt, "u");
    ASSERT_EQ(finish.result, ZORVAN_SUCCESS);
    EXPECT_STREQ(handle_of(finish).access_key_id, "a");
    EXPECT_STREQ(handle_of(finish).secret_access_key, "s");
}

TEST_F(StartCeph, LongestFieldsAreTaken) {
    activate();
    const std::string name(47, 'u');
    const std::string access(255, 'a');
    const std::string secret(47, 's');
    s3_user(name, {{name, access, secret}});
    const auto finish = run(std::nullopt, name);
    ASSERT_EQ(finish.result, ZORVAN_SUCCESS);
    EXPECT_EQ(access, handle_of(finish).access_key_id);
    EXPECT_EQ(secret, handle_of(finish).secret_access_key);
}

TEST_F(StartCeph, FieldsThatDoNotEndArePassedOver) {
    activate();
    const std::string access(256, 'a');
    const std::string secret(48, 's');
    s3_user("alice", {{"alice", access, "S1"}, {"alice", "A2", secret}, {"alice", "A3", "S3"}});
    const auto finish = run();
    ASSERT_EQ(finish.result, ZORVAN_SUCCESS);
    EXPECT_STREQ(handle_of(finish).access_key_id, "A3");
    EXPECT_STREQ(handle_of(finish).secret_access_key, "S3");
}

TEST_F(StartCeph, NameThatFillsItsFieldHasNoKey) {
    activate();
    const std::string name(48, 'u');
    s3_user(name, {{name, "", ""}, {name, "A1", "S1"}});
    expect_no_key(run(std::nullopt, name), name);
    // Read beyond its field it would go on with the access key.
    const std::string longer = name + "A1";
    s3_user(longer, {{name, "A1", "S1"}});
    expect_no_key(run(std::nullopt, longer), longer);
}

TEST_F(StartCeph, SessionWithoutAUserNameHasNoKey) {
    activate();
    const zorvan_gridftp_server_session_info_t nobody{nullptr, "192.0.2.7", "", nullptr};
    Operation op;
    set_thread_mode(ThreadMode::at_once);
    iface->session_start(&op, &nobody);
    ASSERT_TRUE(op.wait_finished());
    expect_no_key(op.finish(), "");
    EXPECT_TRUE(logged("DEBUG", "zorvan_l_ceph_start_thread", "Looking up key for "));
    iface->session_destroy(op.finish().session_handle);
    op.close();
}

TEST_F(StartCeph, RetryableLookupIsTriedAgain) {
    activate();
    known_user();
    s3_fail(S3Kind::user_info, 1, S3StatusErrorSlowDown);
    set_thread_mode(ThreadMode::at_once);
    const auto finish = run();
    EXPECT_EQ(finish.result, ZORVAN_SUCCESS);
    EXPECT_EQ(s3_calls(S3Kind::user_info).size(), 2u);
    EXPECT_EQ(sleeps(), std::vector<int64_t>{100000});
    EXPECT_TRUE(logged("INFO", "REST: RG_get_user_info(user=alice) try=0"));
    EXPECT_TRUE(logged("INFO", "REST: RG_get_user_info(user=alice) try=1"));
}

TEST_F(StartCeph, LookupIsLogged) {
    activate();
    known_user();
    set_thread_mode(ThreadMode::at_once);
    Operation op;
    start(op);
    ASSERT_TRUE(op.wait_finished());
    EXPECT_TRUE(logged("DEBUG", "zorvan_l_ceph_start_thread", "Looking up key for alice"));
    EXPECT_TRUE(logged("INFO", "REST: RG_get_user_info(user=alice) try=0"));
    EXPECT_TRUE(logged("TRACE", "zorvan_l_ceph_get_user_info", "exit status=0: OK"));
    EXPECT_TRUE(logged("INFO", "zorvan_l_ceph_start_thread", "result=ZORVAN_SUCCESS"));
    EXPECT_TRUE(logged("INFO", "finished_session_start: op=" + pointer_text(&op) + " result=0"));
    auto* handle = op.finish().session_handle;
    op.close();
    iface->session_destroy(handle);
}

TEST_F(StartCeph, EntryTouchesNothingAfterItsThreadWasMade) {
    // The thread runs to its end, and session and records are gone, before the creation call returns.
    activate();
    known_user();
    Operation op;
    set_thread_mode(ThreadMode::at_once);
    set_after_at_once([&] {
        iface->session_destroy(op.finish().session_handle);
        release_records();
        trace_reset();
    });
    start(op);
    EXPECT_TRUE(trace().empty());
    op.close();
}

TEST_F(StartCeph, WorkerTouchesNothingAfterItsFinishedCall) {
    activate();
    known_user();
    for (const auto* user : {"alice", "nobody"}) {
        Operation op;
        op.on_finished = [&] {
            // As the host does that closes the session at once.
            iface->session_destroy(op.finishes.front().session_handle);
            release_records();
            trace_reset();
        };
        start(op, user);
        ASSERT_TRUE(op.wait_finished());
        ASSERT_EQ(zorvan_thread_wait_all(20000), 1);
        EXPECT_TRUE(trace().empty());
        op.close();
    }
}

}  // namespace
