// A download in extended mode: every buffer that the back end lends goes out as one block, on whichever
// connection is free.
//
// The server opens the connections, as the sender does in this mode; those of the former transfer are used
// again. Requests wait in `queue_` (guarded by the operation's mutex, as is `writable_`); each connection has
// a coroutine on the strand that takes one after the other. When the back end has finished and all is
// written, every connection gets its end of data, the first one also the end of file with their number.
#pragma once

#include <deque>
#include <memory>
#include <vector>

#include "block_codec.h"
#include "data_channel.h"

namespace zorvan::gridftp {

class extended_sender final : public data_channel {
  public:
    /// @param shift  taken from the offsets: what the client sees as offset 0 (ERET P)
    extended_sender(operation& op, asio::any_io_executor strand, data_connector& connector,
                    transfer_events& events, std::uint64_t shift);

    void on_begin_locked() override { begun_ = true; }
    void on_read_locked(const read_request& request) override;
    bool on_write_locked(const write_request& request) override;
    void on_finish_locked() override {}
    task<void> run() override;

  private:
    enum class step { wait, connect, announce, end_clean, end_failed };
    struct lane {
        lane(std::unique_ptr<data_stream> connected, const asio::any_io_executor& strand)
            : stream(std::move(connected)), turn(strand) {}
        std::unique_ptr<data_stream> stream;
        async_event turn;
        bool writing = false;
    };
    /// The time of one write, however it ends.
    class writing_scope {
      public:
        writing_scope(extended_sender& sender, lane& with) : sender_(sender), with_(with) {
            with_.writing = true;
            ++sender_.writing_;
        }
        writing_scope(const writing_scope&) = delete;
        writing_scope& operator=(const writing_scope&) = delete;
        ~writing_scope() {
            with_.writing = false;
            if (--sender_.writing_ == 0) {
                sender_.waited();
            }
        }

      private:
        extended_sender& sender_;
        lane& with_;
    };

    step next_step();
    void fail_queue_locked();
    bool all_quiet() const;
    void spawn(task<void> body);
    task<void> connect_all();
    void add(std::unique_ptr<data_stream> stream);
    task<void> serve(lane& with);
    task<bool> write(lane& with, const block_header& header, const unsigned char* data);
    task<void> end_data();
    void note_broken();
    void wake_lanes();
    void interrupt() noexcept override {}
    void reset_connections() noexcept override;

    std::deque<write_request> queue_;  // guarded by the operation's mutex, as are the next two
    bool begun_ = false;
    bool writable_ = true;

    const std::uint64_t shift_;
    std::vector<std::unique_ptr<lane>> lanes_;
    std::size_t running_ = 0;  // coroutines
    std::size_t writing_ = 0;  // of them
    bool connect_started_ = false;
    bool connect_settled_ = false;
    bool connecting_ = false;
    std::optional<operation_error> connect_error_;
    bool announced_ = false;
    bool stopping_ = false;
    bool reset_ = false;
};

}  // namespace zorvan::gridftp
