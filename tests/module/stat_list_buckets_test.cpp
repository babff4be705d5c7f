// The listing of the root: the buckets of a session.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "stat_fixture.h"

using namespace module_test;

namespace {

class ListBuckets : public StatTest {
  protected:
    void TearDown() override {
        if (session != nullptr) session->restricted_endpoint = false;
        StatTest::TearDown();
    }
    void allow(const std::vector<std::string>& buckets) {
        session->allowed_buckets = static_cast<char**>(std::calloc(buckets.size() + 1, sizeof(char*)));
        for (size_t i = 0; i < buckets.size(); ++i)
            session->allowed_buckets[i] = strdup(buckets[i].c_str());
    }
    void add_pair(const char* bucket, bool specific = true) {
        auto* pair = static_cast<zorvan_i_s3_key_pair_t*>(std::calloc(1, sizeof(zorvan_i_s3_key_pair_t)));
        pair->access_key_id = strdup("K");
        pair->secret_access_key = strdup("S");
        pair->prefix = strdup("only/this");
        pair->bucket = strdup(bucket);
        pair->prefix_length = 9;
        pair->bucket_specific = specific;
        ASSERT_EQ(zorvan_list_append(&session->key_pairs, pair), 0);
    }
    static Reply service(std::vector<ListedBucket> buckets) {
        Reply reply;
        reply.properties = Properties{};
        reply.buckets = std::move(buckets);
        return reply;
    }
    static Reply failing(S3Status status, const Text& message = std::nullopt) {
        Reply reply;
        reply.status = status;
        if (message) reply.details = Details{message, "resource", "further", {{"a", "b"}}};
        return reply;
    }
    void expect_notice(int status) {
        EXPECT_TRUE(logged("ERROR",
                           "Directory listing had an error. The user credetials likely could not list S3 "
                           "buckets"));
        EXPECT_EQ(host_logged(2,
                              "Directory listing had an error. The user credetials likely could not list S3 "
                              "buckets " +
                                  std::to_string(status) + "\n"),
                  1);
    }
};

TEST_F(ListBuckets, AllowedBucketsAreListedWithoutTheStore) {
    allow({"b1", "b2"});
    auto op = stat("/", false);
    EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
    ASSERT_EQ(op->entries.size(), 3u);
    expect_directory(op->entries[0], ".", hash_of("/"), hash_of("/"));
    expect_directory(op->entries[1], "b1", hash_of("b1"), hash_of("b1"));
    expect_directory(op->entries[2], "b2", hash_of("b2"), hash_of("b2"));
    EXPECT_TRUE(s3_calls(S3Kind::list_service).empty());
    EXPECT_TRUE(s3_calls(S3Kind::list_bucket).empty());
}

TEST_F(ListBuckets, SessionThatCanListNothingSeesTheRootAlone) {
    std::free(std::exchange(session->secret_access_key, nullptr));
    session->default_key_pair.secret_access_key = nullptr;
    auto op = stat("/", false);
    ASSERT_EQ(op->entries.size(), 1u);
    expect_directory(op->entries[0], ".", hash_of("/"), hash_of("/"));
    EXPECT_TRUE(s3_calls(S3Kind::list_service).empty());
}

TEST_F(ListBuckets, ServiceListingBecomesEntries) {
    s3_script(S3Kind::list_service, service({{"one", 1500000000}, {"two", -1}}));
    auto op = stat("/", false);
    EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
    ASSERT_EQ(op->entries.size(), 3u);
    expect_directory(op->entries[0], ".", 0, hash_of("/"));
    expect_directory(op->entries[1], "one", hash_of("one"), hash_of("one"), 1500000000);
    expect_directory(op->entries[2], "two", hash_of("two"), hash_of("two"), -1);
    EXPECT_TRUE(logged("DEBUG", "Adding the listing root entry"));
    EXPECT_TRUE(logged("DEBUG", "Root listing added"));
    EXPECT_FALSE(log_holds("but result is successful"));
    EXPECT_TRUE(logged("INFO", "REST: op=" + pointer_text(op.get()) + " S3_list_service() try=0"));
    EXPECT_TRUE(logged("DEBUG", "Inserting bucket |one|"));
    EXPECT_TRUE(logged("DEBUG", "Inserting bucket |two|"));
    EXPECT_TRUE(logged("DEBUG", "Add in known full buckets"));
    EXPECT_TRUE(logged("DEBUG", "Add in allowed buckets"));
    EXPECT_TRUE(host_log().empty());
}

TEST_F(ListBuckets, ManyBucketsStream) {
    std::vector<ListedBucket> buckets;
    for (int i = 0; i < 500; ++i)
        buckets.push_back({"bucket" + std::to_string(i), i});
    s3_script(S3Kind::list_service, service(buckets));
    auto op = stat("/", false);
    ASSERT_EQ(op->entries.size(), 501u);
    EXPECT_EQ(op->partial_batches, std::vector<int>(15, 32));
    EXPECT_EQ(op->entries[500].name, "bucket499");
    EXPECT_EQ(op->entries[500].ctime, 499);
}

TEST_F(ListBuckets, KnownBucketsAreAddedBehindTheListing) {
    s3_script(S3Kind::list_service, service({{"seen", 5}}));
    add_pair("known");
    auto op = stat("/", false);
    ASSERT_EQ(names(*op), (std::vector<std::string>{".", "seen", "known"}));
    expect_directory(op->entries[2], "known", hash_of("known"), hash_of("known"), -1);
    EXPECT_TRUE(logged("DEBUG", "Added the credential bucket |known|"));
    EXPECT_TRUE(logged("DEBUG", "Inserting bucket |known|"));
}

TEST_F(ListBuckets, RootIsLookedUpAsABucketWithoutAName) {
    add_pair("known");
    stat("/", false);
    EXPECT_TRUE(
        logged("DEBUG", "zorvan_i_s3_get_key_pair", "Checking keypair known only/this 1 for bucket  : /"));
}

TEST_F(ListBuckets, KnownBucketThatWasListedIsNotAddedTwice) {
    s3_script(S3Kind::list_service, service({{"seen", 5}}));
    add_pair("seen");
    EXPECT_EQ(names(*stat("/", false)), (std::vector<std::string>{".", "seen"}));
    EXPECT_FALSE(log_holds("Added the credential bucket"));
}

TEST_F(ListBuckets, TwoPairsOfOneBucketAddItOnce) {
    add_pair("known");
    add_pair("known");
    EXPECT_EQ(names(*stat("/", false)), (std::vector<std::string>{".", "known"}));
}

TEST_F(ListBuckets, PairThatIsNotBucketSpecificAddsNothing) {
    add_pair("known", false);
    EXPECT_EQ(names(*stat("/", false)), std::vector<std::string>{"."});
}

TEST_F(ListBuckets, RefusedListingShowsTheKnownBuckets) {
    s3_script(S3Kind::list_service, failing(S3StatusErrorAccessDenied, "go away"));
    add_pair("x");
    auto op = stat("/", false);
    EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
    EXPECT_EQ(names(*op), (std::vector<std::string>{".", "x"}));
    EXPECT_TRUE(
        logged("DEBUG", "zorvan_l_s3_stat_complete", "S3StatusErrorAccessDenied when listing buckets"))
        << log_text();
    expect_notice(68);
    EXPECT_EQ(s3_calls(S3Kind::list_service).size(), 1u);
}

TEST_F(ListBuckets, OtherFailureShowsTheKnownBucketsToo) {
    s3_script(S3Kind::list_service, failing(S3StatusInternalError));
    add_pair("x");
    auto op = stat("/", false);
    EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
    EXPECT_EQ(names(*op), (std::vector<std::string>{".", "x"}));
    EXPECT_TRUE(
        logged("DEBUG", "zorvan_l_s3_stat_complete", "S3 Status is an error 1, but result is successful"));
    EXPECT_LT(log_text().find("S3 Status is an error 1"), log_text().find("zorvan_i_S3Error_to_error: enter"))
        << "it is told, then recorded";
    expect_notice(1);
}

TEST_F(ListBuckets, ErrorThatIsKeptStays) {
    auto reply = service({{"one", 5}});
    reply.status = S3StatusInternalError;
    reply.before = [] { fail_allocation(1); };
    reply.after = [] { fail_allocation(0); };
    s3_script(S3Kind::list_service, reply);
    auto op = stat("/", false);
    expect_system(op->finish().error, "malloc", ENOMEM);
    EXPECT_FALSE(log_holds("but result is successful"));
}

TEST_F(ListBuckets, FailureAfterRetriesIsTheSame) {
    s3_fail(S3Kind::list_service, 1, S3StatusErrorSlowDown);
    s3_fail(S3Kind::list_service, 2, S3StatusErrorSlowDown);
    auto op = stat("/", false);
    EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
    EXPECT_EQ(names(*op), std::vector<std::string>{"."});
    EXPECT_EQ(s3_calls(S3Kind::list_service).size(), 2u);
    EXPECT_EQ(sleeps().size(), 1u);
    EXPECT_TRUE(
        logged("DEBUG", "S3_list_service: op=" + pointer_text(op.get()) + " status=ErrorSlowDown[120]"));
    expect_notice(120);
}

TEST_F(ListBuckets, EntriesBeforeAFailureAreKept) {
    auto reply = service({{"seen", 5}});
    reply.status = S3StatusErrorAccessDenied;
    s3_script(S3Kind::list_service, reply);
    auto op = stat("/", false);
    EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
    EXPECT_EQ(names(*op), (std::vector<std::string>{".", "seen"}));
}

TEST_F(ListBuckets, RestrictedSessionWithoutAKeyMayNotList) {
    session->restricted_endpoint = true;
    auto* key = std::exchange(session->default_key_pair.access_key_id, nullptr);
    auto op = stat("/", false);
    session->default_key_pair.access_key_id = key;
    EXPECT_TRUE(op->entries.empty());
    expect_ftp(op->finish().error, 550, "PERMISSION_DENIED", std::nullopt);
    ASSERT_NE(op->finish().error.cause, nullptr);
    expect_s3(*op->finish().error.cause,
              s3_text("/", S3StatusErrorAccessDenied, "Bucket listing is not allowed on this collection",
                      "Known buckets may be accessed directly via /bucketname/"));
    EXPECT_TRUE(s3_calls(S3Kind::list_service).empty());
}

TEST_F(ListBuckets, RestrictedSessionWithAKeyMayList) {
    session->restricted_endpoint = true;
    s3_bucket("seen");
    EXPECT_EQ(names(*stat("/", false)), (std::vector<std::string>{".", "seen"}));
}

TEST_F(ListBuckets, BucketsOutsideTheAllowedListAreNotShown) {
    // The list is there only after the entry chose the service listing.
    s3_script(S3Kind::list_service, service({{"one", 5}, {"other", 6}}));
    Operation op;
    set_thread_mode(ThreadMode::deferred);
    call_stat(op, "/", false);
    allow({"elsewhere"});
    run_deferred_threads();
    op.close();
    EXPECT_EQ(names(op), (std::vector<std::string>{".", "elsewhere"}));
    EXPECT_FALSE(log_holds("Inserting bucket |one|"));
    EXPECT_TRUE(logged("DEBUG", "Added the allowed bucket |elsewhere|"));
}

TEST_F(ListBuckets, BucketSetThatCannotBeMadeIsAnEmptySuccess) {
    // Refused: the first allocation of the worker that is as large as a table of 256 buckets.
    Operation op;
    set_thread_mode(ThreadMode::deferred);
    call_stat(op, "/", false);
    bool empty_seen = false;
    fail_allocation(1);
    run_deferred_threads();
    empty_seen = allocation_failed();
    fail_allocation(0);
    ASSERT_TRUE(empty_seen);
    EXPECT_EQ(op.finish().result, ZORVAN_SUCCESS);
    EXPECT_TRUE(op.entries.empty());
    EXPECT_EQ(op.last_batch, 0);
    EXPECT_TRUE(s3_calls(S3Kind::list_service).empty());
    op.close();
}

TEST_F(ListBuckets, ExhaustedMemoryIsTheMallocError) {
    // The first two are those of the bucket set, see above.
    zorvan_i_ZORVAN_S3_debug_handle.levels = 0;
    s3_script_clear(S3Kind::list_service);
    bool went_through = false;
    int failures = 0;
    for (long n = 3; n < 200 && !went_through; ++n) {
        s3_script(S3Kind::list_service, service({{"one", 5}, {"two", 6}}));
        Operation op;
        set_thread_mode(ThreadMode::deferred);
        call_stat(op, "/", false);
        fail_allocation(n);
        run_deferred_threads();
        went_through = !allocation_failed();
        fail_allocation(0);
        s3_script_clear(S3Kind::list_service);
        // Of a listing with a hole nobody is told that it is whole.
        if (!went_through) {
            ++failures;
            expect_system(op.finish().error, "malloc", ENOMEM);
        }
        op.close();
    }
    EXPECT_TRUE(went_through);
    EXPECT_GT(failures, 0);
}

using ListBucketsDeathTest = ListBuckets;

TEST_F(ListBucketsDeathTest, DuplicateNameAbortsTheProcess) {
    s3_script(S3Kind::list_service, service({{"same", 5}, {"same", 6}}));
    Operation op;
    set_thread_mode(ThreadMode::deferred);
    call_stat(op, "/", false);
    EXPECT_DEATH(run_deferred_threads(),
                 "Assertion res == ZORVAN_SUCCESS failed in file stat_list_buckets at line 299\n");
    s3_reset();
    run_deferred_threads();
    op.close();
}

}  // namespace
