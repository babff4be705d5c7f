/*
 * Passive listeners and active connectors; see data_listener.h. Every handler runs on the session's strand,
 * so the flags need no lock. A connector lives until its transfer has returned, and connect() has returned
 * before that.
 */
#include "data_listener.h"

#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <optional>
#include <random>

#include "data_address.h"
#include "replies.h"
#include "server_log.h"

namespace zorvan::gridftp {

namespace {

using asio::ip::tcp;

constexpr int backlog = 64;

/** Runs an action when its time is over, but not once it is gone: the wait is cancelled and, on the same
 * strand, an expiry that was queued already finds the flag. */
class time_limit {
  public:
    template <class Action>
    time_limit(asio::steady_timer& timer, std::chrono::milliseconds time, Action action) : timer_(timer) {
        timer_.expires_after(time);
        timer_.async_wait([active = active_, action](const boost::system::error_code& error) {
            if (!error && *active) action();
        });
    }
    ~time_limit() {
        *active_ = false;
        timer_.cancel();
    }
    time_limit(const time_limit&) = delete;
    time_limit& operator=(const time_limit&) = delete;

  private:
    asio::steady_timer& timer_;
    std::shared_ptr<bool> active_ = std::make_shared<bool>(true);
};

void prepare(tcp::socket& socket) {
    boost::system::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    socket.set_option(asio::socket_base::keep_alive(true), ignored);
}

connect_result connected(tcp::socket socket, const data_connection_rules& rules) {
    prepare(socket);
    connect_result result;
    result.stream = make_tcp_stream(std::move(socket));
    if (rules.buffer_size != 0) result.stream->set_buffer_sizes(rules.buffer_size, rules.buffer_size);
    return result;
}

connect_result failed() {
    connect_result result;
    result.error = texts::cannot_open_data;
    return result;
}

}  // namespace

passive_listener::passive_listener(const asio::any_io_executor& executor, const data_connection_rules& rules)
    : acceptor_(executor), timer_(executor), rules_(rules) {}

boost::system::error_code passive_listener::bind(std::uint16_t port) {
    boost::system::error_code error;
    const tcp::endpoint endpoint(rules_.local, port);
    acceptor_.open(endpoint.protocol(), error);
    if (!error && port != 0) acceptor_.set_option(asio::socket_base::reuse_address(true), error);
    if (!error && rules_.buffer_size != 0) {
        // The window scale is agreed on with the connection, so the listener must have the size already.
        boost::system::error_code ignored;
        acceptor_.set_option(asio::socket_base::receive_buffer_size(static_cast<int>(rules_.buffer_size)),
                             ignored);
    }
    if (!error) acceptor_.bind(endpoint, error);
    if (!error) acceptor_.listen(backlog, error);
    if (!error) acceptor_.non_blocking(true, error);
    // Or else accept() would wait for the next one.
    if (!error) acceptor_.set_option(asio::socket_base::enable_connection_aborted(true), error);
    if (!error) port_ = acceptor_.local_endpoint(error).port();
    if (error) {
        boost::system::error_code ignored;
        acceptor_.close(ignored);
    }
    return error;
}

std::unique_ptr<passive_listener> passive_listener::open(const asio::any_io_executor& executor,
                                                         const data_connection_rules& rules,
                                                         boost::system::error_code& error) {
    std::unique_ptr<passive_listener> listener(new passive_listener(executor, rules));
    if (rules.first_port == 0) {
        error = listener->bind(0);
        return error ? nullptr : std::move(listener);
    }
    // A random start: a port that can be guessed invites others to be quicker than the client.
    const unsigned count = static_cast<unsigned>(rules.last_port - rules.first_port) + 1;
    std::random_device random;
    const unsigned start = std::uniform_int_distribution<unsigned>(0, count - 1)(random);
    for (unsigned step = 0; step < count; ++step) {
        const auto port = static_cast<std::uint16_t>(rules.first_port + (start + step) % count);
        error = listener->bind(port);
        if (!error) return listener;
        if (error != asio::error::address_in_use && error != asio::error::access_denied) break;
    }
    return nullptr;
}

task<connect_result> passive_listener::connect() {
    connect_result result = co_await connect_more(true);
    boost::system::error_code ignored;
    acceptor_.close(ignored);
    co_return result;
}

task<connect_result> passive_listener::connect_more(bool limited) {
    if (cancelled_) co_return failed();
    stopped_ = false;
    std::optional<time_limit> limit;
    if (limited) {
        limit.emplace(timer_, rules_.timeout, [this] {
            timed_out_ = true;
            boost::system::error_code ignored;
            acceptor_.close(ignored);
        });
    }
    connect_result result = failed();
    while (acceptor_.is_open()) {
        boost::system::error_code error;
        // Not async_accept: it makes the socket where a want of memory would destroy this coroutine.
        co_await acceptor_.async_wait(tcp::acceptor::wait_read,
                                      asio::redirect_error(asio::use_awaitable, error));
        if (cancelled_ || timed_out_) break;
        if (error && stopped_) break;
        // As it was accepted: a socket that has been reset since cannot tell any more.
        tcp::endpoint peer;
        tcp::socket socket(acceptor_.get_executor());
        if (!error) acceptor_.accept(socket, peer, error);
        if (error == asio::error::connection_aborted || error == asio::error::try_again) continue;
        if (error) {
            log_line(ZORVAN_GFS_LOG_WARNING, "accepting a data connection failed: " + error.message());
            break;
        }
        if (unmapped(peer.address()) != unmapped(rules_.client)) {
            log_line(ZORVAN_GFS_LOG_WARNING, "data connection from " + peer.address().to_string() +
                                                 " dropped: the client is " + rules_.client.to_string());
            continue;
        }
        result = connected(std::move(socket), rules_);
        break;
    }
    co_return result;
}

void passive_listener::stop_connecting() noexcept {
    stopped_ = true;
    boost::system::error_code ignored;
    acceptor_.cancel(ignored);
}

void passive_listener::cancel() noexcept {
    cancelled_ = true;
    boost::system::error_code ignored;
    acceptor_.close(ignored);
}

active_connector::active_connector(const asio::any_io_executor& executor, const data_connection_rules& rules,
                                   tcp::endpoint endpoint)
    : socket_(executor), timer_(executor), rules_(rules), endpoint_(std::move(endpoint)) {}

task<connect_result> active_connector::connect() {
    co_return co_await connect_more(true);
}

task<connect_result> active_connector::connect_more(bool /*limited*/) {
    if (cancelled_) co_return failed();
    boost::system::error_code error;
    socket_ = tcp::socket(socket_.get_executor());
    socket_.open(endpoint_.protocol(), error);
    if (error) co_return failed();
    if (rules_.buffer_size != 0) {
        boost::system::error_code ignored;
        socket_.set_option(asio::socket_base::receive_buffer_size(static_cast<int>(rules_.buffer_size)),
                           ignored);
    }
    // From the address that the client knows: its firewall expects no other.
    if (unmapped(rules_.local).is_v4() == endpoint_.address().is_v4()) {
        socket_.set_option(asio::socket_base::reuse_address(true), error);
        boost::system::error_code ignored;
        socket_.bind(tcp::endpoint(unmapped(rules_.local), 0), ignored);
    }
    {
        const time_limit limit(timer_, rules_.timeout, [this] {
            boost::system::error_code ignored;
            socket_.close(ignored);
        });
        co_await socket_.async_connect(endpoint_, asio::redirect_error(asio::use_awaitable, error));
    }
    if (error || cancelled_ || !socket_.is_open()) co_return failed();
    co_return connected(std::move(socket_), rules_);
}

void active_connector::stop_connecting() noexcept {
    boost::system::error_code ignored;
    socket_.close(ignored);
}

void active_connector::cancel() noexcept {
    cancelled_ = true;
    boost::system::error_code ignored;
    socket_.close(ignored);
}

}  // namespace zorvan::gridftp
