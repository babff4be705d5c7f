// The scripted host: operations, delivery of callbacks and the C functions of the interface.
//
// Threads: each operation that registers a read or write gets one delivery thread; the operation's mutex
// guards everything and is never held while a callback runs.
#include "scripted_host.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "call_trace.h"
#include "faults.h"
#include "host_refusals.h"

using namespace module_test;

namespace {

constexpr auto patience = std::chrono::seconds(20);

std::mutex host_mutex;
std::optional<std::string> config_string;
int config_string_queries = 0;
bool config_data_refused = false;
std::vector<HostLogLine> log_lines;

std::mutex refusal_mutex;
long calls_left = 0;  // 0: none is refused
bool refused_ever_after = false;
std::string refused_call;

// Whether this call is one to refuse.
bool refuse_call(const char* name) {
    const OutOfModule outside;
    const std::lock_guard lock(refusal_mutex);
    const bool first = calls_left > 0 && --calls_left == 0;
    const bool later = refused_ever_after && !refused_call.empty();
    if (first) refused_call = name;
    return first || later;
}

char* copy_text(const std::string& text) {
    return strdup(text.c_str());
}

std::optional<std::string> text_or_none(const char* text) {
    return text == nullptr ? std::nullopt : std::optional<std::string>(text);
}

StatEntry copy_entry(const zorvan_gridftp_server_stat_t& stat) {
    EXPECT_NE(stat.name, nullptr);
    return {stat.mode,
            stat.nlink,
            stat.name == nullptr ? "" : stat.name,
            text_or_none(stat.symlink_target),
            stat.uid,
            stat.gid,
            stat.size,
            stat.atime,
            stat.ctime,
            stat.mtime,
            stat.dev,
            stat.ino,
            stat.reserved};
}

}  // namespace

namespace module_test {

void host_reset() {
    host_refuse(0, false);
    const std::lock_guard lock(host_mutex);
    config_string.reset();
    config_string_queries = 0;
    config_data_refused = false;
    log_lines.clear();
}

void host_refuse(long nth, bool ever_after) {
    const std::lock_guard lock(refusal_mutex);
    calls_left = nth;
    refused_ever_after = ever_after;
    refused_call.clear();
}

std::string host_refused_call() {
    const std::lock_guard lock(refusal_mutex);
    return refused_call;
}

void host_refuse_config_data() {
    const std::lock_guard lock(host_mutex);
    config_data_refused = true;
}

void host_set_config_string(std::optional<std::string> path) {
    const std::lock_guard lock(host_mutex);
    config_string = std::move(path);
}

int host_config_string_queries() {
    const std::lock_guard lock(host_mutex);
    return config_string_queries;
}

std::vector<HostLogLine> host_log() {
    const std::lock_guard lock(host_mutex);
    return log_lines;
}

}  // namespace module_test

zorvan_gridftp_server_operation_s::zorvan_gridftp_server_operation_s() = default;

zorvan_gridftp_server_operation_s::~zorvan_gridftp_server_operation_s() {
    if (!closed_) close();
}

void zorvan_gridftp_server_operation_s::hold() {
    const std::lock_guard lock(mutex);
    held_ = true;
}

void zorvan_gridftp_server_operation_s::grant(int callbacks) {
    const std::lock_guard lock(mutex);
    granted_ += callbacks;
    changed_.notify_all();
}

void zorvan_gridftp_server_operation_s::release() {
    const std::lock_guard lock(mutex);
    held_ = false;
    changed_.notify_all();
}

bool zorvan_gridftp_server_operation_s::wait_delivered(int callbacks) {
    const OutOfModule outside;
    std::unique_lock lock(mutex);
    return changed_.wait_for(lock, patience, [&] { return delivered >= callbacks; });
}

bool zorvan_gridftp_server_operation_s::wait_outstanding(int registrations) {
    const OutOfModule outside;
    std::unique_lock lock(mutex);
    return changed_.wait_for(lock, patience, [&] {
        return static_cast<int>(pending_reads_.size() + pending_writes_.size()) >= registrations;
    });
}

bool zorvan_gridftp_server_operation_s::wait_finished() {
    const OutOfModule outside;
    std::unique_lock lock(mutex);
    return changed_.wait_for(lock, patience, [&] { return !finishes.empty(); });
}

