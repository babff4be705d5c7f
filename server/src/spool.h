// Where an upload of unknown size waits until its end has come: in memory first, then in an unlinked
// temporary file. What it may take in all is bounded for the process.
//
// A spool is written by one coroutine and its pool jobs, one at a time, and constant once it is complete;
// then any thread may read it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "host_config.h"
#include "operation.h"
#include "transfer_channel.h"

namespace zorvan::gridftp {

/// The process-wide totals. Thread-safe.
class spool_budget {
  public:
    explicit spool_budget(const spool_config& config) : config_(config) {}
    bool take_memory(std::uint64_t bytes);
    bool take_file(std::uint64_t bytes);
    void give_memory(std::uint64_t bytes);
    void give_file(std::uint64_t bytes);
    std::uint64_t used() const;

  private:
    const spool_config config_;
    mutable std::mutex mutex_;
    std::uint64_t memory_ = 0;
    std::uint64_t file_ = 0;
};

/// An upload that was received before its back end was asked. Constant once it is complete.
class spooled_data : public late_source {
  public:
    /// In bytes.
    virtual std::uint64_t size() const noexcept = 0;
};

class spool final : public spooled_data {
  public:
    spool(spool_budget& budget, const spool_config& config) : budget_(budget), config_(config) {}
    spool(const spool&) = delete;
    spool& operator=(const spool&) = delete;
    /// Everything goes back: memory, file, budget.
    ~spool() override;

    /// Room to receive into; empty when memory is used up or the file has been begun.
    std::span<unsigned char> memory_room();
    /// So many bytes were put into the room.
    void memory_filled(std::size_t bytes);

    /// Open the temporary file. May block. @return an errno value, 0 = open
    int open_file();
    /// Append to the file. May block. @return an errno value; ENOSPC also when the budget is used up
    int append_to_file(std::span<const unsigned char> data);

    std::uint64_t size() const noexcept override { return memory_size_ + file_size_; }

    /// May block on the file. @return false: it cannot be read
    bool fill(unsigned char* buffer, std::size_t length, std::uint64_t offset) noexcept override;

  private:
    struct chunk {
        std::unique_ptr<unsigned char[]> bytes;
        std::size_t capacity = 0;
        std::size_t used = 0;
        std::uint64_t offset = 0;
    };
    spool_budget& budget_;
    const spool_config& config_;
    std::vector<chunk> chunks_;
    bool memory_over_ = false;
    std::uint64_t memory_size_ = 0;
    std::uint64_t memory_taken_ = 0;
    int file_ = -1;
    std::uint64_t file_size_ = 0;
};

/// A spool as the callbacks of one operation read it: what has been queued for a callback is still refused
/// its bytes after an abort, and what cannot be read fails the operation's channel.
class checked_source final : public late_source {
  public:
    explicit checked_source(operation& op) : op_(op) {}
    /// What to read; before the first callback.
    void read_from(std::shared_ptr<late_source> source) { source_ = std::move(source); }
    void abort() noexcept { aborted_ = true; }
    bool aborted() const noexcept { return aborted_; }
    bool fill(unsigned char* buffer, std::size_t length, std::uint64_t offset) noexcept override;

  private:
    operation& op_;
    std::shared_ptr<late_source> source_;
    std::atomic<bool> aborted_{false};
    bool broken_ = false;  // callbacks run one at a time
};

/// Feeds a back end's reads from a spool. The bytes are fetched on the callback's thread, one copy.
class spool_channel final : public transfer_channel {
  public:
    spool_channel(operation& op, std::shared_ptr<spooled_data> source);

    void on_read_locked(const read_request& request) override;
    bool on_write_locked(const write_request&) override { return false; }
    task<void> run() override;
    void abort() noexcept override;
    std::uint64_t bytes() const noexcept override { return source_->size(); }

  private:
    std::shared_ptr<spooled_data> source_;
    checked_source checked_;
    const std::int64_t base_;
    std::uint64_t next_ = 0;  // guarded by the operation's mutex
};

}  // namespace zorvan::gridftp
