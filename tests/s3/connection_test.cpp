// Connections: reuse, stale ones, stalls, time limits, many threads, and the end of the library under way.
#include <atomic>
#include <barrier>
#include <future>
#include <thread>

#include "options.h"
#include "pool.h"
#include "script_fixture.h"

namespace {

using s3test::Recorder;
using s3test::reply;
using s3test::Step;
using Connections = s3test::Scripted;

TEST_F(Connections, RequestsInARowShareOne) {
    for (int i = 0; i < 5; ++i)
        server_.then(reply(200, {{"ETag", "\"e\""}}, i == 2 ? "data" : ""));
    EXPECT_EQ(put("a", "hello").status, S3StatusOK);
    EXPECT_EQ(remove("a").status, S3StatusOK);
    EXPECT_EQ(get("a").status, S3StatusOK);
    Recorder large;
    large.body = std::string(2 * 1024 * 1024, 'x');
    put_from(large, "a", large.body.size());
    EXPECT_EQ(large.status, S3StatusOK);
    EXPECT_EQ(get("a").status, S3StatusOK);
    EXPECT_EQ(server_.connections(), 1);
}

TEST_F(Connections, ErrorsDoNotCostTheConnection) {
    server_.then(s3test::error_reply(404, "NoSuchKey")).then(reply(200));
    EXPECT_EQ(get("a").status, S3StatusErrorNoSuchKey);
    EXPECT_EQ(get("a").status, S3StatusOK);
    EXPECT_EQ(server_.connections(), 1);
}

TEST_F(Connections, TheLatestIdleOneIsTakenFirst) {
    // Two at once make two connections; afterwards requests in a row keep to one of them.
    std::barrier both(2);
    const auto meet = [&](const s3test::SeenRequest&) {
        both.arrive_and_wait();
        return reply(200);
    };
    Step step;
    step.answer = meet;
    server_.then(step).then(step);
    std::thread other([&] { get("a"); });
    get("b");
    other.join();
    EXPECT_EQ(server_.connections(), 2);
    for (int i = 0; i < 4; ++i) {
        server_.then(reply(200));
        EXPECT_EQ(get("c").status, S3StatusOK);
    }
    const auto requests = server_.requests();
    ASSERT_EQ(requests.size(), 6u);
    for (size_t i = 3; i < 6; ++i)
        EXPECT_EQ(requests[i].connection, requests[2].connection);
    EXPECT_EQ(server_.connections(), 2);
}

TEST_F(Connections, NoneAreKeptWhenNoneMayBe) {
    S3_set_option(S3OptionMaxIdleConnections, 0);
    server_.then(reply(200)).then(reply(200));
    get("a");
    get("a");
    EXPECT_EQ(server_.connections(), 2);
}

TEST_F(Connections, IdleOnesAreLimitedOldestFirst) {
    S3_set_option(S3OptionMaxIdleConnections, 2);
    const std::shared_ptr<s3::ConnectionPool> pool = s3::library_state("h").pool;
    s3::CurlHandle a = pool->take("a");
    s3::CurlHandle b = pool->take("b");
    s3::CurlHandle c = pool->take("c");
    CURL* const raw_b = b.get();
    CURL* const raw_c = c.get();
    pool->give_back("a", std::move(a));
    pool->give_back("b", std::move(b));
    pool->give_back("c", std::move(c));
    EXPECT_EQ(pool->idle_count(), 2u);
    EXPECT_EQ(pool->take("c").get(), raw_c);
    EXPECT_EQ(pool->take("b").get(), raw_b);
    EXPECT_EQ(pool->idle_count(), 0u);
    pool->retire();
    pool->give_back("d", pool->take("d"));
    EXPECT_EQ(pool->idle_count(), 0u);
}

TEST_F(Connections, IdleOnesAreNotKeptForEver) {
    S3_set_option(S3OptionIdleConnectionSeconds, 0);
    server_.then(reply(200)).then(reply(200));
    EXPECT_EQ(get("a").status, S3StatusOK);
    EXPECT_EQ(get("a").status, S3StatusOK);
    EXPECT_EQ(server_.connections(), 2);
    EXPECT_EQ(s3::library_state("h").pool->idle_count(), 1u) << "the old one is gone";
}

TEST_F(Connections, AConnectionThatDiedIdleIsReplaced) {
    server_.then(reply(200)).then(reply(200));
    EXPECT_EQ(get("a").status, S3StatusOK);
    server_.drop_connections();
    EXPECT_EQ(put("a", "hello").status, S3StatusOK);
    EXPECT_EQ(server_.connections(), 2);
    EXPECT_EQ(server_.requests().back().body, "hello");
}

TEST_F(Connections, AConnectionThatDiesUnderARequestIsReplacedOnce) {
    // The server takes the second request on the kept connection and closes without a word.
    Step silent;
    silent.close_after_body_bytes = 0;
    server_.then(reply(200)).then(silent).then(reply(200));
    EXPECT_EQ(get("a").status, S3StatusOK);
    EXPECT_EQ(head("a").status, S3StatusOK);
    EXPECT_EQ(server_.requests().size(), 3u);
}

TEST_F(Connections, ASilentStoreIsGivenUp) {
    S3_set_option(S3OptionStallSeconds, 1);
    Step hang;
    hang.hang = true;
    server_.then(hang);
    const Recorder got = get("a");
    EXPECT_EQ(got.status, S3StatusErrorRequestTimeout);
    EXPECT_EQ(got.retryable_in_complete, 1);
    EXPECT_EQ(got.message, "no progress on the connection");
}

TEST_F(Connections, AStallInTheMiddleIsHealed) {
    S3_set_option(S3OptionStallSeconds, 3);
    Step half;
    half.reply = reply(200, {{"Content-Length", "10"}, {"ETag", "\"e\""}}, "01234");
    half.hang_after = true;
    server_.then(half).then(reply(206, {{"Content-Range", "bytes 5-9/10"}}, "56789"));
    const Recorder got = get("a");
    EXPECT_EQ(got.status, S3StatusOK);
    EXPECT_EQ(got.data, "0123456789");
}

TEST_F(Connections, TimeInsideCallbacksIsNoStall) {
    // The callback takes longer than the limit, then the store is silent for a while that is shorter than the
    // limit but long enough for the guard to look: only both together would be a stall. No ETag, so nothing
    // is healed.
    S3_set_option(S3OptionStallSeconds, 4);
    std::promise<void> callback_done;
    bool told = false;
    Step step;
    step.reply = reply(200, {{"Content-Length", "10"}}, "01234");
    step.before_rest = [done = callback_done.get_future().share()] {
        done.wait();
        std::this_thread::sleep_for(std::chrono::milliseconds(1300));
    };
    step.rest = "56789";
    server_.then(step);
    Recorder recorder;
    recorder.on_data = [&] {
        if (std::exchange(told, true)) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(4500));
        callback_done.set_value();
    };
    get_into(recorder, "a");
    // A call that failed early must not leave the server waiting.
    if (!told) callback_done.set_value();
    EXPECT_EQ(recorder.status, S3StatusOK);
    EXPECT_EQ(recorder.data, "0123456789");
}

