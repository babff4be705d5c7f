// A data connection over plain TCP. All calls on the session's strand; the socket closes with the object.
#include "data_stream.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/socket_base.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <climits>
#include <cstdlib>

namespace zorvan::gridftp {
namespace {

constexpr auto tuple_awaitable = asio::as_tuple(asio::use_awaitable);

// A buffer sequence over a span, which is not itself one for Asio.
struct buffer_span {
    using value_type = asio::const_buffer;
    using const_iterator = const asio::const_buffer*;
    const asio::const_buffer* first;
    const asio::const_buffer* last;
    const_iterator begin() const { return first; }
    const_iterator end() const { return last; }
};

// Without a stream, which takes memory.
std::size_t kernel_limit(const char* file) noexcept {
    const int number = ::open(file, O_RDONLY | O_CLOEXEC);
    if (number < 0) {
        return 0;
    }
    std::array<char, 32> text{};
    const ssize_t size = ::read(number, text.data(), text.size() - 1);
    ::close(number);
    return size > 0 ? static_cast<std::size_t>(std::strtoull(text.data(), nullptr, 10)) : 0;
}

// Only ever larger: a window below a segment's size crawls. A fixed size switches the kernel's own growing
// off, so it is only set when it is granted in full.
void set_buffer_size(int socket, int forced_option, int option, std::size_t wanted, std::size_t limit) {
    int current = 0;
    socklen_t size = sizeof current;
    const int value = wanted > INT_MAX / 2 ? INT_MAX / 2 : static_cast<int>(wanted);
    if (::getsockopt(socket, SOL_SOCKET, option, &current, &size) != 0 || current >= value) {
        return;
    }
    if (::setsockopt(socket, SOL_SOCKET, forced_option, &value, sizeof value) != 0 && wanted <= limit) {
        (void)::setsockopt(socket, SOL_SOCKET, option, &value, sizeof value);
    }
}

class tcp_stream final : public data_stream {
  public:
    explicit tcp_stream(asio::ip::tcp::socket socket) : socket_(std::move(socket)) {
        boost::system::error_code ignored;
        socket_.set_option(asio::ip::tcp::no_delay(true), ignored);
        socket_.set_option(asio::socket_base::keep_alive(true), ignored);
    }

    task<io_result> read_some(asio::mutable_buffer buffer) override {
        if (ended_) {
            // An end or a reset shows once only: a second read would wait for what does not come again.
            co_return io_result{ended_, 0};
        }
        auto [error, bytes] = co_await socket_.async_read_some(buffer, tuple_awaitable);
        if (error != asio::error::operation_aborted) {
            ended_ = error;
        }
        co_return io_result{error, bytes};
    }

    task<io_result> write_some(std::span<const asio::const_buffer> buffers) override {
        auto [error, bytes] = co_await socket_.async_write_some(
            buffer_span{buffers.data(), buffers.data() + buffers.size()}, tuple_awaitable);
        co_return io_result{error, bytes};
    }

    task<boost::system::error_code> shutdown() override {
        boost::system::error_code error;
        socket_.shutdown(asio::ip::tcp::socket::shutdown_send, error);
        co_return error;
    }

    void cancel_io() noexcept override {
        boost::system::error_code ignored;
        socket_.cancel(ignored);
    }

    void reset() noexcept override {
        boost::system::error_code ignored;
        if (socket_.is_open()) {
            socket_.set_option(asio::socket_base::linger(true, 0), ignored);
        }
        socket_.close(ignored);
    }

    void close() noexcept override {
        boost::system::error_code ignored;
        socket_.close(ignored);
    }

    bool quiet() noexcept override {
        pollfd entry{socket_.native_handle(), POLLIN | POLLRDHUP, 0};
        return !ended_ && ::poll(&entry, 1, 0) == 0;
    }

    void set_buffer_sizes(std::size_t receive, std::size_t send) noexcept override {
        static const std::size_t receive_limit = kernel_limit("/proc/sys/net/core/rmem_max");
        static const std::size_t send_limit = kernel_limit("/proc/sys/net/core/wmem_max");
        if (receive != 0) {
            set_buffer_size(socket_.native_handle(), SO_RCVBUFFORCE, SO_RCVBUF, receive, receive_limit);
        }
        if (send != 0) {
            set_buffer_size(socket_.native_handle(), SO_SNDBUFFORCE, SO_SNDBUF, send, send_limit);
        }
    }

  private:
    asio::ip::tcp::socket socket_;
    boost::system::error_code ended_;
};

}  // namespace

std::unique_ptr<data_stream> make_tcp_stream(asio::ip::tcp::socket socket) {
    return std::make_unique<tcp_stream>(std::move(socket));
}

}  // namespace zorvan::gridftp
