// The download loop: look what is to be done, do one thing, look again. Every change made elsewhere raises
// the operation's event, so that one place decides.
#include "stream_sender.h"

#include "transfer_errors.h"

namespace zorvan::gridftp {
namespace {

constexpr std::size_t most_in_one_write = 16;

}  // namespace

void stream_sender::on_read_locked(const read_request& request) {
    op_.complete_locked(ended_read(request, true, 0));
}

bool stream_sender::on_write_locked(const write_request& request) {
    if (!writable_) {
        return false;
    }
    queue_.push_back(request);
    if (idle_) {
        op_.wake_locked();
    }
    return true;
}

void stream_sender::on_finish_locked() {
    if (!op_.succeeded_locked()) {
        // A write may be stuck in a slow client's window.
        interrupt_on_strand();
    }
}

void stream_sender::interrupt() noexcept {
    if (stream_) {
        stream_->reset();
    }
}

stream_sender::step stream_sender::next_step() {
    operation::guard held(op_);
    idle_ = false;
    note_failures_locked();
    const bool failed = op_.channel_error_locked().has_value();
    if (failed || (op_.finished_locked() && !op_.succeeded_locked())) {
        writable_ = false;
        for (const auto& request : in_flight_) {
            op_.complete_locked(ended_write(request, true));
        }
        in_flight_.clear();
        for (const auto& request : queue_) {
            op_.complete_locked(ended_write(request, true));
        }
        queue_.clear();
        return op_.finished_locked() ? step::end_failed : step::wait;
    }
    while (in_flight_.size() < most_in_one_write && !queue_.empty()) {
        if (queue_.front().length == 0) {
            op_.complete_locked(ended_write(queue_.front(), false));
        } else {
            in_flight_.push_back(queue_.front());
        }
        queue_.pop_front();
    }
    if (!in_flight_.empty()) {
        return step::write;
    }
    if (op_.finished_locked()) {
        return step::end_clean;
    }
    idle_ = true;
    return begun_ ? step::connect : step::wait;
}

task<void> stream_sender::announce() {
    if (!announced_) {
        announced_ = true;
        co_await tell_first_data();
    }
}

task<void> stream_sender::write_once() {
    buffers_.clear();
    std::size_t skip = first_done_;
    for (const auto& request : in_flight_) {
        buffers_.emplace_back(request.buffer + skip, request.length - skip);
        skip = 0;
    }
    waiting_for_client();
    const auto result = co_await stream_->write_some(buffers_);
    waited();
    bytes_ += result.bytes;

    operation::guard held(op_);
    std::size_t done = first_done_ + result.bytes;
    std::size_t count = 0;
    while (count < in_flight_.size() && done >= in_flight_[count].length) {
        done -= in_flight_[count].length;
        op_.complete_locked(ended_write(in_flight_[count], false));
        ++count;
    }
    in_flight_.erase(in_flight_.begin(), in_flight_.begin() + static_cast<std::ptrdiff_t>(count));
    first_done_ = done;
    if (result.error) {
        note_failures_locked();
        if (!(op_.finished_locked() && !op_.succeeded_locked())) {
            op_.fail_channel_locked(stalled() ? transfer_errors::stalled()
                                              : transfer_errors::closed_by_client());
        }
    }
}

task<void> stream_sender::run() {
    auto alive = kept();
    for (;;) {
        const step next = next_step();
        if (next == step::end_failed) {
            break;
        }
        if (next == step::wait) {
            co_await op_.event().wait();
            continue;
        }
        start_connect();
        if (next == step::connect) {
            co_await op_.event().wait();
            continue;
        }
        // A connect that has failed already is the whole reply; one that is still going on may wait for a
        // client that waits for the preliminary reply.
        if (connect_settled() && !stream_) {
            continue;
        }
        co_await announce();
        if (!connect_settled()) {
            co_await op_.event().wait();
            continue;
        }
        if (!stream_) {
            continue;
        }
        if (next == step::write) {
            co_await write_once();
            continue;
        }
        const auto error = co_await stream_->shutdown();
        if (error) {
            operation::guard held(op_);
            op_.fail_channel_locked(transfer_errors::closed_by_client());
        } else {
            stream_->close();
        }
        break;
    }
    stop_watch();
    co_await end_connect();
    if (stream_) {
        stream_->reset();
    }
}

}  // namespace zorvan::gridftp
