/*
 * The threads that serve the network: an event loop each, and every session stays on one of them.
 *
 * So a session's executor is its strand: nothing of it ever runs on two threads, and what another thread
 * posts to it wakes the one thread that will run it. A loop shared by several threads wakes an idle one for
 * every strand instead, which for small files costs more than the transfer itself.
 */
#pragma once

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <memory>
#include <thread>
#include <vector>

namespace zorvan::gridftp {

namespace asio = boost::asio;

class network_threads {
  public:
    /** @param count  threads, at least one; they begin with start() */
    explicit network_threads(unsigned count);
    network_threads(const network_threads&) = delete;
    network_threads& operator=(const network_threads&) = delete;
    /** Waits for the loops to run out of work, as stop() does. */
    ~network_threads();

    void start();

    /** Let each loop end when nothing is left to do in it, and wait for that. May be called again. */
    void stop();

    /** The first loop's executor, for what there is one of. */
    asio::io_context::executor_type first() { return loops_.front()->get_executor(); }

    /** The loops' executors by turns. Any thread. */
    asio::io_context::executor_type next();

  private:
    using work_guard = asio::executor_work_guard<asio::io_context::executor_type>;

    std::vector<std::unique_ptr<asio::io_context>> loops_;
    std::vector<work_guard> guards_;
    std::vector<std::thread> threads_;
    std::atomic<std::size_t> turn_{0};
};

}  // namespace zorvan::gridftp
