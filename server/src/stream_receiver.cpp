// The upload loop: look what is to be done, do one read, look again. A read in progress ends early when a
// part-filled block has waited long enough, when the back end has finished, or on an abort.
#include "stream_receiver.h"

#include <algorithm>
#include <boost/asio/error.hpp>
#include <cstring>
#include <utility>

#include "connect_beside.h"
#include "data_drain.h"
#include "out_of_memory.h"
#include "transfer_errors.h"

namespace zorvan::gridftp {
stream_receiver::stream_receiver(operation& op, asio::any_io_executor strand, data_connector& connector,
                                 transfer_events& events, std::uint64_t announced,
                                 std::optional<std::string> expected_md5)
    : stream_channel(op, std::move(strand), connector, events),
      base_(op.records.ranges.front().offset),
      announced_(announced),
      expected_md5_(std::move(expected_md5)),
      flush_timer_(strand_) {
    if (expected_md5_) {
        digest_.emplace();
    }
}

void stream_receiver::on_read_locked(const read_request& request) {
    if (state_ != state::open) {
        op_.complete_locked(ended_read(request, state_ == state::failed, bytes_));
        return;
    }
    queue_.push_back(request);
    if (idle_) {
        op_.wake_locked();
    }
}

void stream_receiver::on_finish_locked() {
    interrupt_on_strand();
}

void stream_receiver::interrupt() noexcept {
    interrupted_ = true;
    if (stream_ && reading_) {
        stream_->cancel_io();
    }
}

void stream_receiver::deliver_current_locked(bool eof) {
    op_.complete_locked(filled_read(current_->request, current_->filled, current_->offset, eof));
    current_.reset();
}

void stream_receiver::end_reads_locked(bool failed) {
    state_ = failed ? state::failed : state::clean;
    if (held_) {
        op_.complete_locked(failed ? ended_read(held_->request, true, 0)
                                   : filled_read(held_->request, held_->filled, held_->offset, true));
        held_.reset();
    }
    if (current_) {
        op_.complete_locked(!failed && current_->filled > 0
                                ? filled_read(current_->request, current_->filled, current_->offset, true)
                                : ended_read(current_->request, failed, bytes_));
        current_.reset();
    }
    for (const auto& request : queue_) {
        op_.complete_locked(ended_read(request, failed, bytes_));
    }
    queue_.clear();
}

// Surplus bytes go out before the held-back block. When the back end has lent no other buffer, and no
// callback is under way that might bring one, the held-back block gives its own: its data are of no use any
// more.
void stream_receiver::place_surplus_locked() {
    if (surplus_size_ == 0) {
        return;
    }
    read_request request;
    if (!queue_.empty()) {
        request = queue_.front();
        queue_.pop_front();
    } else if (held_ && op_.callbacks_idle_locked()) {
        request = held_->request;
        held_.reset();
    } else {
        op_.wake_when_idle_locked();
        return;
    }
    const std::size_t part = std::min(surplus_size_, request.length);
    std::memcpy(request.buffer, surplus_.data(), part);
    op_.complete_locked(
        filled_read(request, part, base_ + static_cast<std::int64_t>(bytes_ - surplus_size_), false));
    std::memmove(surplus_.data(), surplus_.data() + part, surplus_size_ - part);
    surplus_size_ -= part;
}

stream_receiver::step stream_receiver::next_step() {
    operation::guard held(op_);
    idle_ = false;
    if (state_ == state::open) {
        // Once all data are handed over, only the back end's word counts.
        note_failures_locked();
    }
    if (state_ == state::open && op_.channel_error_locked()) {
        end_reads_locked(true);
    }
    if (op_.finished_locked()) {
        if (state_ == state::open) {
            if (op_.succeeded_locked()) {
                // It says that it has what has not been delivered yet.
                op_.fail_channel_locked(transfer_errors::storage_ended_early());
            }
            end_reads_locked(true);
        }
        return step::end;
    }
    idle_ = true;
    if (state_ != state::open || !begun_) {
        return step::wait;
    }
    if (!stream_) {
        return step::connect;
    }
    if (bytes_ >= announced_) {
        place_surplus_locked();
        return surplus_size_ == 0 ? step::probe : step::wait;
    }
    if (!current_) {
        if (queue_.empty()) {
            return step::wait;
        }
        current_ = block{queue_.front(), 0, base_ + static_cast<std::int64_t>(bytes_)};
        queue_.pop_front();
        ++block_number_;
    }
    return step::read;
}

void stream_receiver::arm_flush() {
    flush_armed_ = true;
    flush_timer_.expires_after(config_.partial_block_wait);
    // A back end may wait for just the bytes that are here.
    run_until_memory([this] {
        flush_timer_.async_wait(
            [this, alive = kept(), number = block_number_](const boost::system::error_code& error) {
                flush_armed_ = false;
                if (error || !current_ || current_->filled == 0) {
                    return;
                }
                if (number != block_number_) {
                    arm_flush();
                } else if (reading_) {
                    flush_due_ = true;
                    stream_->cancel_io();
                }
            });
    });
}

void stream_receiver::data_ended_locked() {
    if (!events_.control_alive()) {
        op_.fail_channel_locked(transfer_errors::control_lost());
    } else if (digest_ && held_ && !same_checksum(digest_->finish(), *expected_md5_)) {
        op_.fail_channel_locked(transfer_errors::wrong_checksum());
    }
    end_reads_locked(op_.channel_error_locked().has_value());
}

task<void> stream_receiver::read_once(bool probe) {
    asio::mutable_buffer target;
    if (probe) {
        target = asio::buffer(surplus_);
    } else {
        const std::uint64_t room =
            std::min<std::uint64_t>(current_->request.length - current_->filled, announced_ - bytes_);
        target = asio::buffer(current_->request.buffer + current_->filled, static_cast<std::size_t>(room));
    }
    reading_ = true;
    waiting_for_client();
    const auto result = co_await stream_->read_some(target);
    waited();
    reading_ = false;

    const bool flush = std::exchange(flush_due_, false);
    const bool interrupted = std::exchange(interrupted_, false);
    if (digest_ && !probe) {
        digest_->update({static_cast<const unsigned char*>(target.data()), result.bytes});
    }
    operation::guard held(op_);
    bytes_ += result.bytes;
    if (probe) {
        surplus_size_ = result.bytes;
    } else {
        current_->filled += result.bytes;
        if (bytes_ >= announced_) {
            held_ = std::exchange(current_, std::nullopt);
        } else if (current_->filled == current_->request.length ||
                   (flush && current_->filled > 0 && result.error)) {
            deliver_current_locked(false);
        } else if (current_->filled > 0 && !flush_armed_) {
            arm_flush();
        }
    }
    if (!result.error) {
        co_return;
    }
    if (result.error == asio::error::eof) {
        data_ended_locked();
    } else if (!(result.error == asio::error::operation_aborted && (flush || interrupted) && !stalled() &&
                 !aborted_)) {
        note_failures_locked();
        op_.fail_channel_locked(stalled() ? transfer_errors::stalled() : transfer_errors::broken_off());
        end_reads_locked(true);
    }
}

task<void> stream_receiver::run() {
    auto alive = kept();
    for (;;) {
        const step next = next_step();
        if (next == step::end) {
            break;
        }
        if (next == step::wait) {
            co_await op_.event().wait();
            continue;
        }
        if (next == step::connect) {
            start_connect();
            if (!announced_start_) {
                const auto deadline = std::chrono::steady_clock::now() + connect_grace;
                // Not in one condition: g++ 12 awaits the right side of && whatever the left one says.
                bool in_time = true;
                while (in_time && !connect_settled() && !aborted_) {
                    in_time = co_await op_.event().wait_until(deadline);
                }
                if (!(connect_settled() && !stream_) && !aborted_) {
                    announced_start_ = true;
                    co_await tell_first_data();
                }
            } else if (!connect_settled()) {
                co_await op_.event().wait();
            }
            continue;
        }
        co_await read_once(next == step::probe);
    }
    stop_watch();
    flush_timer_.cancel();
    co_await end_connect();
    if (!stream_) {
        co_return;
    }
    bool ended_by_client = false;
    {
        operation::guard held(op_);
        ended_by_client = state_ == state::clean;
    }
    if (ended_by_client) {
        stream_->close();
    } else if (aborted_) {
        stream_->reset();
    } else {
        drain_in_background(std::move(stream_), config_, strand_);
    }
}

}  // namespace zorvan::gridftp
