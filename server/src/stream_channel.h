// What both directions of a stream-mode transfer share: getting the one data connection.
//
// All of it lives on the session's strand; only the on_*_locked members of the derived classes are called
// from elsewhere. The connect runs beside the transfer, so that an operation that ends early need not wait
// for it.
#pragma once

#include <memory>
#include <optional>

#include "data_channel.h"

namespace zorvan::gridftp {

class stream_channel : public data_channel {
  public:
    using data_channel::data_channel;

  protected:
    /// Begin to connect; only the first call counts.
    void start_connect();
    /// Is the outcome of the connect known?
    bool connect_settled() const noexcept { return connect_done_; }
    /// End a connect in progress and wait until it has returned.
    task<void> end_connect();
    /// Note what failed outside: an abort, a connect without a stream. Mutex held.
    void note_failures_locked();
    void reset_connections() noexcept override;

    std::unique_ptr<data_stream> stream_;

  private:
    task<void> connect();

    bool connect_started_ = false;
    bool connect_done_ = false;
    std::optional<operation_error> connect_error_;
};

}  // namespace zorvan::gridftp