TEST_F(Connections, SlowCallsHaveTheirOwnLimit) {
    S3_set_option(S3OptionStallSeconds, 120);
    S3_set_option(S3OptionSlowStallSeconds, 1);
    Step hang;
    hang.hang = true;
    server_.then(hang);
    Recorder recorder;
    const S3BucketContext where = context();
    S3_copy_object(&where, "a", nullptr, "b", nullptr, nullptr, 0, nullptr, nullptr, 0, &s3test::kResponse,
                   &recorder);
    EXPECT_EQ(recorder.status, S3StatusErrorRequestTimeout);
}

TEST_F(Connections, TheTotalLimitHolds) {
    Step hang;
    hang.hang = true;
    server_.then(hang);
    Recorder recorder;
    const S3BucketContext where = context();
    S3_head_object(&where, "a", nullptr, 200, &s3test::kResponse, &recorder);
    EXPECT_EQ(recorder.status, S3StatusErrorRequestTimeout);
}

TEST_F(Connections, TimeThatReadingTheBodyTookCounts) {
    Recorder recorder;
    recorder.body = "hello";
    const auto begin = std::chrono::steady_clock::now();
    recorder.on_body = [&] {
        while (std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(20))
            std::this_thread::yield();
    };
    const S3BucketContext where = context();
    S3_put_object(&where, "a", 5, nullptr, nullptr, 10, &s3test::kPut, &recorder);
    EXPECT_EQ(recorder.status, S3StatusErrorRequestTimeout);
    EXPECT_EQ(server_.connections(), 0) << "the limit had passed before there was anything to send";
}

