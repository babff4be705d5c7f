// A job on the pool that raises an event; see pool_wait.h.
#include "pool_wait.h"

#include <atomic>
#include <exception>
#include <utility>

#include "callback_pool.h"

namespace zorvan::gridftp {

task<void> on_pool(host& shared, const asio::any_io_executor& strand, std::function<void()> function) {
    struct shared_state {
        explicit shared_state(const asio::any_io_executor& executor) : event(executor) {}
        async_event event;
        std::exception_ptr error;  // before it is done
        std::atomic<bool> done{false};
    };
    auto state = std::make_shared<shared_state>(strand);
    shared.pool().submit([state, function = std::move(function)] {
        try {
            function();
        } catch (const std::exception&) {
            state->error = std::current_exception();
        }
        state->done = true;
        state->event.notify();
    });
    while (!state->done) {
        co_await state->event.wait();
    }
    if (state->error) {
        std::rethrow_exception(std::exchange(state->error, nullptr));
    }
}

}  // namespace zorvan::gridftp
