// An upload of announced size in stream mode: read from the socket straight into the back end's buffers.
//
// The block with the last announced byte is held back until the data have ended cleanly and the client is
// still there; what comes beyond it is delivered before it. So a back end that publishes an object when it
// has the announced bytes never publishes one for an upload that was cut short, ran over or broke.
//
// Requests wait in `queue_` (guarded by the operation's mutex); run(), on the strand, fills them one by one.
#pragma once

#include <array>
#include <deque>
#include <optional>
#include <string>

#include "digest.h"
#include "stream_channel.h"

namespace zorvan::gridftp {

class stream_receiver final : public stream_channel {
  public:
    /// @param announced     bytes to come, above 0
    /// @param expected_md5  of these bytes, or none
    stream_receiver(operation& op, asio::any_io_executor strand, data_connector& connector,
                    transfer_events& events, std::uint64_t announced,
                    std::optional<std::string> expected_md5);

    void on_begin_locked() override { begun_ = true; }
    void on_read_locked(const read_request& request) override;
    bool on_write_locked(const write_request&) override { return false; }
    void on_finish_locked() override;
    task<void> run() override;

  private:
    enum class step { wait, connect, read, probe, end };
    enum class state { open, clean, failed };

    struct block {
        read_request request;
        std::size_t filled = 0;
        std::int64_t offset = 0;
    };

    step next_step();
    task<void> read_once(bool probe);
    void took(std::size_t bytes, const unsigned char* data);
    void deliver_current_locked(bool eof);
    void place_surplus_locked();
    void data_ended_locked();
    void end_reads_locked(bool failed);
    void arm_flush();
    void interrupt() noexcept override;

    std::deque<read_request> queue_;  // guarded by the operation's mutex, as are begun_, idle_ and state_
    bool begun_ = false;
    bool idle_ = false;
    state state_ = state::open;

    const std::int64_t base_;        // file offset of the first byte
    const std::uint64_t announced_;  // bytes
    std::optional<std::string> expected_md5_;
    std::optional<md5_digest> digest_;

    std::optional<block> current_;
    std::optional<block> held_;
    std::array<unsigned char, 4096>
        surplus_{};  // bytes beyond the announced ones that no buffer is there for
    std::size_t surplus_size_ = 0;
    bool announced_start_ = false;
    bool reading_ = false;
    bool interrupted_ = false;

    asio::steady_timer flush_timer_;
    bool flush_armed_ = false;
    bool flush_due_ = false;
    std::uint64_t block_number_ = 0;
};

}  // namespace zorvan::gridftp
