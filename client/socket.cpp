// Sockets with poll(); see socket.h.
#include "socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <system_error>

#include "failure.h"

namespace zorvan::copy {
namespace {

std::string reason(int error) {
    return std::generic_category().message(error);
}

int poll_milliseconds(std::optional<clock::time_point> until) {
    if (!until) return -1;
    const auto left = std::chrono::ceil<milliseconds>(*until - clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, 1'000'000'000));
}

}  // namespace

void descriptor::close() noexcept {
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
}

flag::flag() : event_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (!event_) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void flag::raise() const noexcept {
    const std::uint64_t one = 1;
    // It fails only when the flag is raised already, very often.
    [[maybe_unused]] const auto written = ::write(event_.fd(), &one, sizeof one);
}

void flag::lower() const noexcept {
    std::uint64_t count = 0;
    [[maybe_unused]] const auto read = ::read(event_.fd(), &count, sizeof count);
}

bool flag::raised() const noexcept {
    pollfd wanted{event_.fd(), POLLIN, 0};
    return ::poll(&wanted, 1, 0) == 1;
}

bool wait_for(int fd, short events, std::optional<clock::time_point> until, const stop_flags& stop) {
    for (;;) {
        // A negative descriptor is passed over.
        std::array<pollfd, 3> wanted{pollfd{fd, events, 0},
                                     pollfd{stop.interrupt ? stop.interrupt->fd() : -1, POLLIN, 0},
                                     pollfd{stop.cancel ? stop.cancel->fd() : -1, POLLIN, 0}};
        const int count = ::poll(wanted.data(), wanted.size(), poll_milliseconds(until));
        if (count < 0) {
            if (errno == EINTR) continue;
            throw std::system_error(errno, std::generic_category(), "poll");
        }
        if (wanted[1].revents != 0) throw failure(exit_status::interrupted, "interrupted");
        if (wanted[2].revents != 0) throw cancelled();
        if (wanted[0].revents != 0) return true;
        if (until && clock::now() >= *until) return false;
    }
}

std::size_t receive(int fd, std::span<unsigned char> into, std::optional<clock::time_point> until,
                    const stop_flags& stop) {
    for (;;) {
        // Stopping comes first, however fast the data flow.
        if (!wait_for(fd, POLLIN, until, stop))
            throw failure(exit_status::timed_out, "nothing came in time", true);
        const auto count = ::recv(fd, into.data(), into.size(), MSG_DONTWAIT);
        if (count >= 0) return static_cast<std::size_t>(count);
        if (errno != EAGAIN && errno != EINTR) {
            throw failure(exit_status::receive_failed, "receiving failed: " + reason(errno), true);
        }
    }
}

void send_all(int fd, std::span<const unsigned char> bytes, std::optional<clock::time_point> until,
              const stop_flags& stop) {
    while (!bytes.empty()) {
        if (!wait_for(fd, POLLOUT, until, stop)) {
            throw failure(exit_status::timed_out, "nothing could be sent in time", true);
        }
        const auto count = ::send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count >= 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(count));
        } else if (errno != EAGAIN && errno != EINTR) {
            throw failure(exit_status::send_failed, "sending failed: " + reason(errno), true);
        }
    }
}

std::string endpoint::text() const {
    std::array<char, INET6_ADDRSTRLEN> buffer{};
    if (family() == AF_INET6) {
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6&>(address).sin6_addr, buffer.data(),
                  buffer.size());
    } else {
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in&>(address).sin_addr, buffer.data(),
                  buffer.size());
    }
    return buffer.data();
}

void endpoint::set_port(unsigned port) {
    const auto value = htons(static_cast<std::uint16_t>(port));
    if (family() == AF_INET6) {
        reinterpret_cast<sockaddr_in6&>(address).sin6_port = value;
    } else {
        reinterpret_cast<sockaddr_in&>(address).sin_port = value;
    }
}

unsigned endpoint::port() const {
    return ntohs(family() == AF_INET6 ? reinterpret_cast<const sockaddr_in6&>(address).sin6_port
                                      : reinterpret_cast<const sockaddr_in&>(address).sin_port);
}

bool endpoint::same_host(const endpoint& other) const {
    return family() == other.family() && text() == other.text();
}

std::vector<endpoint> resolve(const std::string& host, unsigned port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_ADDRCONFIG;
    addrinfo* found = nullptr;
    int error = ::getaddrinfo(host.c_str(), nullptr, &hints, &found);
    if (error != 0) {
        // A machine whose only interface is the loopback has no address configured in that sense.
        hints.ai_flags = 0;
        error = ::getaddrinfo(host.c_str(), nullptr, &hints, &found);
    }
    if (error != 0) {
        throw failure(exit_status::host_not_resolved,
                      "could not resolve host: " + host + ": " + gai_strerror(error), error == EAI_AGAIN);
    }
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, &::freeaddrinfo);
    std::vector<endpoint> endpoints;
    for (const auto* each = found; each != nullptr; each = each->ai_next) {
        if (each->ai_family != AF_INET && each->ai_family != AF_INET6) continue;
        endpoint one;
        std::memcpy(&one.address, each->ai_addr, each->ai_addrlen);
        one.length = each->ai_addrlen;
        one.set_port(port);
        endpoints.push_back(one);
    }
    return endpoints;
}

descriptor connect_to(const endpoint& peer, milliseconds limit, const stop_flags& stop) {
    descriptor made(::socket(peer.family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const auto failed = [&](int error) {
        return failure(exit_status::connect_failed,
                       "failed to connect to " + peer.text() + " port " + std::to_string(peer.port()) + ": " +
                           reason(error),
                       true);
    };
    if (!made) throw failed(errno);
    const int on = 1;
    ::setsockopt(made.fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (::connect(made.fd(), reinterpret_cast<const sockaddr*>(&peer.address), peer.length) != 0) {
        if (errno != EINPROGRESS) throw failed(errno);
        if (!wait_for(made.fd(), POLLOUT, clock::now() + limit, stop)) {
            throw failure(
                exit_status::timed_out,
                "connecting to " + peer.text() + " port " + std::to_string(peer.port()) + " timed out", true);
        }
        int error = 0;
        socklen_t length = sizeof error;
        ::getsockopt(made.fd(), SOL_SOCKET, SO_ERROR, &error, &length);
        if (error != 0) throw failed(error);
    }
    return made;
}

endpoint local_endpoint(int fd) {
    endpoint own;
    own.length = sizeof own.address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&own.address), &own.length);
    return own;
}

endpoint peer_endpoint(int fd) {
    endpoint peer;
    peer.length = sizeof peer.address;
    ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer.address), &peer.length);
    return peer;
}

descriptor listen_on(endpoint local, int backlog) {
    local.set_port(0);
    descriptor made(::socket(local.family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!made || ::bind(made.fd(), reinterpret_cast<const sockaddr*>(&local.address), local.length) != 0 ||
        ::listen(made.fd(), backlog) != 0) {
        throw failure(exit_status::active_refused, "cannot listen for data connections: " + reason(errno));
    }
    return made;
}

descriptor accept_one(int listener, endpoint& from) {
    from.length = sizeof from.address;
    return descriptor(::accept4(listener, reinterpret_cast<sockaddr*>(&from.address), &from.length,
                                SOCK_NONBLOCK | SOCK_CLOEXEC));
}

}  // namespace zorvan::copy
