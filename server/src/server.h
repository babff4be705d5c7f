/*
 * The server: network threads, listening sockets, and the sessions that they bring.
 *
 * Made and run by the main thread: start() binds, run() blocks until stop() was called (from a signal or a
 * test) and every session has ended or was cut. Each session stays on one network thread. The registry of
 * sessions is behind a mutex; nothing else is shared.
 */
#pragma once

#include <boost/asio/signal_set.hpp>
#include <boost/asio/thread_pool.hpp>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "network_threads.h"
#include "session.h"

namespace zorvan::gridftp {

/** A running server. */
class server {
  public:
    /** Everything given is borrowed and outlives the server. */
    server(const server_config& config, const users_file& users, backend& module);
    server(const server&) = delete;
    server& operator=(const server&) = delete;
    ~server();

    /** Bind and listen, write the port file, start the network threads.
     * @param error  one line on failure */
    bool start(std::string& error);

    /** Where it listens, in the order of the configuration, with the real ports. */
    std::vector<asio::ip::tcp::endpoint> endpoints() const;

    /** Ask run() to end. Any thread, any number of times. */
    void stop();

    /** Let SIGTERM and SIGINT call stop(), and SIGHUP open the log file again. Before start(). */
    void handle_signals();

    /**
     * Wait for stop(), then let the sessions end: no new ones, running operations for at most
     * timeouts.shutdown, then their connections are cut.
     * @return false when back-end work was still running after that: end the process with _exit
     */
    bool run();

    /** For tests: what is alive at the back end. */
    host_counters counters() const { return host_->counters(); }

  private:
    void accept(std::size_t index);
    /** @return false: wait before the next one */
    bool accept_one(std::size_t index);
    void begin_session(asio::ip::tcp::socket socket);
    void wait_for_signal();
    bool write_port_file(std::string& error) const;
    bool wait_for_sessions(std::chrono::milliseconds time);
    void stop_threads();

    const server_config& config_;
    network_threads network_;
    asio::thread_pool login_threads_;
    std::unique_ptr<host> host_;
    session_environment environment_;
    std::vector<asio::ip::tcp::acceptor> acceptors_;
    std::unique_ptr<asio::signal_set> signals_;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::set<std::shared_ptr<session>> sessions_;
    bool stopping_ = false;
};

/** The core's part of the configuration. */
host_config make_host_config(const server_config& config);

}  // namespace zorvan::gridftp
