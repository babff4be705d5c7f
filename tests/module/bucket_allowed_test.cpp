// Which buckets a session may use and which credentials it uses for a key.
#include <cstdlib>
#include <cstring>

#include "module_fixture.h"

using namespace module_test;

namespace {

char* text(const char* value) {
    return const_cast<char*>(value);
}

class BucketAllowed : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        activate();
    }
    char* only_data[2] = {text("data"), nullptr};
    char* three[4] = {text("a"), text("data"), text("z"), nullptr};
};

TEST_F(BucketAllowed, NoListAllowsAll) {
    zorvan_result_t result = 99;
    EXPECT_TRUE(zorvan_i_s3_bucket_allowed("anything", nullptr, &result));
    EXPECT_EQ(result, ZORVAN_SUCCESS);
}

TEST_F(BucketAllowed, ListedBucketIsAllowed) {
    zorvan_result_t result = 99;
    EXPECT_TRUE(zorvan_i_s3_bucket_allowed("data", three, &result));
    EXPECT_EQ(result, ZORVAN_SUCCESS);
    EXPECT_TRUE(zorvan_i_s3_bucket_allowed("z", three, &result));
}

TEST_F(BucketAllowed, CaseCounts) {
    zorvan_result_t result = 0;
    EXPECT_FALSE(zorvan_i_s3_bucket_allowed("Data", only_data, &result));
    const auto view = view_result(result);
    expect_ftp(view, 550, "PERMISSION_DENIED", std::nullopt);
    ASSERT_NE(view.cause, nullptr);
    EXPECT_EQ(view.cause->type, 6);
    EXPECT_EQ(view.cause->text, "Zorvan-S3-Error: Bucket not allowed.");
    EXPECT_EQ(view.cause->source_file, "bucket_allowed");
    release_result(result);
}

TEST_F(BucketAllowed, PrefixesAreOtherBuckets) {
    EXPECT_FALSE(zorvan_i_s3_bucket_allowed("dat", only_data, nullptr));
    EXPECT_FALSE(zorvan_i_s3_bucket_allowed("data2", only_data, nullptr));
    EXPECT_FALSE(zorvan_i_s3_bucket_allowed("", only_data, nullptr));
}

TEST_F(BucketAllowed, WithoutAResultNothingIsLeftBehind) {
    const auto before = zorvan_error_table_count();
    EXPECT_FALSE(zorvan_i_s3_bucket_allowed("other", only_data, nullptr));
    EXPECT_EQ(zorvan_error_table_count(), before);
}

TEST_F(BucketAllowed, AnswerIsTraced) {
    EXPECT_TRUE(zorvan_i_s3_bucket_allowed("data", only_data, nullptr));
    EXPECT_TRUE(logged("TRACE", "zorvan_i_s3_bucket_allowed", "exit: 1"));
    EXPECT_FALSE(logged("TRACE", "zorvan_i_s3_bucket_allowed", "exit: 0"));
    EXPECT_FALSE(zorvan_i_s3_bucket_allowed("other", only_data, nullptr));
    EXPECT_TRUE(logged("TRACE", "zorvan_i_s3_bucket_allowed", "exit: 0"));
}

TEST_F(BucketAllowed, EmptyListForbidsAll) {
    char* none[1] = {nullptr};
    EXPECT_FALSE(zorvan_i_s3_bucket_allowed("data", none, nullptr));
}

TEST_F(BucketAllowed, RefusalEndsAStatAtOnce) {
    login("alice", R"({"s3_endpoint":"http://h","ceph_admin_key_id":"K","ceph_admin_secret_key":"S",
                       "s3_buckets":["data"]})");
    const auto threads = threads_asked_for();
    Operation op;
    call_stat(op, "/Data/x", true);
    ASSERT_FALSE(op.finishes.empty()) << "the refusal is reported from inside the entry";
    EXPECT_EQ(op.finish().kind, Ending::stat);
    expect_ftp(op.finish().error, 550, "PERMISSION_DENIED", std::nullopt);
    EXPECT_EQ(op.last_batch, 0);
    EXPECT_EQ(threads_asked_for(), threads);
    op.close();
}

// ------------------------------------------------------------------------------------------- key pairs

