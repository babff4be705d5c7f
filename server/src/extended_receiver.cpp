// Who reads what when in an upload in extended mode; see extended_receiver.h.
#include "extended_receiver.h"

#include <algorithm>
#include <utility>

#include "out_of_memory.h"
#include "transfer_errors.h"

namespace zorvan::gridftp {
namespace {

// Read ahead of the window in pieces of this size.
constexpr std::size_t spool_piece_size = 128 * 1024;

block_intake::bounds bounds_of(const operation& op, std::uint64_t announced, std::uint64_t shift) {
    const auto begin = static_cast<std::uint64_t>(op.records.ranges.front().offset);
    return {shift, begin, begin + announced};
}

}  // namespace

extended_receiver::extended_receiver(operation& op, asio::any_io_executor strand, data_connector& connector,
                                     transfer_events& events, std::uint64_t announced, std::uint64_t shift)
    : data_channel(op, strand, connector, events),
      block_intake(strand, op.session()->shared.config(), connector, op.event(),
                   bounds_of(op, announced, shift)),
      base_(static_cast<std::uint64_t>(op.records.ranges.front().offset)),
      announced_(announced),
      window_(2ULL * static_cast<std::uint64_t>(op.concurrency()) * config_.block_size),
      most_early_(2ULL * static_cast<std::size_t>(op.concurrency())),
      checked_(op),
      flush_timer_(strand_),
      relief_timer_(strand_) {}

std::unique_ptr<block_intake::connection> extended_receiver::make_connection(
    std::unique_ptr<data_stream> stream) {
    return std::make_unique<lane>(std::move(stream), strand_);
}

void extended_receiver::on_read_locked(const read_request& request) {
    if (state_ != state::open) {
        op_.complete_locked(ended_read(request, state_ == state::failed, handed_over_));
        return;
    }
    queue_.push_back(request);
    op_.wake_locked();
}

// ------------------------------------------------------------------------------- ends

void extended_receiver::note_failures() noexcept {
    if (aborted_) {
        fail_intake(transfer_errors::aborted);
    } else if (stalled()) {
        fail_intake(transfer_errors::stalled);
    }
}

void extended_receiver::reset_connections() noexcept {
    note_failures();
    checked_.abort();
    block_intake::reset_connections();
}

void extended_receiver::fail_locked() {
    state_ = state::failed;
    if (held_) {
        op_.complete_locked(ended_read({held_->buffer, 0, held_->read_callback, held_->argument}, true, 0));
        held_.reset();
    }
    for (std::size_t i = 0; i < connections().size(); ++i) {
        auto& each = lane_at(i);
        if (each.buffer) {
            op_.complete_locked(ended_read(each.buffer->request, true, 0));
            each.buffer.reset();
        }
    }
    for (const auto& request : queue_) {
        op_.complete_locked(ended_read(request, true, 0));
    }
    queue_.clear();
}

void extended_receiver::end_clean_locked() {
    state_ = state::clean;
    held_->eof = true;
    op_.complete_locked(*held_);
    held_.reset();
    for (const auto& request : queue_) {
        op_.complete_locked(ended_read(request, false, handed_over_));
    }
    queue_.clear();
}

// Every connection has come to rest after its end of data.
void extended_receiver::check_end_locked() {
    data_ended_ = true;
    if (!events_.control_alive()) {
        fail_intake(transfer_errors::control_lost);
    } else if (claimed().bytes() != announced_) {
        fail_intake(operation_error::channel(550, "The data ended before the announced size was reached."));
    }
}

// @return whether everything is over
bool extended_receiver::settle() {
    operation::guard held(op_);
    const bool finished = op_.finished_locked();
    if (state_ == state::open) {
        if (op_.channel_error_locked() && !intake_error()) {
            fail_intake(*op_.channel_error_locked());
        }
        if (finished && !intake_error()) {
            // A success says that it has what has not been delivered yet.
            fail_intake(transfer_errors::storage_ended_early);
        }
        if (!intake_error() && at_rest() && !data_ended_) {
            check_end_locked();
        }
        if (intake_error()) {
            if (!finished || op_.succeeded_locked()) {
                op_.fail_channel_locked(*intake_error());
            }
            if (!announced_start_ || at_rest()) {
                fail_locked();
            }
        } else if (data_ended_ && held_) {
            end_clean_locked();
        }
    }
    return finished && state_ != state::open;
}

// ------------------------------------------------------------------------ a lane's data

void extended_receiver::client_moved() noexcept {
    if (watching_) {
        waiting_for_client();
    }
}

task<void> extended_receiver::take_block(connection& from, std::uint64_t offset, std::uint64_t count) {
    auto& into = static_cast<lane&>(from);
    into.next = offset;
    into.left = count;
    if (into.buffer && into.buffer->offset + into.buffer->filled != offset) {
        operation::guard held(op_);
        deliver_locked(into);
    }
    while (into.left > 0 && !over()) {
        if (!into.buffer) {
            into.wants = true;
            pump();
            while (!into.buffer && !into.may_spool && !over()) {
                co_await into.turn.wait();
            }
            into.wants = false;
        }
        if (over()) {
            break;
        }
        if (std::exchange(into.may_spool, false)) {
            co_await spool_piece(into);
        } else {
            co_await fill(into);
        }
    }
}

task<void> extended_receiver::fill(lane& into) {
    auto& buffer = *into.buffer;
    const auto room =
        static_cast<std::size_t>(std::min<std::uint64_t>(buffer.request.length - buffer.filled, into.left));
    into.into_buffer = true;
    const std::size_t bytes =
        co_await read_data(into, asio::buffer(buffer.request.buffer + buffer.filled, room));
    into.into_buffer = false;
    const bool flush_now = std::exchange(into.flush_due, false);
    {
        operation::guard held(op_);
        if (bytes > 0) {
            window_moved_ = true;
            relief_ = false;
            taken_.add(into.next, into.next + bytes);
            bytes_ += bytes;
            buffer.filled += bytes;
            into.next += bytes;
            into.left -= bytes;
        }
        if (buffer.filled == buffer.request.length || (flush_now && buffer.filled > 0)) {
            deliver_locked(into);
        } else if (buffer.filled > 0) {
            arm_flush();
        }
    }
    pump();
}

task<void> extended_receiver::spool_piece(lane& from) {
    from.piece.resize(spool_piece_size);
    const auto room = static_cast<std::size_t>(std::min<std::uint64_t>(from.piece.size(), from.left));
    const std::size_t bytes = co_await read_data(from, asio::buffer(from.piece.data(), room));
    bytes_ += bytes;
    if (!spool_) {
        spool_ = std::make_shared<block_spool>(op_.session()->shared, strand_, base_);
        checked_.read_from(spool_->source());
    }
    ++stores_;
    std::size_t stored = 0;
    while (stored < bytes && !intake_error()) {
        const auto result = co_await spool_->store(std::span(from.piece).subspan(stored, bytes - stored),
                                                   from.next + stored, true);
        stored += result.bytes;
        if (result.reason != 0) {
            fail_intake(operation_error::server(552, {}, "No room for data that came before their turn."));
        }
    }
    --stores_;
    from.next += bytes;
    from.left -= bytes;
    pump();
}

void extended_receiver::connection_ended(connection& which) {
    auto& ended = static_cast<lane&>(which);
    if (ended.buffer) {
        operation::guard held(op_);
        deliver_locked(ended);
    }
    pump();
}

void extended_receiver::deliver_locked(lane& from) {
    const filling done = *std::exchange(from.buffer, std::nullopt);
    hand_over_locked(filled_read(done.request, done.filled, static_cast<std::int64_t>(done.offset), false));
}

void extended_receiver::hand_over_locked(const completion& due) {
    const auto begin = static_cast<std::uint64_t>(due.offset);
    const bool noted = run_without_throwing([&] {
        delivered_.add(begin, begin + due.bytes);
        const std::uint64_t run = delivered_.run_end(base_);
        if (begin > run) {
            early_.emplace(begin, begin + due.bytes);
        }
        early_.erase(early_.begin(), early_.lower_bound(run));
    });
    if (!noted) {
        // The buffer is in no queue any more: whatever happens, it is called back here.
        fail_intake(operation_error::out_of_memory());
        op_.fail_channel_locked(operation_error::out_of_memory());
        op_.complete_locked(ended_read({due.buffer, 0, due.read_callback, due.argument}, true, 0));
        return;
    }
    handed_over_ += due.bytes;
    if (handed_over_ == announced_) {
        held_ = due;
    } else {
        op_.complete_locked(due);
    }
}

// ------------------------------------------------------------------------- the window

// Somebody else has the bytes behind these, so their own connections add nothing to them. In a buffer they
// would hold up, in the back end's memory, all that comes after them.
void extended_receiver::deliver_ended_locked() {
    for (std::size_t i = 0; i < connections().size(); ++i) {
        auto& each = lane_at(i);
        if (each.buffer && each.buffer->filled > 0 && each.left == 0 && !each.into_buffer &&
            each.buffer->offset < front()) {
            deliver_locked(each);
        }
    }
}

void extended_receiver::feed_from_spool_locked() {
    while (spool_ && !queue_.empty() && !intake_error()) {
        const std::uint64_t lowest = front();
        const auto found = spool_->find(lowest);
        if (!found) {
            return;
        }
        deliver_ended_locked();
        const read_request request = queue_.front();
        const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(found->length, request.length));
        auto due = filled_read(request, part, static_cast<std::int64_t>(lowest), false);
        due.source = &checked_;
        due.source_offset = found->position;
        taken_.add(lowest, lowest + part);
        queue_.pop_front();
        hand_over_locked(due);
    }
}

