// A coroutine of its own for the connect, which leaves the outcome where both can see it.
#include "connect_beside.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <utility>

namespace zorvan::gridftp {

connect_beside::connect_beside(const asio::any_io_executor& strand, data_connector& connector)
    : state_(std::make_shared<state>(strand)) {
    asio::co_spawn(
        strand,
        [kept = state_, &connector]() -> task<void> {
            connect_result outcome;
            try {
                outcome = co_await connector.connect();
            } catch (const std::exception&) {
                outcome.stream.reset();
            }
            kept->outcome = std::move(outcome);
            kept->event.notify();
        },
        asio::detached);
}

task<bool> connect_beside::settles_at_once() {
    const auto deadline = std::chrono::steady_clock::now() + connect_grace;
    // Not in one condition: g++ 12 awaits the right side of && whatever the left one says.
    bool in_time = true;
    while (in_time && !state_->outcome) {
        in_time = co_await state_->event.wait_until(deadline);
    }
    co_return state_->outcome.has_value();
}

bool connect_beside::succeeded() const noexcept {
    return state_->outcome && state_->outcome->stream;
}

task<connect_result> connect_beside::result() {
    while (!state_->outcome) {
        co_await state_->event.wait();
    }
    co_return std::move(*state_->outcome);
}

}  // namespace zorvan::gridftp
