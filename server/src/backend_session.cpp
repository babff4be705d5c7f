// A session's operations without file data: start, stat, commands; and what all operations share.
#include <fmt/format.h>

#include <cstring>
#include <utility>

#include "server_log.h"
#include "session_implementation.h"

namespace zorvan::gridftp {

task<bool> collecting_stat_sink::entries(std::span<const stat_record> batch) {
    records.insert(records.end(), batch.begin(), batch.end());
    co_return true;
}

backend_session::backend_session(std::unique_ptr<implementation> made) : implementation_(std::move(made)) {}

backend_session::~backend_session() {
    close();
}

backend_session::implementation::implementation(std::shared_ptr<session_core> session,
                                                asio::any_io_executor on_strand)
    : core(std::move(session)), strand(std::move(on_strand)), event(strand) {}

task<std::shared_ptr<operation>> backend_session::implementation::begin(operation_kind kind) {
    // The entries of a session are called one at a time, and an entry may return long after its operation
    // was finished.
    const auto entry_is_running = [this] {
        const auto previous = last.lock();
        return previous && !previous->entry_over();
    };
    while (entry_is_running()) {
        co_await event.wait();
    }
    auto op = operation::create(kind, core, event);
    last = op;
    co_return op;
}

task<void> backend_session::implementation::wait_finished(operation& op) {
    while (!op.finished()) {
        co_await event.wait();
    }
}

void backend_session::implementation::interrupt() noexcept {
    if (running && running->channel) {
        running->channel->abort();
    } else if (running) {
        running->drop_output();
    }
    if (on_interrupt) {
        on_interrupt();
    }
    event.notify();
}

operation_error backend_session::implementation::unsupported() {
    operation_error error;
    error.plain_failure = true;
    return error;
}

task<login_outcome> backend_session::start(backend& module, host& shared, asio::any_io_executor strand,
                                           session_record record) {
    login_outcome outcome;
    auto core = std::make_shared<session_core>(module, shared, std::move(record));
    auto* entry = module.table().session_start;
    if (entry == nullptr) {
        outcome.error = implementation::unsupported();
        co_return outcome;
    }
    std::unique_ptr<implementation> made(new implementation(core, std::move(strand)));
    auto op = co_await made->begin(operation_kind::session_start);
    auto& info = op->records.session_info;
    info.user_name = core->record.user_name.c_str();
    info.client_address = core->record.client_address.c_str();
    info.collection = core->record.collection.c_str();
    info.certificate_subject =
        core->record.certificate_subject ? core->record.certificate_subject->c_str() : nullptr;
    op->start([entry, kept = op.get()](zorvan_gridftp_server_operation_t handle) {
        entry(handle, &kept->records.session_info);
    });
    co_await made->wait_finished(*op);
    if (auto error = op->error()) {
        outcome.error = std::move(*error);
        co_return outcome;
    }
    if (core->handle == nullptr) {
        outcome.error = operation_error::server(530, {}, "no storage session for this collection");
        co_return outcome;
    }
    auto values = op->take_values();
    outcome.user_name = values.user_name.value_or(core->record.user_name);
    outcome.home_directory = values.home_directory.value_or("/");
    if (outcome.home_directory.empty() || outcome.home_directory.front() != '/') {
        outcome.home_directory.insert(0, "/");
    }
    outcome.session.reset(new backend_session(std::move(made)));
    co_return outcome;
}

task<stat_outcome> backend_session::stat(std::string path, bool file_only, stat_sink& sink) {
    const implementation::operation_scope scope(*implementation_);
    co_return co_await implementation_->stat(std::move(path), file_only, sink);
}

task<stat_outcome> backend_session::implementation::stat(std::string path, bool file_only, stat_sink& sink) {
    stat_outcome outcome;
    auto* entry = core->module.table().stat;
    if (entry == nullptr) {
        outcome.error = unsupported();
        co_return outcome;
    }
    auto op = co_await begin(operation_kind::stat);
    op->records.path = std::move(path);
    op->records.stat_info.pathname = op->records.path.c_str();
    op->records.stat_info.file_only = file_only ? 1 : 0;
    const running_operation current(*this, op);
    if (stopped()) {
        op->drop_output();
    }
    op->start([entry, kept = op.get(), session = core->handle](zorvan_gridftp_server_operation_t handle) {
        entry(handle, &kept->records.stat_info, session);
    });
    bool lost = false;
    for (;;) {
        // Looked at before the entries are taken: none comes after the finish.
        const bool finished = op->finished();
        const auto batch = op->take_entries();
        if (!batch.empty() && !stopped()) {
            bool wanted = false;
            try {
                wanted = co_await sink.entries(batch);
            } catch (const std::exception&) {
                // The back end must still be waited for, and what is lost must not pass for the whole.
                wanted = false;
                lost = true;
            }
            outcome.entries += batch.size();
            op->entries_written(batch.size());
            if (!wanted) {
                op->drop_output();
            }
            continue;
        }
        if (finished) {
            break;
        }
        co_await event.wait();
    }
    outcome.error = op->error();
    if (lost && !outcome.error) {
        outcome.error = operation_error::out_of_memory();
    }
    outcome.aborted = stopped();
    co_return outcome;
}

task<command_outcome> backend_session::command(command_request request, progress_sink& sink) {
    const implementation::operation_scope scope(*implementation_);
    auto& self = *implementation_;
    command_outcome outcome;
    auto* entry = self.core->module.table().command;
    if (entry == nullptr) {
        outcome.error = implementation::unsupported();
        co_return outcome;
    }
    // What only reads need not be waited for once nobody wants to know.
    const bool only_reads = request.command == ZORVAN_GRIDFTP_SERVER_COMMAND_CKSM;
    user_limit::place place;
    if (only_reads) {
        auto& checksums = self.core->shared.checksums();
        place = checksums.take(self.core->record.user_name);
        if (!place) {
            outcome.error = operation_error::server(
                450, {},
                fmt::format(
                    "{} checksums are running for you, as many as checksums_per_user allows; try again "
                    "when one has ended.",
                    checksums.most()));
            co_return outcome;
        }
    }
    auto op = co_await self.begin(operation_kind::command);
    op->hold(std::move(place));
    auto& records = op->records;
    records.path = std::move(request.path);
    records.from_path = std::move(request.from_path);
    records.algorithm = std::move(request.checksum_algorithm);
    records.wants_progress = request.wants_progress;
    auto& info = records.command_info;
    info.command = request.command;
    info.pathname = records.path.c_str();
    info.from_pathname = records.from_path ? records.from_path->c_str() : nullptr;
    info.cksm_offset = request.checksum_offset;
    info.cksm_length = request.checksum_length;
    info.cksm_alg = records.algorithm ? records.algorithm->c_str() : nullptr;
    const implementation::running_operation current(self, op);
    op->start(
        [entry, kept = op.get(), session = self.core->handle](zorvan_gridftp_server_operation_t handle) {
            entry(handle, &kept->records.command_info, session);
        });
    for (;;) {
        const bool finished = op->finished();
        const auto texts = op->take_progress();
        for (const auto& text : texts) {
            if (!self.stopped()) {
                try {
                    co_await sink.progress(text);
                } catch (const std::exception&) {
                    self.gone = true;
                }
            }
        }
        if (!texts.empty()) {
            continue;
        }
        if (finished) {
            break;
        }
        if (only_reads && self.stopped()) {
            op->abandon();
            outcome.aborted = true;
            co_return outcome;
        }
        co_await self.event.wait();
    }
    outcome.error = op->error();
    outcome.text = op->take_values().text;
    outcome.aborted = self.stopped();
    co_return outcome;
}

void backend_session::abort() noexcept {
    if (implementation_ && implementation_->busy) {
        implementation_->aborted = true;
        implementation_->interrupt();
    }
}

void backend_session::client_gone() noexcept {
    if (implementation_) {
        implementation_->gone = true;
        implementation_->interrupt();
    }
}

void backend_session::close() noexcept {
    implementation_.reset();
}

bool backend_session::busy() const noexcept {
    return implementation_ && implementation_->busy;
}

}  // namespace zorvan::gridftp
