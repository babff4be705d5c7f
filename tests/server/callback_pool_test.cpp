// The pool that runs back-end code: it grows past blocked threads, keeps the order, and shrinks again.
#include "callback_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <set>
#include <thread>
#include <vector>

using namespace zorvan::gridftp;
using namespace std::chrono_literals;

namespace {

TEST(callback_pool, grows_past_blocked_tasks) {
    callback_pool pool(10s);
    std::promise<void> gate;
    const auto opened = gate.get_future().share();
    std::vector<std::future<void>> started;
    for (int i = 0; i < 20; ++i) {
        auto begun = std::make_shared<std::promise<void>>();
        started.push_back(begun->get_future());
        pool.submit([begun, opened] {
            begun->set_value();
            opened.wait();
        });
    }
    for (auto& begun : started) {
        EXPECT_EQ(begun.wait_for(30s), std::future_status::ready);
    }
    EXPECT_EQ(pool.busy_threads(), 20u);
    gate.set_value();
}

TEST(callback_pool, uses_a_free_thread_again) {
    callback_pool pool(1h);
    std::set<std::thread::id> threads;
    for (int i = 0; i < 50; ++i) {
        std::promise<std::thread::id> ran;
        pool.submit([&] { ran.set_value(std::this_thread::get_id()); });
        threads.insert(ran.get_future().get());
        while (pool.busy_threads() != 0) {
            std::this_thread::yield();
        }
    }
    EXPECT_EQ(threads.size(), 1u);
    EXPECT_EQ(pool.threads(), 1u);
}

/// Something that a library keeps for each thread and that takes a while to free.
struct kept_for_a_thread {
    static inline std::atomic<int> alive{0};
    kept_for_a_thread() { ++alive; }
    ~kept_for_a_thread() {
        std::this_thread::sleep_for(20ms);
        --alive;
    }
    void touch() {}
};

TEST(callback_pool, leaves_nothing_of_its_threads) {
    {
        callback_pool pool(10s);
        std::promise<void> gate;
        const auto opened = gate.get_future().share();
        for (int i = 0; i < 5; ++i) {
            pool.submit([opened] {
                static thread_local kept_for_a_thread kept;
                kept.touch();
                opened.wait();
            });
        }
        gate.set_value();
    }
    EXPECT_EQ(kept_for_a_thread::alive, 0);
}

TEST(callback_pool, idle_threads_end) {
    callback_pool pool(1ms);
    std::promise<void> ran;
    pool.submit([&] { ran.set_value(); });
    ran.get_future().wait();
    const auto limit = std::chrono::steady_clock::now() + 30s;
    while (pool.threads() != 0 && std::chrono::steady_clock::now() < limit) {
        std::this_thread::yield();
    }
    EXPECT_EQ(pool.threads(), 0u);
}

TEST(callback_pool, runs_what_is_queued_before_it_goes) {
    std::atomic<int> ran{0};
    {
        callback_pool pool(10s);
        for (int i = 0; i < 100; ++i) {
            pool.submit([&] { ++ran; });
        }
    }
    EXPECT_EQ(ran, 100);
}

}  // namespace
