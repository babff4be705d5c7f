// An upload of unknown size in extended mode: everything goes to a spool, block by block, until all announced
// ends of data have come and the file is there without a hole. Strand only.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "block_intake.h"
#include "block_spool.h"

namespace zorvan::gridftp {

class spooling_intake final : public block_intake, public std::enable_shared_from_this<spooling_intake> {
  public:
    /// @param event  of the coroutine that calls run()
    spooling_intake(host& shared, const asio::any_io_executor& strand, data_connector& connector,
                    const async_event& event, const bounds& limits);

    /// Asked once, before disk space is taken: is there a place for the file at all?
    using check_place = std::function<task<std::optional<operation_error>>()>;
    /// Receive everything. @param alive  asked at the clean end: is the client still there?
    /// @return what failed
    task<std::optional<operation_error>> run(const check_place& check, const std::function<bool()>& alive);
    /// Fail it from the client's side; run() returns soon.
    void abort() noexcept;

    std::uint64_t bytes() const noexcept { return bytes_; }
    /// Complete after a good run().
    const std::shared_ptr<block_spool>& data() const noexcept { return spool_; }

  private:
    struct lane final : connection {
        using connection::connection;
        std::vector<unsigned char> piece;
    };
    std::unique_ptr<connection> make_connection(std::unique_ptr<data_stream> stream) override;
    void client_moved() noexcept override { moved_ = std::chrono::steady_clock::now(); }
    std::shared_ptr<void> kept_alive() override { return shared_from_this(); }
    task<void> take_block(connection& from, std::uint64_t offset, std::uint64_t count) override;
    task<void> receive_all(const check_place& check);
    void wake_waiting();

    const async_event event_;
    const std::uint64_t begin_;
    std::shared_ptr<block_spool> spool_;
    std::uint64_t bytes_ = 0;
    std::size_t stores_ = 0;  // under way
    bool wants_file_ = false;
    bool may_open_file_ = false;
    bool aborted_ = false;
    std::chrono::steady_clock::time_point moved_ = std::chrono::steady_clock::now();
};

}  // namespace zorvan::gridftp