TEST_F(Connections, NamesThatDoNotResolve) {
    host_ = "no-such-host.invalid";
    EXPECT_EQ(head("a").status, S3StatusNameLookupError);
    host_ = "evil.example/path";
    EXPECT_EQ(head("a").status, S3StatusNameLookupError);
}

TEST_F(Connections, VerificationIsKeptPerHost) {
    ASSERT_EQ(S3_initialize(nullptr, S3_INIT_ALL, "loose.example:8443"), S3StatusOK);
    ASSERT_EQ(S3_initialize(nullptr, S3_INIT_ALL | S3_INIT_VERIFY_PEER, "strict.example"), S3StatusOK);
    EXPECT_FALSE(s3::library_state("LOOSE.example").verify_peer);
    EXPECT_TRUE(s3::library_state("strict.example:443").verify_peer);
    EXPECT_TRUE(s3::library_state("never.named").verify_peer);
    EXPECT_EQ(s3::default_host(), "strict.example");
    // A session without TLS on the same host, and one whose first word was to check nothing.
    ASSERT_EQ(S3_initialize(nullptr, S3_INIT_ALL, "strict.example:80"), S3StatusOK);
    EXPECT_TRUE(s3::library_state("strict.example:443").verify_peer);
    ASSERT_EQ(S3_initialize(nullptr, S3_INIT_ALL | S3_INIT_VERIFY_PEER, "loose.example"), S3StatusOK);
    EXPECT_TRUE(s3::library_state("loose.example").verify_peer);
    // A refused call changes nothing, and an empty text is none.
    EXPECT_EQ(S3_initialize("other", S3_INIT_ALL, std::string(256, 'h').c_str()), S3StatusUriTooLong);
    EXPECT_EQ(s3::default_host(), "loose.example");
    ASSERT_EQ(S3_initialize("", S3_INIT_ALL, ""), S3StatusOK);
    EXPECT_EQ(s3::default_host(), S3_DEFAULT_HOSTNAME);
    EXPECT_EQ(s3::library_state("any").user_agent, "zorvan-s3/1");
    // What was said is forgotten with the library's end.
    S3_deinitialize();
    ASSERT_EQ(S3_initialize(nullptr, S3_INIT_ALL, "strict.example"), S3StatusOK);
    EXPECT_FALSE(s3::library_state("strict.example").verify_peer);
    EXPECT_TRUE(s3::library_state("loose.example").verify_peer);
}

TEST_F(Connections, ManyThreadsManyRequests) {
    constexpr int kThreads = 8;
    constexpr int kRequests = 25;
    for (int i = 0; i < kThreads * kRequests; ++i) {
        Step step;
        step.answer = [](const s3test::SeenRequest& request) {
            return reply(200, {{"ETag", "\"e\""}}, request.method == "GET" ? request.target : request.body);
        };
        server_.then(step);
    }
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRequests; ++i) {
                const std::string key = "k" + std::to_string(t) + "-" + std::to_string(i);
                if (i % 5 == 4) {
                    if (put(key.c_str(), key).status != S3StatusOK) ++wrong;
                } else if (get(key.c_str()).data != "/bucket/" + key) {
                    ++wrong;
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_LE(server_.connections(), kThreads);
}

TEST_F(Connections, TheLibraryMayEndAndBeginUnderARequest) {
    server_.then(reply(200, {}, "data")).then(reply(200, {}, "again"));
    Recorder recorder;
    recorder.on_data = [&] {
        S3_deinitialize();
        S3_initialize(nullptr, S3_INIT_ALL, host_.c_str());
    };
    get_into(recorder, "a");
    EXPECT_EQ(recorder.status, S3StatusOK);
    EXPECT_EQ(recorder.data, "data");
    EXPECT_EQ(get("a").data, "again");
    EXPECT_EQ(server_.connections(), 2);
}

TEST_F(Connections, BeginningAndEndingFromManyThreads) {
    for (int i = 0; i < 80; ++i)
        server_.then(reply(200));
    std::vector<std::thread> threads;
    std::atomic<int> odd = 0;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 20; ++i) {
                if (S3_initialize(nullptr, S3_INIT_ALL, host_.c_str()) != S3StatusOK) ++odd;
                const S3Status status = head("").status;
                const bool fits = status == S3StatusOK || status == S3StatusFailedToInitializeRequest;
                if (!fits) ++odd;
                if (t == 0) S3_deinitialize();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(odd, 0);
}

}  // namespace