// Buffers to those that may read. @return whether somebody is held up
bool extended_receiver::hand_out_locked() {
    const std::uint64_t lowest = front();
    std::vector<lane*> wanting;
    std::size_t early = early_.size();
    for (std::size_t i = 0; i < connections().size(); ++i) {
        auto& each = lane_at(i);
        if (each.wants && !each.buffer && !each.may_spool) {
            wanting.push_back(&each);
        } else if (each.buffer && each.buffer->offset > lowest) {
            ++early;
        }
    }
    std::sort(wanting.begin(), wanting.end(), [](const lane* a, const lane* b) { return a->next < b->next; });
    bool held_up = false;
    for (auto* each : wanting) {
        const bool is_lowest = each->next == lowest;
        const bool in_window = is_lowest || (each->next - lowest < window_ && early < most_early_);
        if (!in_window || queue_.size() < (is_lowest ? 1U : 2U)) {
            held_up = true;
            continue;
        }
        if (is_lowest) {
            deliver_ended_locked();
        }
        each->buffer = filling{queue_.front(), 0, each->next, false};
        queue_.pop_front();
        early += is_lowest ? 0 : 1;
        each->turn.notify();
    }
    return held_up;
}

void extended_receiver::pump() {
    operation::guard held(op_);
    if (state_ != state::open || intake_error()) {
        return;
    }
    feed_from_spool_locked();
    if (over()) {
        return;
    }
    const bool held_up = hand_out_locked();
    const std::uint64_t lowest = front();
    // The lowest byte is here and finds no buffer: it is the back end that does not keep up.
    bool back_end_is_waited_for = queue_.empty() && spool_ && spool_->find(lowest);
    for (std::size_t i = 0; i < connections().size(); ++i) {
        auto& each = lane_at(i);
        const bool waits = each.wants && !each.buffer && !each.may_spool;
        if (waits && each.next == lowest) {
            back_end_is_waited_for = true;
        } else if (waits && relief_) {
            each.may_spool = true;
            each.turn.notify();
        }
    }
    if (back_end_is_waited_for) {
        relief_ = false;
    } else if (held_up && !relief_ && config_.spool.enabled) {
        arm_relief();
    }
    watch_client_locked(back_end_is_waited_for);
}

