// Connections and headers of an upload in extended mode; see block_intake.h.
#include "block_intake.h"

#include <algorithm>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>

#include "data_drain.h"
#include "out_of_memory.h"
#include "transfer_errors.h"

namespace zorvan::gridftp {
namespace {

// Ranges that do not touch: what an upload may cost in memory, however its blocks are scattered.
constexpr std::size_t most_ranges = 1U << 18U;

}  // namespace

block_intake::block_intake(asio::any_io_executor strand, const host_config& config, data_connector& connector,
                           async_event changed, const bounds& limits)
    : intake_strand_(std::move(strand)),
      intake_config_(config),
      source_(connector),
      changed_(std::move(changed)),
      bounds_(limits) {}

std::unique_ptr<block_intake::connection> block_intake::make_connection(std::unique_ptr<data_stream> stream) {
    return std::make_unique<connection>(std::move(stream), intake_strand_);
}

void block_intake::spawn(task<void> body) {
    ++running_;
    try {
        asio::co_spawn(intake_strand_, std::move(body),
                       [this, alive = kept_alive()](const std::exception_ptr& error) {
                           if (error) {
                               fail_intake(operation_error::out_of_memory());
                           }
                           --running_;
                           changed_.notify();
                       });
    } catch (...) {
        // It has not begun and will not end.
        --running_;
        throw;
    }
}

void block_intake::start_intake() {
    if (started_) {
        return;
    }
    started_ = true;
    auto kept = std::exchange(source_.kept, {});
    for (auto& stream : kept) {
        add(std::move(stream));
    }
    spawn(accept_all());
}

void block_intake::add(std::unique_ptr<data_stream> stream) {
    // The client's data come in while the back end has no read registered.
    stream->set_buffer_sizes(intake_config_.block_size * static_cast<std::size_t>(intake_config_.concurrency),
                             0);
    auto added = make_connection(std::move(stream));
    connection& serving = *added;
    connections_.push_back(std::move(added));
    spawn(serve(serving));
}

task<void> block_intake::accept_all() {
    while (!over()) {
        accepting_ = true;
        auto result = co_await source_.connect_more(connections_.empty());
        accepting_ = false;
        if (!result.stream) {
            if (!over() && connections_.empty()) {
                fail_intake(transfer_errors::not_connected(result));
            }
            co_return;
        }
        if (over()) {
            // It came too late for this transfer; the next one may have use for it.
            source_.kept.push_back(std::move(result.stream));
            co_return;
        }
        const auto open =
            std::count_if(connections_.begin(), connections_.end(), [](const auto& c) { return !c->closed; });
        if (static_cast<std::size_t>(open) >= intake_config_.most_connections) {
            result.stream->reset();
            fail_intake(transfer_errors::too_many_connections(426, intake_config_.most_connections));
            co_return;
        }
        add(std::move(result.stream));
    }
}

void block_intake::refuse(const char* text) {
    fail_intake(operation_error::channel(550, text));
}

void block_intake::fail_intake(operation_error reason) noexcept {
    if (!error_) {
        error_ = std::move(reason);
        wind_up();
    }
}

void block_intake::fail_intake(operation_error (*reason)()) noexcept {
    if (!run_without_throwing([&] { fail_intake(reason()); })) {
        fail_intake(operation_error::out_of_memory());
    }
}

// Every coroutine sees over() when it goes on.
void block_intake::wind_up() noexcept {
    wound_up_ = true;
    if (accepting_) {
        source_.stop_connecting();
    }
    for (const auto& each : connections_) {
        if (each->reading) {
            each->stream->cancel_io();
        }
        each->turn.notify();
    }
    changed_.notify();
}

void block_intake::reset_connections() noexcept {
    for (const auto& each : connections_) {
        each->stream->reset();
    }
}

task<bool> block_intake::read_header(connection& from) {
    while (from.header_bytes < from.header.size()) {
        from.reading = true;
        const auto result = co_await from.stream->read_some(
            asio::buffer(from.header.data() + from.header_bytes, from.header.size() - from.header_bytes));
        from.reading = false;
        from.header_bytes += result.bytes;
        if (result.bytes > 0) {
            client_moved();
        }
        if (error_) {
            co_return false;
        }
        if (from.header_bytes > 0 && (from.ended || ending_)) {
            refuse("Data came after the end of the data.");
            co_return false;
        }
        if (!result.error) {
            continue;
        }
        if (result.error == asio::error::eof || result.error == asio::error::connection_reset) {
            from.closed = true;
        }
        const bool at_rest = from.header_bytes == 0 && (from.ended || !from.sent_data);
        if (result.error == asio::error::operation_aborted ? !ending_ : !at_rest) {
            fail_intake(transfer_errors::broken_off);
        }
        co_return false;
    }
    from.header_bytes = 0;
    co_return !ending_;
}

bool block_intake::check_end_of_file(std::uint64_t announced) {
    if (announced_ends_) {
        refuse("The end of the file was announced twice.");
    } else if (announced == 0 || announced < ends_) {
        refuse("The announced number of ends of data does not fit those that came.");
    } else if (announced > intake_config_.most_connections) {
        fail_intake(transfer_errors::too_many_connections(550, intake_config_.most_connections));
    } else {
        announced_ends_ = announced;
    }
    return !error_;
}

bool block_intake::check(connection& from, const block_header& header) {
    switch (judge(header)) {
        case header_verdict::good:
            break;
        case header_verdict::unknown_bits:
            refuse("A block has descriptor bits that are not understood.");
            return false;
        case header_verdict::suspect:
            refuse("A block's sender suspects errors in it.");
            return false;
        case header_verdict::bad_count:
            refuse("An end of file carries data.");
            return false;
        case header_verdict::bad_offset:
            refuse("A block lies beyond the largest possible offset.");
            return false;
    }
    if (header.count > 0) {
        constexpr std::uint64_t top = 1ULL << 63U;
        const std::uint64_t end = header.offset + header.count;  // at most 2^63: judged above
        if (end > top - 1 - bounds_.shift) {
            refuse("A block lies beyond the largest possible offset.");
        } else if (header.offset + bounds_.shift < bounds_.begin) {
            refuse("A block lies before the restart offset.");
        } else if (bounds_.end && end + bounds_.shift > *bounds_.end) {
            fail_intake(operation_error::channel(552, "A block lies beyond the announced size."));
        } else if (!claimed_.add_new(header.offset + bounds_.shift, end + bounds_.shift)) {
            refuse("A part of the file came twice.");
        } else if (claimed_.size() > most_ranges) {
            refuse("The blocks are scattered too widely.");
        }
        from.sent_data = true;
    }
    const bool says_end = (header.bits & block_end_of_data) != 0;
    if (!error_ && (header.bits & block_closes) != 0 && !says_end && from.sent_data) {
        refuse("A data connection is closed without its end of data.");
    }
    return !error_;
}

void block_intake::count_end(connection& from) {
    from.ended = true;
    ++ends_;
    connection_ended(from);
    if (announced_ends_ && ends_ > *announced_ends_) {
        refuse("More ends of data came than were announced.");
    }
}

task<void> block_intake::serve(connection& from) {
    for (;;) {
        if (error_ || wound_up_) {
            co_return;
        }
        const bool more = co_await read_header(from);
        if (!more) {
            co_return;
        }
        const block_header header = decode(from.header);
        if (!check(from, header)) {
            co_return;
        }
        if ((header.bits & block_end_of_file) != 0 && !check_end_of_file(header.offset)) {
            co_return;
        }
        if (header.count > 0) {
            co_await take_block(from, header.offset + bounds_.shift, header.count);
            if (over()) {
                if (ending_ && !error_) {
                    refuse("Data came after the end of the data.");
                }
                co_return;
            }
        }
        if ((header.bits & block_end_of_data) != 0) {
            count_end(from);
        }
        if ((header.bits & block_closes) != 0) {
            from.closed = true;
        }
        if (!error_ && announced_ends_ && ends_ == *announced_ends_ && !ending_) {
            const bool all_ended = std::all_of(connections_.begin(), connections_.end(),
                                               [](const auto& c) { return c->ended || !c->sent_data; });
            if (!all_ended) {
                refuse("A data connection that was used has no end of data.");
                co_return;
            }
            ending_ = true;
            // Once more round first: what this connection has sent behind its end of data shows at once.
            asio::post(intake_strand_, [this, alive = kept_alive()] { wind_up(); });
        }
        if (error_ || from.closed) {
            co_return;
        }
    }
}

task<std::size_t> block_intake::read_data(connection& from, asio::mutable_buffer buffer) {
    from.reading = true;
    const auto result = co_await from.stream->read_some(buffer);
    from.reading = false;
    if (result.bytes > 0) {
        client_moved();
    }
    if (result.error && result.error != asio::error::operation_aborted) {
        fail_intake(transfer_errors::broken_off);
    }
    co_return result.bytes;
}

task<void> block_intake::stop(bool reset) {
    if (!over()) {
        fail_intake(transfer_errors::aborted);
    }
    if (reset) {
        reset_connections();
    }
    while (running_ > 0) {
        co_await changed_.wait();
    }
    const bool keeps =
        run_without_throwing([&] { source_.kept.reserve(source_.kept.size() + connections_.size()); });
    for (const auto& each : connections_) {
        if (each->closed || reset || (!error_ && !keeps)) {
            each->stream->close();
        } else if (error_) {
            drain_in_background(std::move(each->stream), intake_config_, intake_strand_);
        } else {
            source_.kept.push_back(std::move(each->stream));
        }
    }
    connections_.clear();
}

}  // namespace zorvan::gridftp
