// A bare FTP client for tests: says what it is told, reads replies whole, and owns its sockets. Every read is
// bounded by a time that only a broken server reaches; such a read throws, which fails the test.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace ftp_test {

/// A connected or listening TCP socket.
class Socket {
  public:
    Socket() = default;
    explicit Socket(int number) : number_(number) {}
    Socket(Socket&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Socket& operator=(Socket&& other) noexcept {
        close();
        number_ = std::exchange(other.number_, -1);
        return *this;
    }
    ~Socket() { close(); }

    /// Connect to a numeric address. @param from  bind to this address first; null = any
    static Socket connect(const char* address, std::uint16_t port, const char* from = nullptr) {
        Socket socket(::socket(std::strchr(address, ':') != nullptr ? AF_INET6 : AF_INET, SOCK_STREAM, 0));
        if (from != nullptr) {
            const auto [local, length] = make(from, 0);
            check(::bind(socket.number_, reinterpret_cast<const sockaddr*>(&local), length), "bind");
        }
        const auto [peer, length] = make(address, port);
        check(::connect(socket.number_, reinterpret_cast<const sockaddr*>(&peer), length), "connect");
        return socket;
    }

    /// Have a port of an address, and do nothing with it. @param port  0 = a free one
    static Socket bind(const char* address, std::uint16_t port = 0) {
        Socket socket(::socket(std::strchr(address, ':') != nullptr ? AF_INET6 : AF_INET, SOCK_STREAM, 0));
        const auto [local, length] = make(address, port);
        check(::bind(socket.number_, reinterpret_cast<const sockaddr*>(&local), length), "bind");
        return socket;
    }

    /// Listen on a free port of an address.
    static Socket listen(const char* address) {
        Socket socket = bind(address);
        check(::listen(socket.number_, 8), "listen");
        return socket;
    }

    Socket accept() const {
        wait(POLLIN);
        const int number = ::accept(number_, nullptr, nullptr);
        check(number, "accept");
        return Socket(number);
    }

    std::uint16_t local_port() const {
        sockaddr_storage storage{};
        socklen_t length = sizeof storage;
        check(::getsockname(number_, reinterpret_cast<sockaddr*>(&storage), &length), "getsockname");
        return ntohs(storage.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(storage).sin6_port
                                                   : reinterpret_cast<sockaddr_in&>(storage).sin_port);
    }

    /// Write everything. @return false when the peer no longer takes it
    bool write(std::string_view data) const {
        while (!data.empty()) {
            const ssize_t count = ::send(number_, data.data(), data.size(), MSG_NOSIGNAL);
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) return false;
            data.remove_prefix(static_cast<std::size_t>(count));
        }
        return true;
    }

    /// Read at most so much. @return 0 at the end or after a reset
    std::size_t read(char* data, std::size_t room) const {
        wait(POLLIN);
        const ssize_t count = ::recv(number_, data, room, 0);
        return count > 0 ? static_cast<std::size_t>(count) : 0;
    }

    /// Read to the end.
    std::string read_all() const {
        std::string all;
        char buffer[65536];
        for (std::size_t count = read(buffer, sizeof buffer); count != 0;
             count = read(buffer, sizeof buffer)) {
            all.append(buffer, count);
        }
        return all;
    }

    void shutdown_write() const { ::shutdown(number_, SHUT_WR); }

    /// Close with a reset.
    void reset() {
        const linger option{1, 0};
        ::setsockopt(number_, SOL_SOCKET, SO_LINGER, &option, sizeof option);
        close();
    }

    void close() {
        if (number_ >= 0) ::close(number_);
        number_ = -1;
    }

    int number() const { return number_; }

  private:
    static void check(int result, const char* what) {
        if (result < 0) throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
    }

