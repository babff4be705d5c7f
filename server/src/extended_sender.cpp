// Blocks out over several connections; see extended_sender.h.
#include "extended_sender.h"

#include <algorithm>
#include <array>
#include <boost/asio/co_spawn.hpp>
#include <new>
#include <utility>

#include "out_of_memory.h"
#include "transfer_errors.h"

namespace zorvan::gridftp {

extended_sender::extended_sender(operation& op, asio::any_io_executor strand, data_connector& connector,
                                 transfer_events& events, std::uint64_t shift)
    : data_channel(op, std::move(strand), connector, events), shift_(shift) {}

void extended_sender::on_read_locked(const read_request& request) {
    op_.complete_locked(ended_read(request, true, 0));
}

bool extended_sender::on_write_locked(const write_request& request) {
    if (!writable_) {
        return false;
    }
    queue_.push_back(request);
    op_.wake_locked();
    return true;
}

void extended_sender::reset_connections() noexcept {
    reset_ = true;
    if (connecting_) {
        connector_.stop_connecting();
    }
    for (const auto& each : lanes_) {
        each->stream->reset();
        each->turn.notify();
    }
}

void extended_sender::wake_lanes() {
    for (const auto& each : lanes_) {
        if (!each->writing) {
            each->turn.notify();
        }
    }
}

void extended_sender::spawn(task<void> body) {
    ++running_;
    try {
        asio::co_spawn(strand_, std::move(body), [this, alive = kept()](const std::exception_ptr& error) {
            if (error) {
                operation::guard held(op_);
                op_.fail_channel_locked(operation_error::out_of_memory());
            }
            --running_;
            op_.event().notify();
        });
    } catch (...) {
        // It has not begun and will not end.
        --running_;
        throw;
    }
}

void extended_sender::add(std::unique_ptr<data_stream> stream) {
    lanes_.push_back(std::make_unique<lane>(std::move(stream), strand_));
    if (reset_) {
        lanes_.back()->stream->reset();
    }
    spawn(serve(*lanes_.back()));
}

task<void> extended_sender::connect_all() {
    for (auto& stream : std::exchange(connector_.kept, {})) {
        // What the client has closed meanwhile is of no use.
        if (stream->quiet() && lanes_.size() < op_.records.connections) {
            add(std::move(stream));
        }
    }
    while (lanes_.size() < op_.records.connections && !reset_ && !stopping_) {
        connecting_ = true;
        auto result = co_await connector_.connect_more(true);
        connecting_ = false;
        if (!result.stream) {
            if (lanes_.empty()) {
                connect_error_ = transfer_errors::not_connected(result);
            }
            break;
        }
        add(std::move(result.stream));
    }
    connect_settled_ = true;
}

task<bool> extended_sender::write(lane& with, const block_header& header, const unsigned char* data) {
    const auto head = encode(header);
    std::array<asio::const_buffer, 2> buffers{
        asio::buffer(head), asio::const_buffer(data, static_cast<std::size_t>(header.count))};
    std::span<asio::const_buffer> left(buffers);
    const writing_scope scope(*this, with);
    bool good = true;
    while (good && !left.empty()) {
        waiting_for_client();
        const auto result = co_await with.stream->write_some(left);
        good = !result.error;
        std::size_t done = result.bytes;
        while (!left.empty() && done >= left.front().size()) {
            done -= left.front().size();
            left = left.subspan(1);
        }
        if (!left.empty()) {
            left.front() += done;
        }
    }
    co_return good;
}

void extended_sender::note_broken() {
    operation::guard held(op_);
    if (!(op_.finished_locked() && !op_.succeeded_locked())) {
        op_.fail_channel_locked(aborted_    ? transfer_errors::aborted()
                                : stalled() ? transfer_errors::stalled()
                                            : transfer_errors::closed_by_client());
    }
    op_.wake_locked();
}

task<void> extended_sender::serve(lane& with) {
    for (;;) {
        std::optional<write_request> next;
        {
            operation::guard held(op_);
            if (announced_ && !queue_.empty() && writable_) {
                next = queue_.front();
                queue_.pop_front();
            }
        }
        if (!next) {
            if (stopping_ || reset_) {
                co_return;
            }
            co_await with.turn.wait();
            continue;
        }
        const block_header header{0, next->length, static_cast<std::uint64_t>(next->offset) - shift_};
        bool good = true;
        // The request is in no queue any more: whatever happens, it is called back here.
        try {
            if (next->length > 0) {
                good = co_await write(with, header, next->buffer);
            }
            if (!good) {
                note_broken();
            }
        } catch (const std::bad_alloc&) {
            good = false;
            operation::guard held(op_);
            op_.fail_channel_locked(operation_error::out_of_memory());
        }
        if (good) {
            bytes_ += next->length;
        }
        operation::guard held(op_);
        op_.complete_locked(ended_write(*next, !good));
        op_.wake_locked();
        if (!good) {
            co_return;
        }
    }
}

void extended_sender::fail_queue_locked() {
    writable_ = false;
    for (const auto& request : queue_) {
        op_.complete_locked(ended_write(request, true));
    }
    queue_.clear();
}

bool extended_sender::all_quiet() const {
    return writing_ == 0;
}

extended_sender::step extended_sender::next_step() {
    operation::guard held(op_);
    const bool finished = op_.finished_locked();
    if (aborted_) {
        op_.fail_channel_locked(transfer_errors::aborted());
    } else if (connect_error_) {
        op_.fail_channel_locked(*connect_error_);
    }
    if (op_.channel_error_locked() || (finished && !op_.succeeded_locked())) {
        fail_queue_locked();
        stopping_ = true;
        reset_connections();
        return finished && running_ == 0 ? step::end_failed : step::wait;
    }
    const bool something = finished || !queue_.empty();
    if ((begun_ || finished) && !connect_started_) {
        return step::connect;
    }
    // A connect that has failed already is the whole reply; one that is still going on may wait for a client
    // that waits for the preliminary reply.
    if (something && !announced_ && connect_started_) {
        return step::announce;
    }
    if (announced_ && !queue_.empty()) {
        wake_lanes();
    }
    return finished && queue_.empty() && all_quiet() && connect_settled_ ? step::end_clean : step::wait;
}

task<void> extended_sender::end_data() {
    stopping_ = true;
    wake_lanes();
    while (running_ > 0) {
        co_await op_.event().wait();
    }
    std::uint64_t ends = lanes_.size();
    for (const auto& each : lanes_) {
        block_header header{block_end_of_data, 0, 0};
        if (ends > 0) {
            header.bits |= block_end_of_file;
            header.offset = std::exchange(ends, 0);
        }
        const bool good = co_await write(*each, header, nullptr);
        if (!good) {
            note_broken();
            co_return;
        }
    }
    if (!reset_) {
        auto& to_keep = connector_.kept;
        const bool keeps = run_without_throwing([&] { to_keep.reserve(to_keep.size() + lanes_.size()); });
        for (auto& each : lanes_) {
            if (keeps) {
                to_keep.push_back(std::move(each->stream));
            } else {
                each->stream->close();
            }
        }
        lanes_.clear();
    }
}

task<void> extended_sender::run() {
    auto alive = kept();
    for (;;) {
        const step next = next_step();
        if (next == step::end_failed) {
            break;
        }
        if (next == step::wait) {
            co_await op_.event().wait();
        } else if (next == step::connect) {
            connect_started_ = true;
            spawn(connect_all());
        } else if (next == step::announce) {
            co_await tell_first_data();
            announced_ = true;
        } else {
            co_await end_data();
            break;
        }
    }
    stop_watch();
    for (const auto& each : lanes_) {
        each->stream->reset();
    }
}

}  // namespace zorvan::gridftp
