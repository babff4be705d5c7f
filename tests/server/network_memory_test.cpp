// Memory runs out on a network thread: what Asio begins waits for it, and what may not be lost is not.
#include <new>

#include "core_fixture.h"
#include "failing_system.h"
#include "pool_wait.h"

using namespace zorvan::gridftp;
using namespace zorvan::gridftp::testing_support;
using zorvan::test::FailingMarkedThreads;

namespace {

constexpr int most_allocations = 60;

class network_memory : public core_test {};

TEST_F(network_memory, what_a_job_on_the_pool_throws_reaches_the_coroutine) {
    log_in();
    bool ran = false;
    const auto job = [&] {
        ran = true;
        throw std::bad_alloc();
    };
    EXPECT_THROW(
        {
            auto future = asio::co_spawn(strand, on_pool(*shared, strand, job), asio::use_future);
            ASSERT_EQ(future.wait_for(patience), std::future_status::ready);
            future.get();
        },
        std::bad_alloc);
    EXPECT_TRUE(ran);
}

TEST_F(network_memory, an_event_is_waited_for) {
    for (int after = 0;; ++after) {
        ASSERT_LT(after, most_allocations);
        const async_event event(strand);
        bool failed = false;
        on_strand([&] { zorvan::test::mark_this_thread(); });
        {
            const FailingMarkedThreads failing(after, 3);
            auto future = start(event.wait());
            event.notify();
            ASSERT_EQ(future.wait_for(patience), std::future_status::ready);
            EXPECT_NO_THROW(future.get());
            failed = failing.failed();
        }
        if (!failed) break;
    }
}

}  // namespace