    static std::pair<sockaddr_storage, socklen_t> make(const char* address, std::uint16_t port) {
        sockaddr_storage storage{};
        if (std::strchr(address, ':') != nullptr) {
            auto& v6 = reinterpret_cast<sockaddr_in6&>(storage);
            v6.sin6_family = AF_INET6;
            v6.sin6_port = htons(port);
            ::inet_pton(AF_INET6, address, &v6.sin6_addr);
            return {storage, sizeof v6};
        }
        auto& v4 = reinterpret_cast<sockaddr_in&>(storage);
        v4.sin_family = AF_INET;
        v4.sin_port = htons(port);
        ::inet_pton(AF_INET, address, &v4.sin_addr);
        return {storage, sizeof v4};
    }

    void wait(short events) const {
        pollfd entry{number_, events, 0};
        if (::poll(&entry, 1, 60000) <= 0)
            throw std::runtime_error("nothing came from the server in a minute");
    }

    int number_ = -1;
};

/// Whether this machine has an address of version 6 to listen at.
inline bool has_ipv6() {
    try {
        (void)Socket::bind("::1");
        return true;
    } catch (const std::runtime_error&) {
        return false;
    }
}

/// A whole reply.
struct Reply {
    int code = 0;      ///< 0: the connection has ended
    std::string text;  ///< every line as it came, with its CRLF
};

/// A control connection.
class Client {
  public:
    explicit Client(std::uint16_t port, const char* address = "127.0.0.1")
        : address_(address), control_(Socket::connect(address, port)) {}

    /// The same, greeted and logged in.
    static Client logged_in(std::uint16_t port, const char* address = "127.0.0.1",
                            const char* user = "alice") {
        Client client(port, address);
        client.reply();
        client.command(std::string("USER ") + user);
        const Reply answer = client.command("PASS secret");
        if (answer.code != 230) throw std::runtime_error("log-in: " + answer.text);
        client.command("TYPE I");
        return client;
    }

    void send(std::string_view bytes) { control_.write(bytes); }

    Reply command(std::string_view line) {
        send(std::string(line) + "\r\n");
        return reply();
    }

    /// Read one reply (RFC 959, 4.2).
    Reply reply() {
        Reply result;
        std::string line = read_line();
        if (line.size() < 4) return result;
        result.code = std::atoi(line.c_str());
        result.text = line;
        if (line[3] != '-') return result;
        const std::string last = line.substr(0, 3) + " ";
        do {
            line = read_line();
            result.text += line;
        } while (!line.empty() && line.compare(0, 4, last) != 0);
        return result;
    }

    /// PASV or EPSV, and the connection.
    Socket open_data(const char* from = nullptr) {
        return Socket::connect(address_.c_str(), passive_port(), from);
    }

    std::uint16_t passive_port() {
        const Reply answer = command("EPSV");
        const std::size_t begin = answer.text.find("(|||");
        if (answer.code != 229 || begin == std::string::npos)
            throw std::runtime_error("EPSV: " + answer.text);
        return static_cast<std::uint16_t>(std::atoi(answer.text.c_str() + begin + 4));
    }

    /// Run a download or listing. @return the data; `last` receives the final reply, `first` the one before
    std::string fetch(const std::string& line, Reply& last) {
        const Socket data = open_data();
        last = command(line);
        if (last.code != 150) return {};
        std::string all = data.read_all();
        last = reply();
        return all;
    }

    /// Run an upload. @return the final reply
    Reply store(const std::string& line, std::string_view content) {
        Socket data = open_data();
        send(line + "\r\n");
        // The 150 may come after the data (an upload of unknown size is measured first).
        data.write(content);
        data.close();
        Reply answer = reply();
        if (answer.code == 150) answer = reply();
        return answer;
    }

    Socket& control() { return control_; }

  private:
    std::string read_line() {
        for (;;) {
            const std::size_t end = pending_.find('\n');
            if (end != std::string::npos) {
                std::string line = pending_.substr(0, end + 1);
                pending_.erase(0, end + 1);
                return line;
            }
            char buffer[4096];
            const std::size_t count = control_.read(buffer, sizeof buffer);
            if (count == 0) return {};
            pending_.append(buffer, count);
        }
    }

    std::string address_;
    Socket control_;
    std::string pending_;
};

}  // namespace ftp_test
