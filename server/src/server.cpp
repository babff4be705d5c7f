/*
 * The server; see server.h.
 */
#include "server.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>

#include "out_of_memory.h"
#include "server_log.h"

namespace zorvan::gridftp {

namespace {

using asio::ip::tcp;

unsigned thread_count(const server_config& config) {
    return config.threads != 0 ? config.threads : std::max(1U, std::thread::hardware_concurrency());
}

std::string shown(const tcp::endpoint& endpoint) {
    const std::string address = endpoint.address().to_string();
    return endpoint.address().is_v6() ? fmt::format("[{}]:{}", address, endpoint.port())
                                      : fmt::format("{}:{}", address, endpoint.port());
}

}  // namespace

host_config make_host_config(const server_config& config) {
    host_config result;
    result.block_size = config.block_size;
    result.concurrency = config.concurrency;
    result.update_interval = std::chrono::seconds{config.update_interval};
    result.checksums_per_user = config.checksums_per_user;
    result.backend_options = config.backend_options;
    result.spool.enabled = config.spool_enabled;
    result.spool.directory = config.spool_directory;
    result.spool.memory = config.spool_memory;
    result.spool.limit = config.spool_limit;
    result.most_connections = config.data_connections;
    result.held_up_wait = config.held_up;
    result.data_stall = config.data_stall;
    result.receive_wait = config.receive_wait;
    return result;
}

server::server(const server_config& config, const users_file& users, backend& module)
    : config_(config),
      network_(thread_count(config)),
      login_threads_(2),
      host_(std::make_unique<host>(make_host_config(config), network_.first())),
      environment_{config, users, module, *host_, login_threads_} {}

server::~server() {
    stop_threads();
}

bool server::start(std::string& error) {
    for (const listen_address& address : config_.listen) {
        const tcp::endpoint endpoint(address.address, address.port);
        tcp::acceptor acceptor(network_.first());
        boost::system::error_code code;
        acceptor.open(endpoint.protocol(), code);
        if (!code) acceptor.set_option(asio::socket_base::reuse_address(true), code);
        // "[::]" beside "0.0.0.0" on one port: each family has a socket of its own.
        if (!code && endpoint.address().is_v6()) acceptor.set_option(asio::ip::v6_only(true), code);
        if (!code) acceptor.bind(endpoint, code);
        if (!code) acceptor.listen(asio::socket_base::max_listen_connections, code);
        if (!code) acceptor.non_blocking(true, code);
        // Or else accept() would wait for the next one.
        if (!code) acceptor.set_option(asio::socket_base::enable_connection_aborted(true), code);
        if (code) {
            error = fmt::format("cannot listen on {}: {}", shown(endpoint), code.message());
            return false;
        }
        acceptors_.push_back(std::move(acceptor));
    }
    if (!write_port_file(error)) return false;
    for (std::size_t index = 0; index < acceptors_.size(); ++index)
        accept(index);
    if (signals_) wait_for_signal();
    network_.start();
    for (const tcp::endpoint& endpoint : endpoints()) {
        log_line(ZORVAN_GFS_LOG_INFO, "listening on " + shown(endpoint));
    }
    return true;
}

std::vector<tcp::endpoint> server::endpoints() const {
    std::vector<tcp::endpoint> result;
    for (const tcp::acceptor& acceptor : acceptors_) {
        boost::system::error_code ignored;
        result.push_back(acceptor.local_endpoint(ignored));
    }
    return result;
}

bool server::write_port_file(std::string& error) const {
    if (config_.port_file.empty()) return true;
    std::string text;
    for (const tcp::endpoint& endpoint : endpoints()) {
        text += fmt::format("{} {}\n", endpoint.address().to_string(), endpoint.port());
    }
    // Whoever waits for the file must never see half of it.
    const std::string temporary = fmt::format("{}.{}", config_.port_file, ::getpid());
    std::FILE* file = std::fopen(temporary.c_str(), "we");
    const bool written = file != nullptr && std::fputs(text.c_str(), file) >= 0;
    const bool closed = file != nullptr && std::fclose(file) == 0;
    if (written && closed && std::rename(temporary.c_str(), config_.port_file.c_str()) == 0) return true;
    error = fmt::format("{}: {}", config_.port_file, std::strerror(errno));
    ::unlink(temporary.c_str());
    return false;
}

void server::accept(std::size_t index) {
    // Not async_accept: it makes the socket where a want of memory would end this loop with the connection.
    acceptors_[index].async_wait(
        tcp::acceptor::wait_read, [this, index](const boost::system::error_code& waited) {
            if (waited == asio::error::operation_aborted || !acceptors_[index].is_open()) return;
            if (accept_one(index)) {
                accept(index);
                return;
            }
            // Out of descriptors, most likely: trying again at once would only burn the processor.
            run_until_memory([this, index] {
                auto pause =
                    std::make_shared<asio::steady_timer>(network_.first(), std::chrono::milliseconds{100});
                pause->async_wait([this, index, pause](const boost::system::error_code&) {
                    if (acceptors_[index].is_open()) accept(index);
                });
            });
        });
}

bool server::accept_one(std::size_t index) {
    try {
        boost::system::error_code error;
        tcp::socket accepted = acceptors_[index].accept(asio::any_io_executor(network_.next()), error);
        if (!error) begin_session(std::move(accepted));
        if (!error || error == asio::error::try_again || error == asio::error::connection_aborted)
            return true;
        log_line(ZORVAN_GFS_LOG_WARNING, "accepting a connection failed: " + error.message());
    } catch (const std::exception& error) {
        log_line(ZORVAN_GFS_LOG_ERROR, "a new connection was dropped");
        log_line(ZORVAN_GFS_LOG_ERROR, error.what());
    }
    return false;
}

void server::begin_session(tcp::socket socket) {
    const asio::any_io_executor executor = socket.get_executor();
    auto client = std::make_shared<session>(environment_, std::move(socket));
    {
        const std::lock_guard lock(mutex_);
        if (stopping_) return;
        sessions_.insert(client);
    }
    asio::co_spawn(executor, client->run(), [this, client](const std::exception_ptr& error) {
        if (error) log_line(ZORVAN_GFS_LOG_ERROR, "a session ended with an exception");
        const std::lock_guard lock(mutex_);
        sessions_.erase(client);
        changed_.notify_all();
    });
}

void server::handle_signals() {
    signals_ = std::make_unique<asio::signal_set>(network_.first(), SIGTERM, SIGINT, SIGHUP);
}

void server::wait_for_signal() {
    signals_->async_wait([this](const boost::system::error_code& error, int number) {
        if (error) return;
        if (number == SIGHUP) {
            reopen_log();
            wait_for_signal();
            return;
        }
        (void)run_without_throwing(
            [&] { log_line(ZORVAN_GFS_LOG_INFO, fmt::format("signal {}: shutting down", number)); });
        stop();
        // A second signal takes effect at once.
        boost::system::error_code ignored;
        signals_->clear(ignored);
    });
}

void server::stop() {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    changed_.notify_all();
}

bool server::wait_for_sessions(std::chrono::milliseconds time) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, time, [this] { return sessions_.empty(); });
}

bool server::run() {
    {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return stopping_; });
        for (const auto& client : sessions_)
            client->drain();
    }
    asio::post(network_.first(), [this] {
        for (tcp::acceptor& acceptor : acceptors_) {
            boost::system::error_code ignored;
            acceptor.close(ignored);
        }
    });
    constexpr std::chrono::seconds grace{10};
    if (!wait_for_sessions(config_.shutdown)) {
        log_line(ZORVAN_GFS_LOG_WARNING, "the time to shut down is over: cutting the running transfers");
        {
            const std::lock_guard lock(mutex_);
            for (const auto& client : sessions_)
                client->cut();
        }
        if (!wait_for_sessions(grace)) return false;
    }
    const bool idle = host_->wait_idle(grace);
    if (idle) stop_threads();
    return idle;
}

void server::stop_threads() {
    asio::post(network_.first(), [this] {
        boost::system::error_code ignored;
        for (tcp::acceptor& acceptor : acceptors_)
            acceptor.close(ignored);
        if (signals_) signals_->cancel(ignored);
    });
    login_threads_.join();
    network_.stop();
}

}  // namespace zorvan::gridftp
