// An event for one coroutine, built on a timer that never expires by itself: cancelling it wakes the waiter.
// The state word keeps a notification that comes early, and spares the post when nobody waits.
#include "async.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>

#include "out_of_memory.h"
#include "timer_entry.h"

namespace zorvan::gridftp {

struct async_event::state {
    explicit state(const asio::any_io_executor& executor) : timer(executor) {}

    enum word { idle, notified, waiting };
    std::atomic<int> word{idle};
    asio::steady_timer timer;
};

async_event::async_event(const asio::any_io_executor& executor) : state_(std::make_shared<state>(executor)) {}

void async_event::notify() const noexcept {
    if (state_->word.exchange(state::notified) == state::waiting) {
        // The timer belongs to the waiter's strand: cancel it there. A cancel that comes late wakes a later
        // wait early, which waiters allow for.
        // Whoever waits must not wait for ever because there is no memory just now.
        run_until_memory(
            [this] { asio::post(state_->timer.get_executor(), [kept = state_] { kept->timer.cancel(); }); });
    }
}

task<void> async_event::wait() const {
    co_await wait_until(std::chrono::steady_clock::time_point::max());
}

task<bool> async_event::wait_until(std::chrono::steady_clock::time_point deadline) const {
    auto kept = state_;
    kept->timer.expires_at(deadline);
    int expected = state::idle;
    if (!kept->word.compare_exchange_strong(expected, state::waiting)) {
        kept->word.store(state::idle);
        co_return true;
    }
    enter_timer(kept->timer);
    auto [error] = co_await kept->timer.async_wait(asio::as_tuple(asio::use_awaitable));
    const bool was_notified = kept->word.exchange(state::idle) == state::notified;
    co_return was_notified || error;
}

}  // namespace zorvan::gridftp