void zorvan_gridftp_server_operation_s::close() {
    {
        std::unique_lock lock(mutex);
        closed_ = true;
        held_ = false;
        changed_.notify_all();
        const bool done = changed_.wait_for(lock, patience, [&] {
            return !finishes.empty() && delivered == accepted && pending_writes_.empty() &&
                   pending_reads_.empty();
        });
        EXPECT_TRUE(done) << "not finished, or a read or write was never called back";
        closing_ = true;
        changed_.notify_all();
    }
    if (delivery_.joinable()) delivery_.join();
    check_rules();
}

void zorvan_gridftp_server_operation_s::check_rules() {
    const std::lock_guard lock(mutex);
    // A second finished call is allowed to transfers alone, and only with the same result.
    EXPECT_LE(finishes.size(), 2u);
    if (finishes.size() == 2) {
        EXPECT_EQ(finishes[0].kind, Ending::transfer);
        EXPECT_EQ(finishes[1].kind, Ending::transfer);
        EXPECT_EQ(finishes[0].result, finishes[1].result);
        EXPECT_NE(finishes[0].result, ZORVAN_SUCCESS);
    }
    for (const auto result : own_errors_)
        release_result(result);
    if (finishes.empty()) return;
    const auto result = finishes.front().result;
    bool own = false;
    for (const auto error : own_errors_)
        own = own || error == result;
    if (!own && finishes.front().error.present) {
        EXPECT_NE(zorvan_error_peek(result), nullptr) << "an error was released after it was handed over";
        release_result(result);
    }
}

const Finish& zorvan_gridftp_server_operation_s::finish() const {
    const std::lock_guard lock(mutex);
    static const Finish none;
    EXPECT_FALSE(finishes.empty()) << "the operation was not finished";
    return finishes.empty() ? none : finishes.front();
}

std::string zorvan_gridftp_server_operation_s::content() const {
    const std::lock_guard lock(mutex);
    std::string all;
    for (const auto& write : writes) {
        const auto end = static_cast<size_t>(write.offset) + write.data.size();
        if (all.size() < end) all.resize(end, '?');
        all.replace(static_cast<size_t>(write.offset), write.data.size(), write.data);
    }
    return all;
}

void zorvan_gridftp_server_operation_s::send_in_blocks(const std::string& data, int64_t offset) {
    for (size_t at = 0; at < data.size(); at += block_size)
        upload.push_back({offset + static_cast<int64_t>(at), data.substr(at, block_size)});
}

void zorvan_gridftp_server_operation_s::record_finish(Finish finish) {
    std::function<void()> hook;
    {
        const std::lock_guard lock(mutex);
        finishes.push_back(std::move(finish));
        if (finishes.size() == 1) {
            finish_at_callback = begun_;
            hook = on_finished;
        }
    }
    if (hook) hook();
    const std::lock_guard lock(mutex);
    changed_.notify_all();
}

zorvan_result_t zorvan_gridftp_server_operation_s::own_error(const char* text) {
    const auto result = zorvan_error_put(zorvan_error_construct_error(
        nullptr, nullptr, ZORVAN_ERROR_TYPE_GENERIC, "host", __func__, __LINE__, "%s", text));
    own_errors_.push_back(result);
    return result;
}

zorvan_result_t zorvan_gridftp_server_operation_s::add_write(unsigned char* buffer, size_t length,
                                                             int64_t offset, int stripe,
                                                             zorvan_gridftp_server_write_callback_t callback,
                                                             void* argument) {
    const std::lock_guard lock(mutex);
    EXPECT_EQ(stripe, -1);
    EXPECT_GT(length, 0u);
    ++write_registrations_;
    if (refuse_call("register_write")) return own_error("write refused");
    if (refuse_write != 0 && write_registrations_ >= refuse_write) return own_error("write refused");
    if (broken_) return own_error("data channel broken");
    if (!finishes.empty()) return own_error("operation finished");
    bytes_registered_ += static_cast<int64_t>(length);
    // The write that crosses the limit is accepted and fails; the following are refused.
    if (channel_breaks_after && bytes_registered_ > *channel_breaks_after) broken_ = true;
    const std::string copy(reinterpret_cast<const char*>(buffer), length);
    registered_writes.push_back({offset, copy});
    pending_writes_.push_back({buffer, length, offset, copy, broken_, callback, argument});
    ++accepted;
    max_outstanding = std::max(max_outstanding, static_cast<int>(pending_writes_.size()));
    start_delivery();
    return ZORVAN_SUCCESS;
}

