// Which credentials each entry signs its requests with, and when a session's are renewed.
#include <cstdlib>
#include <cstring>

#include "command_fixture.h"

using namespace module_test;

namespace {

class Credentials : public CommandTest {
  protected:
    /// Downloads and stats log on several threads at once, and then no line can be relied on.
    static void switch_log_off() { zorvan_i_ZORVAN_S3_debug_handle.levels = 0; }
    /// A pair for the keys under a prefix; for one bucket unless its name is empty.
    void add_pair(const char* id, const char* prefix, const char* bucket) {
        auto* pair = static_cast<zorvan_i_s3_key_pair_t*>(std::calloc(1, sizeof(zorvan_i_s3_key_pair_t)));
        pair->access_key_id = strdup(id);
        pair->secret_access_key = strdup((std::string(id) + "-secret").c_str());
        pair->prefix = strdup(prefix);
        pair->bucket = strdup(bucket);
        pair->prefix_length = static_cast<int32_t>(std::strlen(prefix));
        pair->bucket_specific = *bucket != '\0';
        ASSERT_EQ(zorvan_list_append(&session->key_pairs, pair), 0);
    }
    /// Run an entry to its end. @return the keys of the requests that it made, each once
    template <typename Call>
    static std::vector<std::string> keys_of(const Call& call) {
        const auto before = s3_calls().size();
        call();
        std::vector<std::string> keys;
        const auto calls = s3_calls();
        for (size_t i = before; i < calls.size(); ++i) {
            const auto key =
                calls[i].context.access_key.value_or("") + " " + calls[i].context.secret_key.value_or("");
            if (keys.empty() || keys.back() != key) keys.push_back(key);
        }
        return keys;
    }
    std::vector<std::string> command_keys(int code, const std::string& path, const Text& from = {}) {
        return keys_of([&] { command(code, path, from, "md5"); });
    }
    template <typename Call>
    static std::vector<std::string> operation_keys(const Call& call) {
        switch_log_off();
        return keys_of([&] {
            Operation op;
            call(op);
            EXPECT_TRUE(op.wait_finished());
            op.close();
            EXPECT_EQ(zorvan_thread_wait_all(20000), 1);
        });
    }
    const std::vector<std::string> pair_keys{"PAIR PAIR-secret"};
    const std::vector<std::string> session_keys{"AK-alice secret-alice"};
};

TEST_F(Credentials, CommandsLookForTheWholePath) {
    add_pair("PAIR", "/b/dir", "b");
    for (const int code : {mkd, rmd, dele, cksm, module_test::stage}) {
        SCOPED_TRACE(code);
        s3_object("b", "dir/x", "1").properties.etag = "\"no-md5-2\"";
        EXPECT_EQ(command_keys(code, "/b/dir/x"), pair_keys);
        EXPECT_EQ(command_keys(code, "/b/other"), session_keys);
        EXPECT_EQ(command_keys(code, "b/dir/x"), session_keys) << "the path as it was given";
    }
    EXPECT_EQ(command_keys(rmd, "/b"), session_keys);
}

TEST_F(Credentials, BucketIsMadeWithTheKeysOfItsPath) {
    add_pair("PAIR", "/nb", "nb");
    EXPECT_EQ(command_keys(mkd, "/nb"), pair_keys);
    EXPECT_EQ(command_keys(mkd, "nb"), session_keys);
    EXPECT_EQ(command_keys(mkd, "/other"), session_keys);
}

TEST_F(Credentials, RenameIsSignedForItsSource) {
    add_pair("TO", "", "c");
    add_pair("PAIR", "/b/dir/", "b");
    s3_object("b", "dir/a", "1");
    EXPECT_EQ(command_keys(rnto, "/c/z", "/b/dir/a"), pair_keys) << "the copy and the delete";
    EXPECT_EQ(s3_calls(S3Kind::delete_object).size(), 1u);
    EXPECT_EQ(command_keys(rnto, "/b/dir/z", "/b/a"), session_keys);
}

TEST_F(Credentials, StatLooksForTheWholePath) {
    add_pair("PAIR", "/b/dir", "b");
    s3_object("b", "dir/x", "1");
    for (const bool file_only : {true, false}) {
        const auto stat_keys = [&](const char* path) {
            return operation_keys([&](Operation& op) { call_stat(op, path, file_only); });
        };
        EXPECT_EQ(stat_keys("/b/dir"), pair_keys);
        EXPECT_EQ(stat_keys("/b/dir/x"), pair_keys);
        EXPECT_EQ(stat_keys("/b"), session_keys);
        EXPECT_EQ(stat_keys("b/dir"), session_keys);
    }
}

TEST_F(Credentials, RootIsListedWithTheKeysOfNoBucket) {
    const auto root_keys = [&](const char* path) {
        return operation_keys([&](Operation& op) { call_stat(op, path, false); });
    };
    add_pair("ONE", "", "b");
    EXPECT_EQ(root_keys("/"), session_keys);
    // What is compared is the path with a slash behind it.
    add_pair("PAIR", "//", "");
    EXPECT_EQ(root_keys("/"), pair_keys);
}

TEST_F(Credentials, DownloadLooksForTheKey) {
    const auto send_keys = [&](const char* path) {
        return operation_keys([&](Operation& op) { call_send(op, path); });
    };
    s3_object("b", "dir/x", "1");
    add_pair("PATH", "/b/dir", "b");
    EXPECT_EQ(send_keys("/b/dir/x"), session_keys);
    add_pair("PAIR", "dir", "b");
    EXPECT_EQ(send_keys("/b/dir/x"), pair_keys);
}

// ------------------------------------------------------------------------------------------ renewal

int renewals = 0;
zorvan_result_t refuse_renewal(zorvan_i_s3_handle_t*) {
    ++renewals;
    return zorvan_error_put(
        zorvan_error_construct_error(nullptr, nullptr, 6, "f", "g", 1, "%s", "credentials are stale"));
}

TEST_F(Credentials, CommandsWithStaleCredentialsEndAtOnce) {
    session->refresh_credentials = refuse_renewal;
    const auto threads = threads_asked_for();
    const auto requests = s3_calls().size();
    for (const int code : {mkd, rmd, dele, rnto, cksm, module_test::stage}) {
        SCOPED_TRACE(code);
        renewals = 0;
        const auto op = command(code, "/b/k", code == rnto ? Text("/b/a") : std::nullopt, "md5");
        EXPECT_EQ(renewals, 1);
        EXPECT_EQ(op->finish().error.text, "credentials are stale");
        EXPECT_EQ(op->finish().text, std::nullopt);
        const bool with_path = code == mkd || code == dele || code == module_test::stage;
        expect_end_line(*op, with_path ? Text("/b/k") : std::nullopt);
    }
    EXPECT_EQ(command(rmd, "/b")->finish().error.text, "credentials are stale")
        << "a bucket to be removed has a context like any other";
    EXPECT_EQ(threads_asked_for(), threads);
    EXPECT_EQ(s3_calls().size(), requests);
    session->refresh_credentials = nullptr;
}

zorvan_gridftp_server_operation_t current_at_renewal = nullptr;

TEST_F(Credentials, OperationIsTheSessionsCurrentOneWhenTheyAreRenewed) {
    switch_log_off();
    session->refresh_credentials = [](zorvan_i_s3_handle_t* s3_handle) {
        current_at_renewal = s3_handle->current_op;
        return refuse_renewal(s3_handle);
    };
    for (const int code : {mkd, rmd, dele, rnto, cksm, module_test::stage}) {
        SCOPED_TRACE(code);
        session->current_op = nullptr;
        const auto op = command(code, "/b/k", code == rnto ? Text("/b/a") : std::nullopt, "md5");
        EXPECT_EQ(current_at_renewal, op.get());
    }
    const auto expect_current = [&](const auto& call) {
        Operation op;
        session->current_op = nullptr;
        call(op);
        EXPECT_EQ(current_at_renewal, &op);
        op.close();
    };
    expect_current([&](Operation& op) { call_stat(op, "/b/k", true); });
    expect_current([&](Operation& op) { call_send(op, "/b/k"); });
    expect_current([&](Operation& op) { call_recv(op, "/b/k", 1); });
    session->refresh_credentials = nullptr;
}

TEST_F(Credentials, BucketToBeMadeHasNoContextYet) {
    session->refresh_credentials = refuse_renewal;
    renewals = 0;
    expect_success(*command(mkd, "/nb"));
    EXPECT_EQ(renewals, 0);
    session->refresh_credentials = nullptr;
}

TEST_F(Credentials, RootHasNoContextOfABucket) {
    switch_log_off();
    session->refresh_credentials = refuse_renewal;
    renewals = 0;
    for (const bool file_only : {true, false}) {
        Operation op;
        call_stat(op, "/", file_only);
        EXPECT_TRUE(op.wait_finished());
        op.close();
        EXPECT_EQ(op.finish().result, ZORVAN_SUCCESS);
    }
    EXPECT_EQ(renewals, 0);
    session->refresh_credentials = nullptr;
}

TEST_F(Credentials, DownloadWithStaleCredentialsEndsAtOnce) {
    session->refresh_credentials = refuse_renewal;
    Operation op;
    call_send(op, "/b/k");
    ASSERT_FALSE(op.finishes.empty());
    EXPECT_EQ(op.finish().kind, Ending::command);
    EXPECT_EQ(op.finish().error.text, "credentials are stale");
    EXPECT_EQ(op.begin_transfers, 0);
    op.close();
    session->refresh_credentials = nullptr;
}

}  // namespace
