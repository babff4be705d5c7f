// What every transfer over data connections shares, however many there are: the announcement, the abort, and
// the watch over a client that moves nothing.
//
// All of it lives on the session's strand; only the on_*_locked members of the derived classes are called
// from elsewhere.
#pragma once

#include <chrono>
#include <memory>

#include "data_stream.h"
#include "transfer_channel.h"

namespace zorvan::gridftp {

class data_channel : public transfer_channel {
  public:
    /// `connector` and `events` are used until run() has returned.
    data_channel(operation& op, asio::any_io_executor strand, data_connector& connector,
                 transfer_events& events);

    void abort() noexcept override;
    std::uint64_t bytes() const noexcept override { return bytes_; }

  protected:
    /// Announce the transfer. One that cannot be announced has lost its client, but still has to be brought
    /// to its end.
    task<void> tell_first_data();

    /// From here to waited(): it is the client that the transfer waits for.
    void waiting_for_client() noexcept;
    void waited() noexcept { waiting_ = false; }
    /// Stop watching; must be called before run() returns.
    void stop_watch() noexcept;
    bool stalled() const noexcept { return stalled_; }

    std::shared_ptr<operation> kept() { return op_.shared_from_this(); }
    /// Run interrupt() on the strand, with the operation kept. Any thread.
    void interrupt_on_strand() noexcept;
    /// The operation was finished: end the read or write in progress as far as that calls for it. Strand.
    virtual void interrupt() noexcept = 0;
    /// The transfer was aborted, or its client stalled: reset what is connected, and end a connect in
    /// progress. Strand.
    virtual void reset_connections() noexcept = 0;

    const host_config& config_;
    asio::any_io_executor strand_;
    data_connector& connector_;
    transfer_events& events_;
    std::uint64_t bytes_ = 0;
    bool aborted_ = false;

  private:
    void arm_watch() noexcept;

    asio::steady_timer watch_;
    bool watch_armed_ = false;
    bool watch_stopped_ = false;
    bool waiting_ = false;
    bool stalled_ = false;
    std::chrono::steady_clock::time_point waiting_since_;
};

}  // namespace zorvan::gridftp