class KeyPairs : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        activate();
        login();
    }
    void add(const char* id, const char* prefix, int32_t length, const char* bucket, bool specific) {
        auto* pair = static_cast<zorvan_i_s3_key_pair_t*>(std::calloc(1, sizeof(zorvan_i_s3_key_pair_t)));
        pair->access_key_id = strdup(id);
        pair->secret_access_key = strdup((std::string(id) + "-secret").c_str());
        pair->prefix = strdup(prefix);
        pair->bucket = strdup(bucket);
        pair->prefix_length = length;
        pair->bucket_specific = specific;
        ASSERT_EQ(zorvan_list_append(&session->key_pairs, pair), 0);
    }
    std::string chosen(const char* bucket, const char* key) {
        const zorvan_i_s3_credentials_t* pair = nullptr;
        EXPECT_EQ(zorvan_i_s3_get_key_pair(session, bucket, key, &pair), 0);
        EXPECT_NE(pair, nullptr);
        return pair == nullptr ? "" : pair->access_key_id;
    }
};

TEST_F(KeyPairs, WithoutRecordsTheDefaultIsChosen) {
    EXPECT_EQ(chosen("b", "k"), "AK-alice");
    EXPECT_TRUE(logged("DEBUG", "zorvan_i_s3_get_key_pair", "Using the default IAM key pair AK-alice"))
        << log_text();
}

TEST_F(KeyPairs, PrefixOfThreeMatchesDirAndDirectory) {
    add("PAIR", "dir", 3, "", false);
    EXPECT_EQ(chosen("b", "dir"), "PAIR");
    EXPECT_EQ(chosen("b", "directory"), "PAIR");
    EXPECT_EQ(chosen("b", "dir/x"), "PAIR");
    EXPECT_EQ(chosen("b", "di"), "AK-alice");
    EXPECT_EQ(chosen("b", "other"), "AK-alice");
}

TEST_F(KeyPairs, PrefixWithSlashMatchesTheDirectoryItselfAlone) {
    add("PAIR", "dir/", 4, "", false);
    EXPECT_EQ(chosen("b", "dir"), "PAIR");
    EXPECT_EQ(chosen("b", "dir/x"), "PAIR");
    EXPECT_EQ(chosen("b", "directory"), "AK-alice");
}

TEST_F(KeyPairs, LengthBeyondThePrefixComparesItsEndToo) {
    add("PAIR", "dir/", 9, "", false);
    EXPECT_EQ(chosen("b", "dir"), "PAIR");
    EXPECT_EQ(chosen("b", "dir/x"), "AK-alice");
    EXPECT_EQ(chosen("b", "di"), "AK-alice");
}

TEST_F(KeyPairs, LengthZeroMatchesEveryKey) {
    add("PAIR", "anything", 0, "", false);
    EXPECT_EQ(chosen("b", "x"), "PAIR");
    EXPECT_EQ(chosen("b", ""), "PAIR");
}

TEST_F(KeyPairs, BucketSpecificPairServesItsBucketAlone) {
    add("PAIR", "", 0, "mine", true);
    EXPECT_EQ(chosen("mine", "x"), "PAIR");
    EXPECT_EQ(chosen("Mine", "x"), "AK-alice");
    EXPECT_EQ(chosen("other", "x"), "AK-alice");
}

TEST_F(KeyPairs, PairThatIsNotSpecificServesEveryBucket) {
    add("PAIR", "", 0, "mine", false);
    EXPECT_EQ(chosen("other", "x"), "PAIR");
}

TEST_F(KeyPairs, FirstMatchWins) {
    add("ONE", "a/", 2, "", false);
    add("TWO", "a/b/", 4, "", false);
    add("THREE", "b/", 2, "", false);
    EXPECT_EQ(chosen("x", "a/b/c"), "ONE");
    EXPECT_EQ(chosen("x", "b/c"), "THREE");
}

TEST_F(KeyPairs, NullKeyIsNoCrash) {
    add("PAIR", "x", 1, "", false);
    EXPECT_EQ(chosen("b", nullptr), "AK-alice");
}

TEST_F(KeyPairs, ChecksAreLogged) {
    add("PAIR", "dir", 3, "mine", true);
    chosen("mine", "dir/x");
    EXPECT_TRUE(logged("DEBUG", "Checking keypair mine dir 1 for bucket mine : dir/x")) << log_text();
    EXPECT_TRUE(logged("DEBUG", "Using the IAM key pair |PAIR| with prefix match dir"));
    chosen("other", "dir/x");
    EXPECT_TRUE(logged("DEBUG", "Checking keypair mine dir 1 for bucket other : dir/x"));
    EXPECT_TRUE(logged("DEBUG", "Using the default IAM key pair AK-alice"));
}

TEST_F(KeyPairs, ChosenPairSignsTheRequest) {
    add("PAIR", "dir/", 4, "mine", true);
    Operation op;
    call_stat(op, "/mine/dir/x", true);
    ASSERT_TRUE(op.wait_finished());
    op.close();
    const auto calls = s3_calls(S3Kind::head_object);
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls[0].context.access_key, "AK-alice")
        << "the entry looks the whole path up, which begins with a slash";
}

}  // namespace
