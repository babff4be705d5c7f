// Blocks of an upload in extended mode that come before their time: put into a spool one behind the other as
// they come, with an index that finds them by their place in the file.
//
// Stores come from the session's strand and do their work on the pool; what is stored can be read from any
// thread at once. The index belongs to the strand until the spool is complete.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>

#include "host.h"
#include "spool.h"

namespace zorvan::gridftp {

/// A spool that is written and read at the same time; bytes are found by their place in the spool.
class growing_spool final : public late_source {
  public:
    growing_spool(spool_budget& budget, const spool_config& config) : spool_(budget, config) {}

    /// What came of an append.
    struct appended {
        int reason = 0;              ///< an errno value; ENOSPC also when the budget is used up
        bool needs_file = false;     ///< not all was taken: memory is used up, and no file is open yet
        std::uint64_t position = 0;  ///< of the first byte
        std::size_t bytes = 0;       ///< taken
    };
    /// May block.
    appended append(std::span<const unsigned char> data);
    /// Open the file. May block. @return an errno value, 0 = open
    int open_file();
    bool fill(unsigned char* buffer, std::size_t length, std::uint64_t position) noexcept override;

  private:
    std::mutex mutex_;
    spool spool_;
    bool file_open_ = false;
};

class block_spool final : public spooled_data {
  public:
    /// @param begin  file offset at which the data begin
    block_spool(host& shared, asio::any_io_executor strand, std::uint64_t begin);

    /// Put data that lie at `offset` of the file into the spool. Several may be under way.
    /// @param may_open_file  whether the temporary file may be begun
    /// @return see growing_spool; what was not taken has to be stored again
    task<growing_spool::appended> store(std::span<const unsigned char> data, std::uint64_t offset,
                                        bool may_open_file);

    struct piece {
        std::uint64_t position = 0;  ///< in source()
        std::uint64_t length = 0;    ///< bytes in one piece from there
    };
    /// Where the byte at this offset of the file lies; nothing when it is not here.
    std::optional<piece> find(std::uint64_t offset) const;
    /// Read by positions, from any thread.
    std::shared_ptr<late_source> source() const noexcept { return log_; }

    /// Of complete data without a hole: their number.
    std::uint64_t size() const noexcept override { return bytes_; }
    /// Of complete data without a hole: read by the distance from the beginning.
    bool fill(unsigned char* buffer, std::size_t length, std::uint64_t offset) noexcept override;

  private:
    host& shared_;
    asio::any_io_executor strand_;
    const std::uint64_t begin_;
    std::shared_ptr<growing_spool> log_;
    std::map<std::uint64_t, piece> index_;  // by file offset
    std::uint64_t bytes_ = 0;
};

}  // namespace zorvan::gridftp
