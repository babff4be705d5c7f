// Memory chunks that grow, then one unlinked file for the rest; the part in memory stays there.
#include "spool.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "out_of_memory.h"
#include "server_log.h"
#include "transfer_errors.h"

namespace zorvan::gridftp {
namespace {

// Small files are the many: their first chunk costs little.
constexpr std::size_t first_chunk = 16 * 1024;
constexpr std::size_t later_chunk = 256 * 1024;

int open_unlinked(const std::string& directory) {
    const int file = ::open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (file >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)) {
        return file;
    }
    std::string name = directory + "/zorvan-spool-XXXXXX";
    const int named = ::mkostemp(name.data(), O_CLOEXEC);
    if (named >= 0) {
        (void)::unlink(name.c_str());
    }
    return named;
}

// The data connection is gone by now, in good order: not transfer_errors::aborted().
operation_error aborted_when_received() {
    return operation_error::channel(426, "Transfer aborted.");
}

}  // namespace

bool spool_budget::take_memory(std::uint64_t bytes) {
    const std::lock_guard lock(mutex_);
    if (memory_ + bytes > config_.memory || memory_ + file_ + bytes > config_.limit) {
        return false;
    }
    memory_ += bytes;
    return true;
}

bool spool_budget::take_file(std::uint64_t bytes) {
    const std::lock_guard lock(mutex_);
    if (memory_ + file_ + bytes > config_.limit) {
        return false;
    }
    file_ += bytes;
    return true;
}

void spool_budget::give_memory(std::uint64_t bytes) {
    const std::lock_guard lock(mutex_);
    memory_ -= bytes;
}

void spool_budget::give_file(std::uint64_t bytes) {
    const std::lock_guard lock(mutex_);
    file_ -= bytes;
}

std::uint64_t spool_budget::used() const {
    const std::lock_guard lock(mutex_);
    return memory_ + file_;
}

spool::~spool() {
    if (file_ >= 0) {
        ::close(file_);
    }
    budget_.give_memory(memory_taken_);
    budget_.give_file(file_size_);
}

std::span<unsigned char> spool::memory_room() {
    if (memory_over_) {
        return {};
    }
    if (chunks_.empty() || chunks_.back().used == chunks_.back().capacity) {
        const std::size_t wanted = chunks_.empty() ? first_chunk : later_chunk;
        if (!budget_.take_memory(wanted)) {
            memory_over_ = true;
            return {};
        }
        memory_taken_ += wanted;
        chunk added;
        added.bytes.reset(new unsigned char[wanted]);  // not cleared: it is written before it is read
        added.capacity = wanted;
        added.offset = memory_size_;
        chunks_.push_back(std::move(added));
    }
    auto& last = chunks_.back();
    return {last.bytes.get() + last.used, last.capacity - last.used};
}

void spool::memory_filled(std::size_t bytes) {
    chunks_.back().used += bytes;
    memory_size_ += bytes;
}

int spool::open_file() {
    memory_over_ = true;
    file_ = open_unlinked(config_.directory);
    if (file_ < 0) {
        const int reason = errno;
        log_line(ZORVAN_GFS_LOG_ERROR, "spool directory " + config_.directory + ": " + std::strerror(reason));
        return reason;
    }
    return 0;
}

int spool::append_to_file(std::span<const unsigned char> data) {
    if (!budget_.take_file(data.size())) {
        return ENOSPC;
    }
    std::size_t written = 0;
    while (written < data.size()) {
        const ssize_t count = ::pwrite(file_, data.data() + written, data.size() - written,
                                       static_cast<off_t>(file_size_ + written));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            const int reason = count < 0 ? errno : EIO;
            budget_.give_file(data.size());
            log_line(ZORVAN_GFS_LOG_ERROR,
                     "spool file in " + config_.directory + ": " + std::strerror(reason));
            return reason;
        }
        written += static_cast<std::size_t>(count);
    }
    file_size_ += data.size();
    return 0;
}

bool spool::fill(unsigned char* buffer, std::size_t length, std::uint64_t offset) noexcept {
    if (offset < memory_size_) {
        auto position =
            std::upper_bound(chunks_.begin(), chunks_.end(), offset,
                             [](std::uint64_t value, const chunk& c) { return value < c.offset; });
        for (--position; length > 0 && position != chunks_.end(); ++position) {
            const auto begin = static_cast<std::size_t>(offset - position->offset);
            const std::size_t part = std::min(length, position->used - begin);
            std::memcpy(buffer, position->bytes.get() + begin, part);
            buffer += part;
            length -= part;
            offset += part;
        }
    }
    while (length > 0) {
        const ssize_t count = ::pread(file_, buffer, length, static_cast<off_t>(offset - memory_size_));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        buffer += count;
        length -= static_cast<std::size_t>(count);
        offset += static_cast<std::uint64_t>(count);
    }
    return true;
}

bool checked_source::fill(unsigned char* buffer, std::size_t length, std::uint64_t offset) noexcept {
    if (!aborted_ && !broken_ && source_->fill(buffer, length, offset)) {
        return true;
    }
    // What comes behind a hole is of no use.
    broken_ = true;
    operation::guard held(op_);
    const bool told = run_without_throwing([this] {
        op_.fail_channel_locked(
            aborted_ ? aborted_when_received()
                     : operation_error::server(451, {}, "The received data could not be read back."));
    });
    if (!told) {
        op_.fail_channel_locked(operation_error::out_of_memory());
    }
    op_.wake_locked();
    return false;
}

spool_channel::spool_channel(operation& op, std::shared_ptr<spooled_data> source)
    : transfer_channel(op),
      source_(std::move(source)),
      checked_(op),
      base_(op.records.ranges.front().offset) {
    checked_.read_from(source_);
}

void spool_channel::on_read_locked(const read_request& request) {
    const std::uint64_t size = source_->size();
    if (op_.channel_error_locked()) {
        op_.complete_locked(ended_read(request, true, 0));
        return;
    }
    if (next_ == size) {
        // The end is all of an empty upload, so it is what an abort takes away.
        const bool failed = size == 0 && checked_.aborted();
        if (failed) {
            op_.fail_channel_locked(aborted_when_received());
        }
        op_.complete_locked(ended_read(request, failed, size));
        return;
    }
    const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(request.length, size - next_));
    auto due = filled_read(request, part, base_ + static_cast<std::int64_t>(next_), next_ + part == size);
    due.source = &checked_;
    due.source_offset = next_;
    next_ += part;
    op_.complete_locked(due);
}

void spool_channel::abort() noexcept {
    // Only bytes that have not been handed over yet make a failure of it.
    checked_.abort();
}

task<void> spool_channel::run() {
    auto alive = op_.shared_from_this();
    while (!op_.finished()) {
        co_await op_.event().wait();
    }
    operation::guard held(op_);
    if (op_.succeeded_locked() && next_ < source_->size() && !op_.channel_error_locked()) {
        op_.fail_channel_locked(transfer_errors::storage_ended_early());
    }
}

}  // namespace zorvan::gridftp
