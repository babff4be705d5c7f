// The control connection: commands out, replies in. One thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "failure.h"
#include "location.h"
#include "reply.h"
#include "socket.h"

namespace zorvan::copy {

/// How long to wait for what.
struct time_limits {
    milliseconds connect{30'000};
    milliseconds stall{120'000};         ///< a reply to a command, or any byte of a transfer
    milliseconds completion{1'800'000};  ///< the server's last word on a transfer, or on a checksum
};

class control_connection {
  public:
    /// Connects and reads the greeting. @param interrupt  outlives the connection
    /// @throws failure
    control_connection(const server_address& server, const time_limits& limits, const flag& interrupt,
                       bool verbose);

    /// USER and, if the server wants it, PASS. @throws failure  login_denied
    void log_in(const std::string& user, const std::string& password);

    /// Send a command and wait for its reply, which may be a preliminary one.
    reply command(std::string_view verb, std::string_view argument = {});
    void send(std::string_view verb, std::string_view argument = {});
    /// The next reply. @throws failure  timed_out, receive_failed, weird_reply
    reply read_reply(milliseconds limit);
    /// The same, past all preliminary ones, which gain no time.
    reply read_final_reply(milliseconds limit);

    // For a loop that waits for other things too.
    int fd() const noexcept { return socket_.fd(); }
    std::optional<reply> take_reply();
    /// Read once what is there. @throws failure  when the connection is gone
    void receive_some(std::optional<clock::time_point> until);

    endpoint peer() const { return peer_endpoint(fd()); }
    endpoint local() const { return local_endpoint(fd()); }
    const time_limits& limits() const noexcept { return limits_; }
    const flag& interrupt() const noexcept { return interrupt_; }

  private:
    stop_flags stop() const noexcept { return {&interrupt_, nullptr}; }

    time_limits limits_;
    const flag& interrupt_;
    bool verbose_;
    descriptor socket_;
    reply_parser parser_;
};

/// What a refusal means for the user. @param otherwise  when the reply itself tells no more
failure refusal(const reply& from, exit_status otherwise, const std::string& context);

}  // namespace zorvan::copy