zorvan_result_t zorvan_gridftp_server_operation_s::add_read(unsigned char* buffer, size_t length,
                                                            zorvan_gridftp_server_read_callback_t callback,
                                                            void* argument) {
    const std::lock_guard lock(mutex);
    EXPECT_GT(length, 0u);
    ++read_registrations_;
    if (refuse_call("register_read")) return own_error("read refused");
    if (read_registrations_ == refuse_read) return own_error("read refused");
    if (!finishes.empty()) return own_error("operation finished");
    read_lengths.push_back(length);
    pending_reads_.push_back({buffer, length, callback, argument});
    ++accepted;
    max_outstanding = std::max(max_outstanding, static_cast<int>(pending_reads_.size()));
    start_delivery();
    return ZORVAN_SUCCESS;
}

void zorvan_gridftp_server_operation_s::start_delivery() {
    changed_.notify_all();
    if (!delivery_.joinable()) delivery_ = std::thread([this] { deliver(); });
}

bool zorvan_gridftp_server_operation_s::deliverable() const {
    if (held_ && granted_ == 0) return false;
    return !pending_writes_.empty() || !pending_reads_.empty();
}

size_t zorvan_gridftp_server_operation_s::pick(Pick how, size_t count) {
    if (how == Pick::oldest) return 0;
    if (how == Pick::newest) return count - 1;
    random_ = random_ * 1664525u + 1013904223u;
    return (random_ >> 8) % count;
}

void zorvan_gridftp_server_operation_s::deliver() {
    std::unique_lock lock(mutex);
    for (;;) {
        changed_.wait(lock, [&] { return closing_ || deliverable(); });
        if (!deliverable()) return;
        if (held_) --granted_;
        ++begun_;
        if (begun_ == fail_callback) broken_ = true;
        if (!pending_writes_.empty())
            deliver_write(lock);
        else
            deliver_read(lock);
        ++delivered;
        changed_.notify_all();
    }
}

void zorvan_gridftp_server_operation_s::deliver_write(std::unique_lock<std::mutex>& lock) {
    const auto index = pick(write_pick, pending_writes_.size());
    const Write write = pending_writes_[index];
    pending_writes_.erase(pending_writes_.begin() + static_cast<std::ptrdiff_t>(index));
    const bool unchanged = std::memcmp(write.buffer, write.copy.data(), write.length) == 0;
    EXPECT_TRUE(unchanged) << "a lent buffer was written to";
    zorvan_result_t result = ZORVAN_SUCCESS;
    const bool fails = write.fails || (fail_callback != 0 && broken_);
    if (fails)
        result = own_error("data channel broken");
    else
        writes.push_back({write.offset, write.copy});
    lock.unlock();
    {
        const InModule inside;
        write.callback(this, result, write.buffer, fails ? 0 : write.length, write.argument);
    }
    lock.lock();
}

void zorvan_gridftp_server_operation_s::deliver_read(std::unique_lock<std::mutex>& lock) {
    const auto index = pick(read_pick, pending_reads_.size());
    const Read read = pending_reads_[index];
    pending_reads_.erase(pending_reads_.begin() + static_cast<std::ptrdiff_t>(index));
    zorvan_result_t result = ZORVAN_SUCCESS;
    size_t nbytes = 0;
    int64_t offset = bytes_received_;
    bool eof = true;
    if (broken_) {
        result = own_error("data channel broken");
        offset = 0;
    } else if (!upload.empty()) {
        auto& block = upload.front();
        nbytes = std::min(block.data.size(), read.length);
        offset = block.offset;
        if (nbytes > 0) std::memcpy(read.buffer, block.data.data(), nbytes);
        if (nbytes == block.data.size()) {
            upload.pop_front();
        } else {
            block.data.erase(0, nbytes);
            block.offset += static_cast<int64_t>(nbytes);
        }
        bytes_received_ += static_cast<int64_t>(nbytes);
        eof = upload.empty() && eof_with_data;
    } else if (upload_fails) {
        result = own_error("data channel broken");
        offset = 0;
    }
    lock.unlock();
    {
        const InModule inside;
        read.callback(this, result, read.buffer, nbytes, offset, eof ? 1 : 0, read.argument);
    }
    lock.lock();
}

