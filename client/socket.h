// Descriptors, and reading, writing, connecting and accepting with a limit of time and a way to be stopped.
// All descriptors are non-blocking; every wait is a poll() that the given stop flags end. Any thread, one per
// descriptor.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace zorvan::copy {

using clock = std::chrono::steady_clock;
using milliseconds = std::chrono::milliseconds;

/// Owns a descriptor.
class descriptor {
  public:
    descriptor() = default;
    explicit descriptor(int fd) noexcept : fd_(fd) {}
    descriptor(descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    descriptor& operator=(descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    descriptor(const descriptor&) = delete;
    descriptor& operator=(const descriptor&) = delete;
    ~descriptor() { close(); }
    int fd() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    void close() noexcept;

  private:
    int fd_ = -1;
};

/// A flag that a poll() can wait for, raised by any thread or signal handler.
class flag {
  public:
    flag();
    void raise() const noexcept;
    void lower() const noexcept;
    bool raised() const noexcept;
    int fd() const noexcept { return event_.fd(); }

  private:
    descriptor event_;
};

/// What ends a wait early.
struct stop_flags {
    const flag* interrupt = nullptr;  ///< the user's: failure "interrupted"
    const flag* cancel = nullptr;     ///< the transfer's: cancelled
};

/// Wait until one of the events is there.
/// @return false when the time is over
/// @throws failure or cancelled  when stopped
bool wait_for(int fd, short events, std::optional<clock::time_point> until, const stop_flags& stop);

/// Bytes that are there, at most as many as fit. @return 0 at the end
/// @throws failure  receive_failed, or timed_out
std::size_t receive(int fd, std::span<unsigned char> into, std::optional<clock::time_point> until,
                    const stop_flags& stop);

/// @throws failure  send_failed, or timed_out
void send_all(int fd, std::span<const unsigned char> bytes, std::optional<clock::time_point> until,
              const stop_flags& stop);

/// An address and port of a host.
struct endpoint {
    sockaddr_storage address{};
    socklen_t length = 0;
    std::string text() const;  ///< "127.0.0.1", "::1"
    void set_port(unsigned port);
    unsigned port() const;
    int family() const noexcept { return address.ss_family; }
    bool same_host(const endpoint& other) const;
};

/// @throws failure  host_not_resolved
std::vector<endpoint> resolve(const std::string& host, unsigned port);

/// @throws failure  connect_failed, or timed_out
descriptor connect_to(const endpoint& peer, milliseconds limit, const stop_flags& stop);

endpoint local_endpoint(int fd);
endpoint peer_endpoint(int fd);

/// A listening socket on a free port of this address.
/// @throws failure  active_refused
descriptor listen_on(endpoint local, int backlog);

/// The next connection, if one is there.
descriptor accept_one(int listener, endpoint& from);

}  // namespace zorvan::copy
