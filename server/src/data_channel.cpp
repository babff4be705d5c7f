// Announcement, abort and stall watch; see data_channel.h.
#include "data_channel.h"

#include <boost/asio/post.hpp>

#include "out_of_memory.h"

namespace zorvan::gridftp {

data_channel::data_channel(operation& op, asio::any_io_executor strand, data_connector& connector,
                           transfer_events& events)
    : transfer_channel(op),
      config_(op.session()->shared.config()),
      strand_(std::move(strand)),
      connector_(connector),
      events_(events),
      watch_(strand_) {}

void data_channel::abort() noexcept {
    aborted_ = true;
    reset_connections();
    op_.event().notify();
}

task<void> data_channel::tell_first_data() {
    try {
        co_await events_.on_first_data();
    } catch (const std::exception&) {
        abort();
    }
}

void data_channel::waiting_for_client() noexcept {
    waiting_ = true;
    waiting_since_ = std::chrono::steady_clock::now();
    if (!watch_armed_ && !watch_stopped_) {
        arm_watch();
    }
}

void data_channel::stop_watch() noexcept {
    waiting_ = false;
    // A cancel comes too late for an expiry that is queued already: it must not arm the timer again.
    watch_stopped_ = true;
    watch_.cancel();
}

void data_channel::interrupt_on_strand() noexcept {
    run_until_memory([&] { asio::post(strand_, [this, alive = kept()] { interrupt(); }); });
}

// One timer for the whole transfer, looked at when it fires, instead of one armed for every read.
void data_channel::arm_watch() noexcept {
    watch_armed_ = true;
    watch_.expires_at((waiting_ ? waiting_since_ : std::chrono::steady_clock::now()) + config_.data_stall);
    // A transfer must not go on unwatched because there is no memory just now.
    run_until_memory([this] {
        watch_.async_wait([this, alive = kept()](const boost::system::error_code& error) {
            if (error || watch_stopped_) {
                return;
            }
            if (waiting_ && std::chrono::steady_clock::now() - waiting_since_ >= config_.data_stall) {
                stalled_ = true;
                reset_connections();
                op_.event().notify();
                return;
            }
            arm_watch();
        });
    });
}

}  // namespace zorvan::gridftp
