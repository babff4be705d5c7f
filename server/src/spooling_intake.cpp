// Blocks to the spool; see spooling_intake.h.
#include "spooling_intake.h"

#include <algorithm>
#include <new>

#include "transfer_errors.h"

namespace zorvan::gridftp {
namespace {

constexpr std::size_t piece_size = 256 * 1024;

}  // namespace

spooling_intake::spooling_intake(host& shared, const asio::any_io_executor& strand, data_connector& connector,
                                 const async_event& event, const bounds& limits)
    : block_intake(strand, shared.config(), connector, event, limits),
      event_(event),
      begin_(limits.begin),
      spool_(std::make_shared<block_spool>(shared, strand, limits.begin)) {}

std::unique_ptr<block_intake::connection> spooling_intake::make_connection(
    std::unique_ptr<data_stream> stream) {
    return std::make_unique<lane>(std::move(stream), intake_strand_);
}

void spooling_intake::abort() noexcept {
    aborted_ = true;
    fail_intake(transfer_errors::aborted);
    reset_connections();
}

task<void> spooling_intake::take_block(connection& from, std::uint64_t offset, std::uint64_t count) {
    auto& lane_here = static_cast<lane&>(from);
    auto& piece = lane_here.piece;
    while (count > 0 && !over()) {
        piece.resize(
            std::max(piece.size(), static_cast<std::size_t>(std::min<std::uint64_t>(count, piece_size))));
        std::size_t filled = 0;
        // Whole pieces, as far as the block goes: the spool has an entry for each.
        const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(count, piece.size()));
        while (filled < wanted && !over()) {
            filled += co_await read_data(from, asio::buffer(piece.data() + filled, wanted - filled));
        }
        bytes_ += filled;
        std::size_t stored = 0;
        while (stored < filled && !intake_error()) {
            ++stores_;
            const auto result = co_await spool_->store(std::span(piece).subspan(stored, filled - stored),
                                                       offset + stored, may_open_file_);
            --stores_;
            stored += result.bytes;
            if (result.reason != 0) {
                fail_intake(transfer_errors::no_room_for_unknown_size);
            } else if (result.needs_file) {
                wants_file_ = true;
                event_.notify();
                while (!may_open_file_ && !intake_error()) {
                    co_await from.turn.wait();
                }
            }
        }
        client_moved();
        offset += filled;
        count -= filled;
    }
}

void spooling_intake::wake_waiting() {
    for (const auto& each : connections()) {
        each->turn.notify();
    }
}

task<void> spooling_intake::receive_all(const check_place& check) {
    start_intake();
    while (!at_rest()) {
        if (wants_file_ && !may_open_file_ && !intake_error()) {
            auto refusal = co_await check();
            if (refusal) {
                fail_intake(std::move(*refusal));
            }
            may_open_file_ = true;
            client_moved();
            wake_waiting();
            continue;
        }
        if (over()) {
            co_await event_.wait();
            continue;
        }
        const auto deadline = moved_ + intake_config_.data_stall;
        (void)co_await event_.wait_until(deadline);
        if (std::chrono::steady_clock::now() < moved_ + intake_config_.data_stall) {
            continue;
        }
        if (stores_ == 0 && any_connection()) {
            fail_intake(transfer_errors::stalled);
        } else {
            // The disk is waited for, or a connection, which has a time of its own.
            client_moved();
        }
    }
}

task<std::optional<operation_error>> spooling_intake::run(const check_place& check,
                                                          const std::function<bool()>& alive) {
    client_moved();
    try {
        co_await receive_all(check);
    } catch (const std::bad_alloc&) {
        fail_intake(operation_error::out_of_memory());
    }
    if (!intake_error() && !alive()) {
        fail_intake(transfer_errors::control_lost);
    }
    if (!intake_error() && claimed().run_end(begin_) - begin_ != claimed().bytes()) {
        fail_intake(operation_error::channel(550, "The data blocks leave a part of the file out."));
    }
    co_await stop(aborted_);
    co_return intake_error();
}

}  // namespace zorvan::gridftp
