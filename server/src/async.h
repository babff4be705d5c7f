// Names for the coroutine machinery of the server, and an event that any thread can raise for a coroutine.
//
// A coroutine of the server runs on its session's strand. What happens on other threads (a back end's worker,
// the callback pool) reaches it through an async_event: the other thread changes shared state under a mutex,
// then calls notify(); the coroutine re-checks the state after every wait().
#pragma once

#include <atomic>
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <memory>

namespace zorvan::gridftp {

namespace asio = boost::asio;

/// A coroutine of the server.
template <class T>
using task = asio::awaitable<T>;

/// Wakes one coroutine from any thread. A notification that comes while nobody waits is kept (one, not a
/// count), so that check-then-wait loses nothing. Copies share the same event.
class async_event {
  public:
    explicit async_event(const asio::any_io_executor& executor);

    /// Raise the event. Any thread; cheap when nobody waits.
    void notify() const noexcept;

    /// Wait for the next notification. Only one coroutine at a time, on the executor given. May return
    /// early: callers loop over their condition.
    task<void> wait() const;

    /// The same, but at most until `deadline`. @return false when the time came first
    task<bool> wait_until(std::chrono::steady_clock::time_point deadline) const;

  private:
    struct state;
    std::shared_ptr<state> state_;
};

}  // namespace zorvan::gridftp
