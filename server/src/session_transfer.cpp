// A session's transfers: which channel moves the data, what comes before the back end is asked (the lock on
// the path, the place to append at), and whose failure counts in the end. Uploads of unknown size come here
// by way of session_spool.cpp.
#include <sys/stat.h>

#include <cerrno>
#include <limits>
#include <new>
#include <thread>
#include <utility>

#include "digest.h"
#include "extended_receiver.h"
#include "extended_sender.h"
#include "out_of_memory.h"
#include "server_log.h"
#include "session_implementation.h"
#include "stream_receiver.h"
#include "stream_sender.h"
#include "transfer_errors.h"

namespace zorvan::gridftp {
namespace {

constexpr std::chrono::milliseconds memory_pause{10};

operation_error too_large() {
    return operation_error::server(552, {}, "The file would be larger than files can be.");
}

/// Would a file with so many bytes from `begin` on have offsets that do not fit?
bool ends_beyond_files(std::int64_t begin, std::uint64_t size) {
    return size > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max() - begin);
}

/// @return false: there was no memory to go on with; run it again
task<bool> run_channel(transfer_channel& channel) {
    bool done = false;
    try {
        co_await channel.run();
        done = true;
    } catch (const std::bad_alloc&) {
        log_line(ZORVAN_GFS_LOG_ERROR, "out of memory in a transfer");
    }
    co_return done;
}

bool says_not_found(const operation_error& error) {
    return error.ftp_word == "PATH_NOT_FOUND" || error.errno_value == ENOENT;
}

}  // namespace

std::shared_ptr<progress_reporter> backend_session::implementation::make_reporter(transfer_events& events,
                                                                                  std::uint64_t kept) {
    return std::make_shared<progress_reporter>(strand, events, core->shared.config().update_interval, kept,
                                               [this] { return stopped(); });
}

task<transfer_outcome> backend_session::implementation::transfer(std::shared_ptr<operation> op,
                                                                 progress_reporter* reporter) {
    const running_operation current(*this, op);
    if (stopped()) {
        op->channel->abort();
    }
    const bool sends = op->kind() == operation_kind::send;
    auto* entry = sends ? core->module.table().send : core->module.table().recv;
    op->start([entry, kept = op.get(), session = core->handle](zorvan_gridftp_server_operation_t handle) {
        entry(handle, &kept->records.transfer_info, session);
    });
    while (!co_await run_channel(*op->channel)) {
        // The back end has to be brought to its end, and the channel uses what the caller lent it until then.
        op->channel->abort();
        std::this_thread::sleep_for(memory_pause);
    }

    transfer_outcome outcome;
    outcome.aborted = stopped();
    outcome.bytes = op->channel->bytes();
    std::optional<range_list> restart;
    if (reporter != nullptr) {
        reporter->stop();
        if (!sends && !outcome.aborted) {
            (void)run_without_throwing([&] { restart = reporter->unreported(); });
        }
    }
    operation::guard held(*op);
    outcome.store_confirmed = op->succeeded_locked();
    const auto& channel_error = op->channel_error_locked();
    // The first failure is the reason of the others; a channel that failed after the back end did is none.
    if (channel_error && (op->channel_failed_first_locked() || op->succeeded_locked())) {
        outcome.error = channel_error;
    } else {
        outcome.error = op->error_locked();
    }
    if (outcome.error) {
        outcome.restart = std::move(restart);
    }
    co_return outcome;
}

task<transfer_outcome> backend_session::send(send_request request, data_connector& connector,
                                             transfer_events& events) {
    const implementation::operation_scope scope(*implementation_);
    auto& self = *implementation_;
    if (self.core->module.table().send == nullptr) {
        transfer_outcome outcome;
        outcome.error = implementation::unsupported();
        co_return outcome;
    }
    auto op = co_await self.begin(operation_kind::send);
    op->records.path = std::move(request.path);
    op->records.ranges = std::move(request.ranges);
    op->records.transfer_info.pathname = op->records.path.c_str();
    op->records.transfer_info.stripe_count = 1;
    op->records.connections = request.connections;
    if (request.connections == 0) {
        op->channel = std::make_shared<stream_sender>(*op, self.strand, connector, events);
        co_return co_await self.transfer(op, nullptr);
    }
    const auto reporter = self.make_reporter(events, 0);
    const progress_reporter::scope stop_reporter(reporter);
    op->records.wants_progress = true;
    op->channel =
        std::make_shared<extended_sender>(*op, self.strand, connector, *reporter, request.offset_shift);
    reporter->look_at([op = op.get()] { return transfer_progress{op->channel->bytes(), {}, false}; });
    co_return co_await self.transfer(op, reporter.get());
}