// ------------------------------------------------------------------------------------- the C interface

extern "C" {

void zorvan_gridftp_server_finished_session_start(zorvan_gridftp_server_operation_t op,
                                                  zorvan_result_t result, void* session_handle,
                                                  const char* user_name, const char* home_directory) {
    const OutOfModule outside;
    trace_add("finished_session_start");
    op->record_finish({Ending::session_start, result, view_result(result), session_handle,
                       text_or_none(user_name), text_or_none(home_directory)});
}

void zorvan_gridftp_server_finished_command(zorvan_gridftp_server_operation_t op, zorvan_result_t result,
                                            const char* text) {
    const OutOfModule outside;
    trace_add("finished_command");
    op->record_finish({Ending::command, result, view_result(result), nullptr, text_or_none(text), {}});
}

void zorvan_gridftp_server_intermediate_command(zorvan_gridftp_server_operation_t op, zorvan_result_t result,
                                                const char* text) {
    const OutOfModule outside;
    trace_add("intermediate_command");
    const std::lock_guard lock(op->mutex);
    op->intermediate.emplace_back(result, text == nullptr ? "" : text);
}

void zorvan_gridftp_server_finished_stat(zorvan_gridftp_server_operation_t op, zorvan_result_t result,
                                         const zorvan_gridftp_server_stat_t* stats, int count) {
    const OutOfModule outside;
    trace_add("finished_stat");
    {
        const std::lock_guard lock(op->mutex);
        op->last_batch = count;
        for (int i = 0; i < count; ++i)
            op->entries.push_back(copy_entry(stats[i]));
    }
    op->record_finish({Ending::stat, result, view_result(result), nullptr, {}, {}});
}

void zorvan_gridftp_server_finished_stat_partial(zorvan_gridftp_server_operation_t op, zorvan_result_t result,
                                                 const zorvan_gridftp_server_stat_t* stats, int count) {
    const OutOfModule outside;
    trace_add("finished_stat_partial");
    const std::lock_guard lock(op->mutex);
    EXPECT_EQ(result, ZORVAN_SUCCESS);
    EXPECT_TRUE(op->finishes.empty()) << "a partial call after the final one";
    op->partial_batches.push_back(count);
    for (int i = 0; i < count; ++i)
        op->entries.push_back(copy_entry(stats[i]));
}

void zorvan_gridftp_server_begin_transfer(zorvan_gridftp_server_operation_t op, int event_mask,
                                          void* event_argument) {
    const OutOfModule outside;
    trace_add("begin_transfer");
    EXPECT_EQ(event_mask, 0);
    EXPECT_EQ(event_argument, nullptr);
    const std::lock_guard lock(op->mutex);
    ++op->begin_transfers;
}

void zorvan_gridftp_server_finished_transfer(zorvan_gridftp_server_operation_t op, zorvan_result_t result) {
    const OutOfModule outside;
    trace_add("finished_transfer");
    op->record_finish({Ending::transfer, result, view_result(result), nullptr, {}, {}});
}

zorvan_result_t zorvan_gridftp_server_register_read(zorvan_gridftp_server_operation_t op,
                                                    unsigned char* buffer, size_t length,
                                                    zorvan_gridftp_server_read_callback_t callback,
                                                    void* user_argument) {
    const OutOfModule outside;
    trace_add("register_read");
    return op->add_read(buffer, length, callback, user_argument);
}

zorvan_result_t zorvan_gridftp_server_register_write(zorvan_gridftp_server_operation_t op,
                                                     unsigned char* buffer, size_t length,
                                                     zorvan_off_t offset, int stripe,
                                                     zorvan_gridftp_server_write_callback_t callback,
                                                     void* user_argument) {
    const OutOfModule outside;
    trace_add("register_write");
    return op->add_write(buffer, length, offset, stripe, callback, user_argument);
}

void zorvan_gridftp_server_update_bytes_recvd(zorvan_gridftp_server_operation_t op, zorvan_off_t nbytes,
                                              zorvan_off_t offset) {
    const OutOfModule outside;
    const std::lock_guard lock(op->mutex);
    op->bytes_updates.emplace_back(nbytes, offset);
}

void zorvan_gridftp_server_update_range_recvd(zorvan_gridftp_server_operation_t op, zorvan_off_t offset,
                                              zorvan_off_t length) {
    const OutOfModule outside;
    trace_add("update_range_recvd");
    const std::lock_guard lock(op->mutex);
    op->range_updates.emplace_back(offset, length);
}

zorvan_result_t zorvan_gridftp_server_get_read_range(zorvan_gridftp_server_operation_t op,
                                                     zorvan_off_t* offset, zorvan_off_t* length) {
    const OutOfModule outside;
    trace_add("get_read_range");
    const std::lock_guard lock(op->mutex);
    *offset = 0;
    *length = 0;
    if (!op->read_ranges.empty()) {
        *offset = op->read_ranges.front().first;
        *length = op->read_ranges.front().second;
        op->read_ranges.pop_front();
    }
    return ZORVAN_SUCCESS;
}

zorvan_result_t zorvan_gridftp_server_get_write_range(zorvan_gridftp_server_operation_t op,
                                                      zorvan_off_t* offset, zorvan_off_t* length) {
    const OutOfModule outside;
    trace_add("get_write_range");
    const std::lock_guard lock(op->mutex);
    if (refuse_call("get_write_range") || !op->write_range) return ZORVAN_FAILURE;
    *offset = op->write_range->first;
    *length = op->write_range->second;
    return ZORVAN_SUCCESS;
}

zorvan_result_t zorvan_gridftp_server_get_block_size(zorvan_gridftp_server_operation_t op, size_t* size) {
    *size = op->block_size;
    return ZORVAN_SUCCESS;
}

zorvan_result_t zorvan_gridftp_server_get_optimal_concurrency(zorvan_gridftp_server_operation_t op,
                                                              int* count) {
    *count = op->concurrency;
    return ZORVAN_SUCCESS;
}

zorvan_result_t zorvan_gridftp_server_get_recv_modification_time(zorvan_gridftp_server_operation_t op,
                                                                 int64_t* time) {
    if (refuse_call("get_recv_modification_time") || !op->modification_time) return ZORVAN_FAILURE;
    *time = *op->modification_time;
    return ZORVAN_SUCCESS;
}

zorvan_result_t zorvan_gridftp_server_get_update_interval(zorvan_gridftp_server_operation_t op,
                                                          int* seconds) {
    *seconds = op->update_interval;
    return ZORVAN_SUCCESS;
}

zorvan_result_t zorvan_gridftp_server_get_config_string(zorvan_gridftp_server_operation_t op, char** out) {
    const OutOfModule outside;
    EXPECT_EQ(op, nullptr);
    const std::lock_guard lock(host_mutex);
    ++config_string_queries;
    if (refuse_call("get_config_string")) return ZORVAN_FAILURE;
    *out = config_string ? copy_text(*config_string) : nullptr;
    return ZORVAN_SUCCESS;
}

zorvan_result_t zorvan_gridftp_server_get_config_data(zorvan_gridftp_server_operation_t op, const char* key,
                                                      char** out) {
    const OutOfModule outside;
    trace_add("get_config_data");
    {
        const std::lock_guard lock(host_mutex);
        if (refuse_call("get_config_data") || config_data_refused) return ZORVAN_FAILURE;
    }
    const std::lock_guard lock(op->mutex);
    op->config_keys.emplace_back(key);
    *out = op->config_data ? copy_text(*op->config_data) : nullptr;
    return ZORVAN_SUCCESS;
}

void zorvan_gfs_log_message(int level, const char* format, ...) {
    const OutOfModule outside;
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const std::lock_guard lock(host_mutex);
    log_lines.push_back({level, text});
}

}  // extern "C"
