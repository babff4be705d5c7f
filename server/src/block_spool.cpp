// A log of pieces and its index; see block_spool.h.
#include "block_spool.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <iterator>

#include "pool_wait.h"

namespace zorvan::gridftp {

growing_spool::appended growing_spool::append(std::span<const unsigned char> data) {
    const std::lock_guard lock(mutex_);
    appended result;
    result.position = spool_.size();
    while (!data.empty() && !file_open_) {
        const auto room = spool_.memory_room();
        if (room.empty()) {
            result.needs_file = true;
            return result;
        }
        const std::size_t part = std::min(room.size(), data.size());
        std::memcpy(room.data(), data.data(), part);
        spool_.memory_filled(part);
        data = data.subspan(part);
        result.bytes += part;
    }
    if (!data.empty()) {
        result.reason = spool_.append_to_file(data);
        result.bytes += result.reason == 0 ? data.size() : 0;
    }
    return result;
}

int growing_spool::open_file() {
    const std::lock_guard lock(mutex_);
    if (file_open_) {
        return 0;
    }
    const int reason = spool_.open_file();
    file_open_ = reason == 0;
    return reason;
}

bool growing_spool::fill(unsigned char* buffer, std::size_t length, std::uint64_t position) noexcept {
    const std::lock_guard lock(mutex_);
    return spool_.fill(buffer, length, position);
}

block_spool::block_spool(host& shared, asio::any_io_executor strand, std::uint64_t begin)
    : shared_(shared),
      strand_(std::move(strand)),
      begin_(begin),
      log_(std::make_shared<growing_spool>(shared.spool(), shared.config().spool)) {}

task<growing_spool::appended> block_spool::store(std::span<const unsigned char> data, std::uint64_t offset,
                                                 bool may_open_file) {
    growing_spool::appended result;
    // A variable: g++ 12 destroys what a temporary in the await has captured twice.
    std::function<void()> job = [&result, data, may_open_file, log = log_] {
        result = log->append(data);
        if (result.needs_file && may_open_file) {
            result.reason = log->open_file();
            result.needs_file = false;
        }
    };
    co_await on_pool(shared_, strand_, std::move(job));
    if (result.bytes == 0) {
        co_return result;
    }
    const auto next = index_.upper_bound(offset);
    if (next != index_.begin()) {
        auto& [begin, before] = *std::prev(next);
        if (begin + before.length == offset && before.position + before.length == result.position) {
            before.length += result.bytes;
            bytes_ += result.bytes;
            co_return result;
        }
    }
    index_.emplace_hint(next, offset, piece{result.position, result.bytes});
    bytes_ += result.bytes;
    co_return result;
}

std::optional<block_spool::piece> block_spool::find(std::uint64_t offset) const {
    const auto next = index_.upper_bound(offset);
    if (next == index_.begin()) {
        return std::nullopt;
    }
    const auto& [begin, found] = *std::prev(next);
    const std::uint64_t inside = offset - begin;
    if (inside >= found.length) {
        return std::nullopt;
    }
    return piece{found.position + inside, found.length - inside};
}

bool block_spool::fill(unsigned char* buffer, std::size_t length, std::uint64_t offset) noexcept {
    offset += begin_;
    while (length > 0) {
        const auto found = find(offset);
        if (!found) {
            return false;
        }
        const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(length, found->length));
        if (!log_->fill(buffer, part, found->position)) {
            return false;
        }
        buffer += part;
        length -= part;
        offset += part;
    }
    return true;
}

}  // namespace zorvan::gridftp