task<transfer_outcome> backend_session::receive(receive_request request, data_connector& connector,
                                                transfer_events& events) {
    const implementation::operation_scope scope(*implementation_);
    auto& self = *implementation_;
    auto& shared = self.core->shared;
    transfer_outcome outcome;
    if (self.core->module.table().recv == nullptr) {
        outcome.error = implementation::unsupported();
        co_return outcome;
    }
    if (request.append || (request.announced_size && *request.announced_size == 0)) {
        request.announced_size.reset();
    }

    std::shared_ptr<progress_reporter> reporter;
    if (request.extended) {
        reporter = self.make_reporter(events, static_cast<std::uint64_t>(request.write_offset));
    }
    const progress_reporter::scope stop_reporter(reporter);
    if (request.announced_size && ends_beyond_files(request.write_offset, *request.announced_size)) {
        outcome.error = too_large();
        co_return outcome;
    }
    implementation::spooled received;
    const bool spools = !request.announced_size;
    if (spools) {
        if (!shared.config().spool.enabled) {
            outcome.error = operation_error::server(
                504, {}, "The size of the upload must be announced with ALLO before it.");
            co_return outcome;
        }
        if (request.extended) {
            received = co_await self.spool_blocks(request, connector, *reporter);
        } else {
            received = co_await self.spool_upload(request, connector, events);
        }
        outcome.bytes = received.bytes;
        if (received.error) {
            outcome.error = std::move(received.error);
            outcome.aborted = self.stopped();
            co_return outcome;
        }
    }

    auto lock =
        co_await shared.locks().acquire(self.core->record.collection + '\0' + request.path, self.event,
                                        shared.config().receive_wait, [&self] { return self.stopped(); });
    if (!lock) {
        outcome.aborted = self.stopped();
        outcome.error = self.stopped()
                            ? transfer_errors::aborted()
                            : operation_error::server(450, {}, "Another upload to this path is running.");
        co_return outcome;
    }
    if (request.append) {
        collecting_stat_sink sink;
        const auto found = co_await self.stat(request.path, true, sink);
        if (self.stopped()) {
            // What the stat had to say was dropped.
            outcome.error = transfer_errors::aborted();
            outcome.aborted = true;
            co_return outcome;
        }
        // Only a name that is surely not there makes this an ordinary store: what could not be looked at
        // would be overwritten.
        if (found.error && !says_not_found(*found.error)) {
            outcome.error = found.error;
            outcome.aborted = self.stopped();
            co_return outcome;
        }
        request.write_offset = !found.error && !sink.records.empty() && !S_ISDIR(sink.records.front().mode)
                                   ? sink.records.front().size
                                   : 0;
    }

    if (spools && ends_beyond_files(request.write_offset, received.data->size())) {
        outcome.error = too_large();
        co_return outcome;
    }

    auto op = co_await self.begin(operation_kind::receive);
    auto& records = op->records;
    records.path = std::move(request.path);
    records.ranges = {byte_range{request.write_offset, -1}};
    records.modification_time = request.modification_time;
    auto& info = records.transfer_info;
    info.pathname = records.path.c_str();
    info.truncate = request.write_offset == 0 ? 1 : 0;
    info.stripe_count = 1;
    const std::uint64_t size = spools ? received.data->size() : *request.announced_size;
    info.alloc_size = static_cast<std::int64_t>(size);
    std::optional<std::string> checked_md5;
    if (request.expected_checksum) {
        records.checksum = request.expected_checksum;
        records.algorithm = request.expected_checksum_algorithm;
        info.expected_checksum = records.checksum->c_str();
        info.expected_checksum_algorithm = records.algorithm->c_str();
        if (is_md5(*records.algorithm)) {
            checked_md5 = records.checksum;
        }
    }
    if (spools) {
        op->channel = std::make_shared<spool_channel>(*op, std::move(received.data));
    } else if (request.extended) {
        records.connections = shared.config().most_connections;
        op->channel = std::make_shared<extended_receiver>(*op, self.strand, connector, *reporter, size,
                                                          request.offset_shift);
    } else {
        op->channel = std::make_shared<stream_receiver>(*op, self.strand, connector, events, size,
                                                        std::move(checked_md5));
    }
    if (reporter) {
        records.wants_progress = true;
        const bool durable = self.core->module.has(ZORVAN_GRIDFTP_SERVER_DSI_DURABLE_RANGES);
        reporter->look_at([op = op.get(), durable] {
            auto progress = op->progress_of_receive();
            if (!durable) {
                progress.durable = {};
            }
            return progress;
        });
    }
    op->hold(std::move(lock));
    co_return co_await self.transfer(op, reporter.get());
}

}  // namespace zorvan::gridftp
