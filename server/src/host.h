// What all sessions of the process share: configuration, the pool that runs back-end code, the spool's
// budget, the locks on paths being received, and counts for tests and shutdown. Made once before the first
// session, destroyed after the last one. Thread-safe.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "async.h"
#include "host_config.h"

namespace zorvan::gridftp {

class callback_pool;
class spool_budget;
class receive_locks;
class user_limit;

/// What is alive now. All zero when nothing runs (idle pool threads aside).
struct host_counters {
    std::size_t sessions = 0;       ///< back-end sessions not yet destroyed
    std::size_t operations = 0;     ///< operations not yet released
    std::size_t callbacks = 0;      ///< registered reads and writes not yet called back
    std::size_t busy_threads = 0;   ///< pool threads inside back-end code
    std::size_t pool_threads = 0;   ///< pool threads in all
    std::uint64_t spool_bytes = 0;  ///< bytes held by the spool
    std::size_t receive_locks = 0;  ///< paths being received
    std::size_t checksums = 0;      ///< checksums that count against their users' limit
};

/// The live counts, kept by the objects themselves.
class host_gauges {
  public:
    /// One more (+1) or less (-1). Any thread.
    void count_session(int change);
    void count_operation(int change);
    /// Of those: operations whose outcome nobody waits for any more.
    void count_abandoned(int change);
    std::atomic<std::size_t> callbacks{0};

  private:
    friend class host;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::size_t sessions_ = 0;
    std::size_t operations_ = 0;
    std::size_t abandoned_ = 0;
};

class host {
  public:
    /// @param io  an executor of the I/O threads (not a strand); used for nothing but background work
    host(host_config config, asio::any_io_executor io);
    host(const host&) = delete;
    host& operator=(const host&) = delete;
    /// Waits for the pool's threads: all sessions must be gone.
    ~host();

    const host_config& config() const noexcept { return config_; }
    const asio::any_io_executor& io() const noexcept { return io_; }
    callback_pool& pool() noexcept { return *pool_; }
    spool_budget& spool() noexcept { return *spool_; }
    receive_locks& locks() noexcept { return *locks_; }
    user_limit& checksums() noexcept { return *checksums_; }

    host_gauges& gauges() noexcept { return gauges_; }

    host_counters counters() const;

    /// Orderly shutdown, after every control connection was told to go: wait until all sessions are
    /// destroyed, all operations released and all threads of back ends have ended. Abandoned operations are
    /// not waited for. Blocks the caller (not an I/O thread).
    /// @return false when the time was over first, or when nothing but abandoned operations is left: then end
    /// the process with _exit and deactivate nothing
    bool wait_idle(std::chrono::milliseconds limit);

  private:
    host_config config_;
    asio::any_io_executor io_;
    host_gauges gauges_;
    std::unique_ptr<spool_budget> spool_;
    std::unique_ptr<receive_locks> locks_;
    std::unique_ptr<user_limit> checksums_;
    // Last, so that its threads end before anything that they use.
    std::unique_ptr<callback_pool> pool_;
};

}  // namespace zorvan::gridftp