void extended_receiver::arm_relief() {
    if (relief_armed_) {
        return;
    }
    relief_armed_ = true;
    window_moved_ = false;
    relief_timer_.expires_after(config_.held_up_wait);
    run_until_memory([this] {
        relief_timer_.async_wait([this, alive = kept()](const boost::system::error_code& error) {
            relief_armed_ = false;
            if (!error && !over()) {
                relief_ = !window_moved_;
                if (!run_without_throwing([this] { pump(); })) {
                    fail_intake(operation_error::out_of_memory());
                }
            }
        });
    });
}

void extended_receiver::watch_client_locked(bool back_end_is_waited_for) {
    const bool back_end_reads = !queue_.empty() || held_ ||
                                std::any_of(connections().begin(), connections().end(), [](const auto& c) {
                                    return static_cast<const lane&>(*c).buffer.has_value();
                                });
    const bool watch = announced_start_ && back_end_reads && !back_end_is_waited_for && stores_ == 0;
    if (watch && !watching_) {
        waiting_for_client();
    } else if (!watch) {
        waited();
    }
    watching_ = watch;
}

// ------------------------------------------------------------------ part-filled buffers

void extended_receiver::arm_flush() {
    if (flush_armed_) {
        return;
    }
    flush_armed_ = true;
    flush_timer_.expires_after(config_.partial_block_wait);
    // A back end may wait for just the bytes that are here.
    run_until_memory([this] {
        flush_timer_.async_wait([this, alive = kept()](const boost::system::error_code& error) {
            flush_armed_ = false;
            if (!error && !over()) {
                flush();
            }
        });
    });
}

// Only the buffer that the back end can go on with: the others gain nothing by going out half empty.
void extended_receiver::flush() {
    operation::guard held(op_);
    bool again = true;
    while (again && state_ == state::open) {
        again = false;
        const std::uint64_t run = delivered_.run_end(base_);
        for (std::size_t i = 0; i < connections().size(); ++i) {
            auto& each = lane_at(i);
            if (!each.buffer || each.buffer->filled == 0 || each.buffer->offset != run) {
                continue;
            }
            if (!each.buffer->waited) {
                each.buffer->waited = true;
            } else if (each.into_buffer) {
                each.flush_due = true;
                each.stream->cancel_io();
            } else {
                deliver_locked(each);
                again = true;
                break;
            }
        }
    }
    for (std::size_t i = 0; i < connections().size(); ++i) {
        if (lane_at(i).buffer && lane_at(i).buffer->filled > 0) {
            arm_flush();
        }
    }
}

// ------------------------------------------------------------------------------- run

task<void> extended_receiver::run() {
    auto alive = kept();
    for (;;) {
        note_failures();
        pump();
        if (settle()) {
            break;
        }
        bool begins = false;
        {
            operation::guard held(op_);
            begins = begun_ && !announced_start_ && state_ == state::open && !intake_error();
        }
        if (begins) {
            announced_start_ = true;
            start_intake();
            co_await tell_first_data();
        } else {
            co_await op_.event().wait();
        }
    }
    stop_watch();
    flush_timer_.cancel();
    relief_timer_.cancel();
    co_await stop(aborted_ || stalled());
}

}  // namespace zorvan::gridftp
