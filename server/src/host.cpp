// The shared parts of the process and their counts.
#include "host.h"

#include <zorvan_common.h>

#include "callback_pool.h"
#include "receive_locks.h"
#include "spool.h"
#include "user_limit.h"

namespace zorvan::gridftp {
namespace {

void change_count(std::size_t& count, int change) {
    count = static_cast<std::size_t>(static_cast<std::ptrdiff_t>(count) + change);
}

}  // namespace

void host_gauges::count_session(int change) {
    const std::lock_guard lock(mutex_);
    change_count(sessions_, change);
    changed_.notify_all();
}

void host_gauges::count_operation(int change) {
    const std::lock_guard lock(mutex_);
    change_count(operations_, change);
    changed_.notify_all();
}

void host_gauges::count_abandoned(int change) {
    const std::lock_guard lock(mutex_);
    change_count(abandoned_, change);
    changed_.notify_all();
}

host::host(host_config config, asio::any_io_executor io)
    : config_(std::move(config)),
      io_(std::move(io)),
      spool_(std::make_unique<spool_budget>(config_.spool)),
      locks_(std::make_unique<receive_locks>()),
      checksums_(std::make_unique<user_limit>(config_.checksums_per_user)),
      pool_(std::make_unique<callback_pool>(config_.idle_thread)) {}

host::~host() = default;

host_counters host::counters() const {
    host_counters counts;
    {
        const std::lock_guard lock(gauges_.mutex_);
        counts.sessions = gauges_.sessions_;
        counts.operations = gauges_.operations_;
    }
    counts.callbacks = gauges_.callbacks;
    counts.busy_threads = pool_->busy_threads();
    counts.pool_threads = pool_->threads();
    counts.spool_bytes = spool_->used();
    counts.receive_locks = locks_->held();
    counts.checksums = checksums_->taken();
    return counts;
}

bool host::wait_idle(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    {
        std::unique_lock lock(gauges_.mutex_);
        const bool ended = gauges_.changed_.wait_until(lock, deadline, [this] {
            // An abandoned operation keeps its session.
            return gauges_.operations_ == gauges_.abandoned_ &&
                   (gauges_.abandoned_ > 0 || gauges_.sessions_ == 0);
        });
        if (!ended || gauges_.abandoned_ > 0) {
            return false;
        }
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return zorvan_thread_wait_all(left.count() > 0 ? left.count() : 0) != 0;
}

}  // namespace zorvan::gridftp
