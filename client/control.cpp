// Commands and replies; see control.h.
#include "control.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>

#include <array>
#include <cstdio>

#include "text.h"

namespace zorvan::copy {
namespace {

constexpr char telnet_command = '\xff';

void keep_alive(int fd) {
    // A transfer can take hours, in which nothing else goes over this connection.
    const int on = 1;
    const int idle_seconds = 60;
    ::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    ::setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle_seconds, sizeof idle_seconds);
}

/// A 550 is for what is missing and for what is forbidden; where no word says which, the text does.
bool says_forbidden(std::string_view text) {
    const auto lower = gridftp::ascii_lower(text);
    return lower.find("permission denied") != std::string::npos ||
           lower.find("access denied") != std::string::npos || lower.find("forbidden") != std::string::npos;
}

}  // namespace

control_connection::control_connection(const server_address& server, const time_limits& limits,
                                       const flag& interrupt, bool verbose)
    : limits_(limits), interrupt_(interrupt), verbose_(verbose) {
    std::optional<failure> last;
    for (const auto& each : resolve(server.host, server.port)) {
        try {
            socket_ = connect_to(each, limits_.connect, stop());
            break;
        } catch (const failure& error) {
            if (error.status() == exit_status::interrupted) throw;
            last = error;
        }
    }
    if (!socket_) {
        throw last ? *last : failure(exit_status::host_not_resolved, "no address for host: " + server.host);
    }
    keep_alive(fd());
    const auto greeting = read_final_reply(limits_.stall);
    if (!greeting.good()) {
        throw failure(exit_status::access_denied, "the server refuses to serve: " + greeting.summary(),
                      greeting.passing());
    }
}

void control_connection::log_in(const std::string& user, const std::string& password) {
    auto answer = command("USER", user);
    if (answer.code == 331) answer = command("PASS", password);
    if (!answer.good()) {
        throw failure(exit_status::login_denied, "login denied: " + answer.summary(), answer.passing());
    }
}

void control_connection::send(std::string_view verb, std::string_view argument) {
    std::string line(verb);
    if (!argument.empty()) line += ' ';
    for (const char byte : argument) {
        if (byte == '\r' || byte == '\n' || byte == '\0') {
            throw failure(exit_status::malformed_url, "a line end or a zero byte in a name or a password");
        }
        line += byte;
        if (byte == telnet_command) line += byte;
    }
    if (verbose_) {
        const bool secret = verb == "PASS";
        std::fprintf(stderr, "> %s\n", secret ? "PASS ****" : gridftp::printable(line).c_str());
    }
    line += "\r\n";
    send_all(fd(), {reinterpret_cast<const unsigned char*>(line.data()), line.size()},
             clock::now() + limits_.stall, stop());
}

std::optional<reply> control_connection::take_reply() {
    auto next = parser_.take();
    if (next && verbose_) {
        for (const auto& line : next->lines) {
            std::fprintf(stderr, "< %s\n", gridftp::printable(line).c_str());
        }
    }
    return next;
}

void control_connection::receive_some(std::optional<clock::time_point> until) {
    std::array<unsigned char, 16384> buffer{};
    std::size_t count = 0;
    try {
        count = receive(fd(), buffer, until, stop());
    } catch (const failure& error) {
        if (error.status() != exit_status::timed_out) throw;
        throw failure(exit_status::timed_out, "the server does not answer", true);
    }
    if (count == 0) throw failure(exit_status::receive_failed, "the server closed the connection", true);
    parser_.feed({reinterpret_cast<const char*>(buffer.data()), count});
}

reply control_connection::read_reply(milliseconds limit) {
    const auto until = clock::now() + limit;
    for (;;) {
        if (auto next = take_reply()) return *next;
        receive_some(until);
    }
}

reply control_connection::read_final_reply(milliseconds limit) {
    const auto until = clock::now() + limit;
    for (;;) {
        auto next = read_reply(std::chrono::ceil<milliseconds>(until - clock::now()));
        if (!next.preliminary()) return next;
    }
}

reply control_connection::command(std::string_view verb, std::string_view argument) {
    send(verb, argument);
    return read_reply(limits_.stall);
}

failure refusal(const reply& from, exit_status otherwise, const std::string& context) {
    auto status = otherwise;
    const auto word = from.word();
    if (word == "PATH_NOT_FOUND") {
        status = exit_status::not_found;
    } else if (word == "PERMISSION_DENIED") {
        status = exit_status::access_denied;
    } else if (word == "INCORRECT_CHECKSUM") {
        status = exit_status::checksum_mismatch;
    } else if (word == "MULTI_PART_UPLOAD_NOT_FOUND" || word == "APPEND_NOT_SUPPORTED") {
        status = exit_status::restart_refused;
    } else if (from.code == 550 && says_forbidden(from.last())) {
        status = exit_status::access_denied;
    } else if (from.code == 530) {
        status = exit_status::login_denied;
    }
    return {status, context + ": " + from.summary(), from.passing()};
}

}  // namespace zorvan::copy
