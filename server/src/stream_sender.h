// A download in stream mode: the back end's buffers go out in the order of their registration, as many of
// them in one write as are there, without a copy.
//
// Requests wait in `queue_` (guarded by the operation's mutex); run(), on the strand, moves them to
// `in_flight_` and writes. After a failure both are called back with an error and new ones are refused.
#pragma once

#include <deque>
#include <vector>

#include "stream_channel.h"

namespace zorvan::gridftp {

class stream_sender final : public stream_channel {
  public:
    using stream_channel::stream_channel;

    void on_begin_locked() override { begun_ = true; }
    void on_read_locked(const read_request& request) override;
    bool on_write_locked(const write_request& request) override;
    void on_finish_locked() override;
    task<void> run() override;

  private:
    enum class step { wait, connect, write, end_clean, end_failed };
    step next_step();
    task<void> announce();
    task<void> write_once();
    void interrupt() noexcept override;

    std::deque<write_request> queue_;  // guarded by the operation's mutex, as are the next three
    bool begun_ = false;
    bool writable_ = true;
    bool idle_ = false;  // run() waits for something to write

    std::vector<write_request> in_flight_;
    std::vector<asio::const_buffer> buffers_;
    std::size_t first_done_ = 0;  // bytes of the first one in flight that are written
    bool announced_ = false;
};

}  // namespace zorvan::gridftp
