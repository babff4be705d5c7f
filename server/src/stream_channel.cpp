// Connecting beside the transfer, the stall watch, and the drain of refused uploads.
#include "stream_channel.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/post.hpp>
#include <vector>

namespace zorvan::gridftp {

stream_channel::stream_channel(operation& op, asio::any_io_executor strand, data_connector& connector,
                               transfer_events& events)
    : transfer_channel(op),
      config_(op.session()->shared.config()),
      strand_(std::move(strand)),
      connector_(connector),
      events_(events),
      watch_(strand_) {}

void stream_channel::abort() noexcept {
    aborted_ = true;
    if (connect_started_ && !connect_done_) {
        connector_.cancel();
    }
    if (stream_) {
        stream_->reset();
    }
    op_.event().notify();
}

void stream_channel::start_connect() {
    if (connect_started_) {
        return;
    }
    connect_started_ = true;
    asio::co_spawn(
        strand_,
        [this, alive = kept()]() -> task<void> {
            connect_result result;
            try {
                result = co_await connector_.connect();
            } catch (const std::exception&) {
                result.stream.reset();
            }
            connect_done_ = true;
            if (result.stream) {
                stream_ = std::move(result.stream);
                if (op_.kind() == operation_kind::receive) {
                    // The client's data come in while the back end has no read registered. What is sent needs
                    // no more room than the kernel finds by itself.
                    stream_->set_buffer_sizes(
                        config_.block_size * static_cast<std::size_t>(config_.concurrency), 0);
                }
                if (aborted_) {
                    stream_->reset();
                }
            } else {
                connect_error_ = operation_error::channel(
                    result.reply_code, result.error.empty() ? "Can't open data connection." : result.error);
            }
            op_.event().notify();
        },
        asio::detached);
}

task<void> stream_channel::end_connect() {
    if (connect_started_ && !connect_done_) {
        connector_.cancel();
        while (!connect_done_) {
            co_await op_.event().wait();
        }
    }
}

task<void> stream_channel::tell_first_data() {
    try {
        co_await events_.on_first_data();
    } catch (const std::exception&) {
        abort();
    }
}

void stream_channel::note_failures_locked() {
    if (aborted_) {
        op_.fail_channel_locked(operation_error::channel(426, "Transfer aborted. Data connection closed."));
    }
    if (connect_error_) {
        op_.fail_channel_locked(*connect_error_);
    }
}

void stream_channel::waiting_for_client() noexcept {
    waiting_ = true;
    waiting_since_ = std::chrono::steady_clock::now();
    if (!watch_armed_ && !watch_stopped_) {
        arm_watch();
    }
}

void stream_channel::stop_watch() noexcept {
    waiting_ = false;
    // A cancel comes too late for an expiry that is queued already: it must not arm the timer again.
    watch_stopped_ = true;
    watch_.cancel();
}

void stream_channel::on_strand(void (*function)(stream_channel&)) noexcept {
    asio::post(strand_, [function, this, alive = kept()] { function(*this); });
}

// One timer for the whole transfer, looked at when it fires, instead of one armed for every read.
void stream_channel::arm_watch() {
    watch_armed_ = true;
    watch_.expires_at((waiting_ ? waiting_since_ : std::chrono::steady_clock::now()) + config_.data_stall);
    watch_.async_wait([this, alive = kept()](const boost::system::error_code& error) {
        if (error || watch_stopped_) {
            return;
        }
        if (waiting_ && std::chrono::steady_clock::now() - waiting_since_ >= config_.data_stall) {
            stalled_ = true;
            if (stream_) {
                stream_->reset();
            }
            return;
        }
        arm_watch();
    });
}

void drain_in_background(std::unique_ptr<data_stream> stream, const host_config& config,
                         const asio::any_io_executor& strand) {
    asio::co_spawn(
        strand,
        [drained = std::shared_ptr<data_stream>(std::move(stream)), strand, limit = config.drain_bytes,
         time = config.drain_time]() -> task<void> {
            asio::steady_timer timer(strand, time);
            timer.async_wait([drained](const boost::system::error_code& error) {
                if (!error) {
                    drained->reset();
                }
            });
            std::vector<unsigned char> dropped(65536);
            std::uint64_t total = 0;
            while (total < limit) {
                const auto result = co_await drained->read_some(asio::buffer(dropped));
                total += result.bytes;
                if (result.error) {
                    break;
                }
            }
            timer.cancel();
            drained->close();
        },
        asio::detached);
}

}  // namespace zorvan::gridftp
