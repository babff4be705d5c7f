// A job on the pool that raises an event; see pool_wait.h.
#include "pool_wait.h"

#include <atomic>

#include "callback_pool.h"

namespace zorvan::gridftp {

task<void> on_pool(host& shared, const asio::any_io_executor& strand, std::function<void()> function) {
    struct shared_state {
        explicit shared_state(const asio::any_io_executor& executor) : event(executor) {}
        async_event event;
        std::atomic<bool> done{false};
    };
    auto state = std::make_shared<shared_state>(strand);
    shared.pool().submit([state, function = std::move(function)] {
        function();
        state->done = true;
        state->event.notify();
    });
    while (!state->done) {
        co_await state->event.wait();
    }
}

}  // namespace zorvan::gridftp
