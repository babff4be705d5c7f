// An upload of announced size in extended mode: blocks of several connections, read straight into the back
// end's buffers, whatever their order.
//
// The window. The back end stores strictly in order and keeps what comes early, so a connection is read only
// as far as a window ahead of the lowest byte that is still missing; the rest waits in the network. When no
// bytes come inside the window - the connection that should bring them is idle, or does so behind others -,
// blocks that are far ahead go to a spool, and from there to the back end when their turn has come. The last
// free buffer is for the lowest missing byte alone, and only so many buffers go out early. So memory is
// bounded and every order of blocks comes to its end.
//
// The buffer that completes the announced bytes is held back until the data have ended cleanly and the client
// is still there.
//
// Reads wait in `queue_`, guarded by the operation's mutex, as is all that the *_locked functions touch; the
// rest belongs to the strand. pump() alone decides who reads what.
#pragma once

#include <deque>
#include <map>
#include <optional>

#include "block_intake.h"
#include "block_spool.h"
#include "data_channel.h"

namespace zorvan::gridftp {

class extended_receiver final : public data_channel, private block_intake {
  public:
    /// @param announced  bytes to come, above 0
    /// @param shift      added to the blocks' offsets
    extended_receiver(operation& op, asio::any_io_executor strand, data_connector& connector,
                      transfer_events& events, std::uint64_t announced, std::uint64_t shift);

    void on_begin_locked() override { begun_ = true; }
    void on_read_locked(const read_request& request) override;
    bool on_write_locked(const write_request&) override { return false; }
    void on_finish_locked() override {}
    task<void> run() override;

  private:
    enum class state { open, clean, failed };

    struct filling {
        read_request request;
        std::size_t filled = 0;
        std::uint64_t offset = 0;
        bool waited = false;  // a flush has seen it with data
    };
    // A connection and what it is doing with its block.
    struct lane final : connection {
        using connection::connection;
        std::optional<filling> buffer;
        std::uint64_t next = 0;    // offset of the next byte of its block
        std::uint64_t left = 0;    // bytes of the block from there
        bool wants = false;        // a buffer, or leave to spool
        bool may_spool = false;    // it got that
        bool into_buffer = false;  // its read goes into the buffer
        bool flush_due = false;    // its buffer shall go out as it is
        std::vector<unsigned char> piece;
    };

    void interrupt() noexcept override {}
    void reset_connections() noexcept override;
    std::shared_ptr<void> kept_alive() override { return kept(); }
    std::unique_ptr<connection> make_connection(std::unique_ptr<data_stream> stream) override;
    void client_moved() noexcept override;
    task<void> take_block(connection& from, std::uint64_t offset, std::uint64_t count) override;
    void connection_ended(connection& which) override;
    lane& lane_at(std::size_t index) const { return static_cast<lane&>(*connections()[index]); }

    bool settle();
    void note_failures() noexcept;
    void check_end_locked();
    task<void> fill(lane& into);
    task<void> spool_piece(lane& from);
    void pump();
    void deliver_ended_locked();
    void feed_from_spool_locked();
    bool hand_out_locked();
    void watch_client_locked(bool back_end_is_waited_for);
    void deliver_locked(lane& from);
    void hand_over_locked(const completion& due);
    void fail_locked();
    void end_clean_locked();
    void flush();
    void arm_flush();
    void arm_relief();
    std::uint64_t front() const { return taken_.run_end(base_); }

    std::deque<read_request> queue_;  // guarded by the operation's mutex, as are begun_ and state_
    bool begun_ = false;
    state state_ = state::open;

    const std::uint64_t base_;
    const std::uint64_t announced_;
    const std::uint64_t window_;                    // bytes
    const std::size_t most_early_;                  // buffers
    range_list taken_;                              // in buffers of the back end, or beyond
    range_list delivered_;                          // called back with
    std::map<std::uint64_t, std::uint64_t> early_;  // delivered buffers that the back end cannot store yet
    std::uint64_t handed_over_ = 0;                 // bytes
    std::optional<completion> held_;

    std::shared_ptr<block_spool> spool_;
    checked_source checked_;
    std::size_t stores_ = 0;  // under way
    bool relief_ = false;     // far-ahead blocks go to the spool
    bool window_moved_ = false;

    asio::steady_timer flush_timer_;
    bool flush_armed_ = false;
    asio::steady_timer relief_timer_;
    bool relief_armed_ = false;
    bool watching_ = false;
    bool announced_start_ = false;
    bool data_ended_ = false;
};

}  // namespace zorvan::gridftp
