// A data connection that is made beside something else: some clients connect before their command, some only
// after they have seen the preliminary reply. Lives on the session's strand.
#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "data_stream.h"

namespace zorvan::gridftp {

/// So long a connection that is being made holds the preliminary reply up: time enough to learn that it
/// cannot be made at all, too short to bother a client that connects only after the reply.
constexpr std::chrono::milliseconds connect_grace{250};

class connect_beside {
  public:
    /// Begins to connect. The connector must live until result() has returned.
    connect_beside(const asio::any_io_executor& strand, data_connector& connector);

    /// Wait until the outcome is there, for connect_grace at most. @return whether it is
    task<bool> settles_at_once();
    /// Of a connect that is settled: is there a stream?
    bool succeeded() const noexcept;
    /// Wait for the outcome. Once.
    task<connect_result> result();

  private:
    struct state {
        explicit state(const asio::any_io_executor& strand) : event(strand) {}
        async_event event;
        std::optional<connect_result> outcome;
    };
    std::shared_ptr<state> state_;
};

}  // namespace zorvan::gridftp
