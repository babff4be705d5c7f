// The body of a request as a stream. The session implements it on the socket,
// the chunk decoder on top of another reader. A reader belongs to the
// coroutine of its exchange.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <span>

namespace zorvan::devstore {

/// A pull stream of body bytes.
class body_reader {
  public:
    body_reader() = default;
    body_reader(const body_reader&) = delete;
    body_reader& operator=(const body_reader&) = delete;
    virtual ~body_reader() = default;

    /// Reads 1..room.size() bytes into `room` (not empty) and returns their number, 0 at the end of the body.
    /// The first call answers "Expect: 100-continue". Throws connection_lost when the body is cut and
    /// s3_failure when it breaks a rule.
    virtual boost::asio::awaitable<std::size_t> read_some(std::span<char> room) = 0;
};

}  // namespace zorvan::devstore
