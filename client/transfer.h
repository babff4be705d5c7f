// One transfer: threads that move data, and the loop that reads the server's replies meanwhile.
//
// The loop runs on the caller's thread; each data connection has a thread ("lane") that does nothing but its
// own I/O. A lane's waits have no limit of their own: the loop sees when nothing moves at all.
#pragma once

#include <atomic>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "control.h"

namespace zorvan::copy {

class transfer {
  public:
    /// What the two directions do differently. Called on the loop's thread; any may be empty.
    struct events {
        std::function<void()> begun;                    ///< the server's first preliminary reply
        std::function<void(const reply&)> preliminary;  ///< each of them
        int listener = -1;                              ///< connections to be accepted
        std::function<void(descriptor)> connected;      ///< from the server's own address
        std::function<bool()> complete;                 ///< all data are here
        std::function<void(std::uint64_t)> tick;        ///< several times a second, with the bytes moved
    };

    explicit transfer(control_connection& control) : control_(control) {}
    transfer(const transfer&) = delete;
    transfer& operator=(const transfer&) = delete;
    /// Cancels the lanes and waits for them.
    ~transfer();

    /// Start a thread. Its body gets the flags that every wait of it has to heed; what it throws ends the
    /// transfer.
    void start_lane(std::function<void(const stop_flags&)> body);
    /// A lane moved so many bytes.
    void moved(std::uint64_t bytes) noexcept { moved_ += bytes; }
    std::uint64_t bytes() const noexcept { return moved_; }

    /// From the command's sending until both the server and the lanes have come to their end.
    /// @throws failure  what failed first, in the server's words if it says something
    void run(const events& handlers, exit_status refused, const std::string& context);

  private:
    struct outcome;
    void watch_replies(const events& handlers, outcome& state);
    std::exception_ptr lane_error();
    void wait(const events& handlers, const outcome& state, clock::time_point until);
    void accept_all(const events& handlers);
    void cancel() noexcept;
    [[noreturn]] void give_up(const events& handlers, outcome& state, exit_status refused,
                              const std::string& context);

    control_connection& control_;
    flag cancel_;
    flag wake_;
    std::atomic<std::uint64_t> moved_ = 0;
    std::atomic<unsigned> running_ = 0;
    std::mutex mutex_;
    std::exception_ptr error_;  // guarded by mutex_
    std::vector<std::thread> lanes_;
};

}  // namespace zorvan::copy
