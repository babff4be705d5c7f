// Users and passwords; see credentials.h.
#include "credentials.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>

#include "failure.h"
#include "netrc.h"
#include "socket.h"
#include "text.h"

namespace zorvan::copy {
namespace {

/// Ask at the terminal, without showing what is typed. @return nothing if there is no terminal
std::optional<std::string> ask_password(const std::string& user, const std::string& host) {
    const descriptor terminal(::open("/dev/tty", O_RDWR | O_CLOEXEC));
    termios shown{};
    if (!terminal || ::tcgetattr(terminal.fd(), &shown) != 0) return std::nullopt;
    const auto print = [&](const std::string& text) {
        [[maybe_unused]] const auto written = ::write(terminal.fd(), text.data(), text.size());
    };
    auto hidden = shown;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    print("Password of " + gridftp::printable(user) + " at " + gridftp::printable(host) + ": ");
    ::tcsetattr(terminal.fd(), TCSAFLUSH, &hidden);
    std::string password;
    char byte = 0;
    ssize_t count = 0;
    while ((count = ::read(terminal.fd(), &byte, 1)) == 1 && byte != '\n') {
        password += byte;
    }
    ::tcsetattr(terminal.fd(), TCSAFLUSH, &shown);
    print("\n");
    if (count != 1) throw failure(exit_status::interrupted, "interrupted");
    return password;
}

}  // namespace

credentials find_credentials(const server_address& server, const std::string& netrc) {
    if (server.password) return {server.user, *server.password};
    const char* const variable = std::getenv("ZORVAN_COPY_PASSWORD");
    if (!server.user.empty() && variable != nullptr) return {server.user, variable};
    if (!netrc.empty()) {
        const auto entry = find_netrc_entry(read_netrc(netrc), server.host, server.user);
        if (entry && !(entry->user.empty() && server.user.empty())) {
            return {server.user.empty() ? entry->user : server.user, entry->password};
        }
    }
    if (server.user.empty()) return {"anonymous", "anonymous@"};
    if (auto typed = ask_password(server.user, server.host)) return {server.user, std::move(*typed)};
    throw failure(exit_status::login_denied, "no password for " + gridftp::printable(server.user) +
                                                 ": put it into ZORVAN_COPY_PASSWORD or a netrc file");
}

}  // namespace zorvan::copy
