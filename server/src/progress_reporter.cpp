// A timer that looks at a transfer; see progress_reporter.h.
#include "progress_reporter.h"

#include <algorithm>
#include <utility>

#include "out_of_memory.h"
#include "server_log.h"

namespace zorvan::gridftp {
namespace {

bool same(const range_list& one, const range_list& other) {
    return one.bytes() == other.bytes() && one.ranges() == other.ranges();
}

}  // namespace

progress_reporter::progress_reporter(const asio::any_io_executor& strand, transfer_events& events,
                                     std::chrono::milliseconds interval, std::uint64_t kept,
                                     std::function<bool()> silent)
    : events_(events), timer_(strand), interval_(interval), kept_(kept), silent_(std::move(silent)) {
    reported_.add(0, kept_);
}

void progress_reporter::stop() noexcept {
    stopped_ = true;
    timer_.cancel();
}

task<void> progress_reporter::on_first_data() {
    co_await events_.on_first_data();
    if (!std::exchange(announced_, true) && interval_.count() > 0) {
        arm();
    }
}

std::optional<range_list> progress_reporter::unreported() const {
    if (!announced_ || !source_) {
        return std::nullopt;
    }
    range_list durable = source_().durable;
    durable.add(0, kept_);
    if (same(durable, reported_)) {
        return std::nullopt;
    }
    return durable;
}

void progress_reporter::report() {
    if (!source_ || silent_()) {
        return;
    }
    transfer_progress now = source_();
    bytes_ = std::max(bytes_, now.bytes);
    now.bytes = bytes_;
    now.durable.add(0, kept_);
    now.durable_changed = !same(now.durable, reported_);
    if (events_.on_progress(now)) {
        reported_ = std::move(now.durable);
    }
}

// Markers are no reason to end a transfer.
void progress_reporter::arm() noexcept {
    if (!stopped_ && !run_without_throwing([this] { arm_timer(); })) {
        (void)run_without_throwing([] {
            log_line(ZORVAN_GFS_LOG_WARNING, "out of memory: a transfer goes on without progress markers");
        });
    }
}

void progress_reporter::arm_timer() {
    timer_.expires_after(interval_);
    timer_.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
        // A cancel comes too late for an expiry that is queued already.
        if (error || self->stopped_) {
            return;
        }
        (void)run_without_throwing([&] { self->report(); });
        self->arm();
    });
}

}  // namespace zorvan::gridftp
