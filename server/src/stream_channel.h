// What both directions of a stream-mode transfer share: getting the data connection, and watching a client
// that moves nothing.
//
// All of it lives on the session's strand; only the on_*_locked members of the derived classes are called
// from elsewhere. The connect runs beside the transfer, so that an operation that ends early need not wait
// for it.
#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "data_stream.h"
#include "transfer_channel.h"

namespace zorvan::gridftp {

class stream_channel : public transfer_channel {
  public:
    /// `connector` and `events` are used until run() has returned.
    stream_channel(operation& op, asio::any_io_executor strand, data_connector& connector,
                   transfer_events& events);

    void abort() noexcept override;
    std::uint64_t bytes() const noexcept override { return bytes_; }

  protected:
    /// Begin to connect; only the first call counts.
    void start_connect();
    /// Is the outcome of the connect known?
    bool connect_settled() const noexcept { return connect_done_; }
    /// End a connect in progress and wait until it has returned.
    task<void> end_connect();
    /// Announce the transfer. One that cannot be announced has lost its client, but still has to be brought
    /// to its end.
    task<void> tell_first_data();
    /// Note what failed outside: an abort, a connect without a stream. Mutex held.
    void note_failures_locked();

    /// From here to waited(): it is the client that the transfer waits for.
    void waiting_for_client() noexcept;
    void waited() noexcept { waiting_ = false; }
    /// Stop watching; must be called before run() returns.
    void stop_watch() noexcept;
    bool stalled() const noexcept { return stalled_; }

    std::shared_ptr<operation> kept() { return op_.shared_from_this(); }
    /// Run a function on the strand, with the operation kept. Any thread.
    void on_strand(void (*function)(stream_channel&)) noexcept;
    /// What the read or write in progress is to end for. Strand.
    virtual void interrupt() noexcept = 0;

    const host_config& config_;
    asio::any_io_executor strand_;
    data_connector& connector_;
    transfer_events& events_;
    std::unique_ptr<data_stream> stream_;
    std::uint64_t bytes_ = 0;
    bool aborted_ = false;

  private:
    void arm_watch();

    bool connect_started_ = false;
    bool connect_done_ = false;
    std::optional<operation_error> connect_error_;

    asio::steady_timer watch_;
    bool watch_armed_ = false;
    bool watch_stopped_ = false;
    bool waiting_ = false;
    bool stalled_ = false;
    std::chrono::steady_clock::time_point waiting_since_;
};

/// Read and drop what a client still sends after its upload was refused, so that it sees the reply and not a
/// reset; bounded by the configuration. Returns at once, the stream lives until that is over.
void drain_in_background(std::unique_ptr<data_stream> stream, const host_config& config,
                         const asio::any_io_executor& strand);

}  // namespace zorvan::gridftp
