// The network's threads; see network_threads.h.
#include "network_threads.h"

#include <algorithm>
#include <exception>

#include "server_log.h"

namespace zorvan::gridftp {
namespace {

/// Whoever can fail on a network thread sees to that itself, where it is known what hangs on it. What comes
/// here all the same has ended one handler, and the other sessions need not end with it.
void serve(asio::io_context& loop) {
    for (;;) {
        try {
            loop.run();
            return;
        } catch (const std::exception& error) {
            log_line(ZORVAN_GFS_LOG_ERROR, "something on a network thread ended with an exception");
            log_line(ZORVAN_GFS_LOG_ERROR, error.what());
        }
    }
}

}  // namespace

network_threads::network_threads(unsigned count) {
    for (unsigned index = 0; index < std::max(1U, count); ++index) {
        loops_.push_back(std::make_unique<asio::io_context>(1));
        guards_.emplace_back(loops_.back()->get_executor());
    }
}

network_threads::~network_threads() {
    stop();
}

void network_threads::start() {
    for (const auto& loop : loops_) {
        threads_.emplace_back([&context = *loop] { serve(context); });
    }
}

void network_threads::stop() {
    guards_.clear();
    for (std::thread& thread : threads_) {
        thread.join();
    }
    threads_.clear();
}

asio::io_context::executor_type network_threads::next() {
    return loops_[turn_++ % loops_.size()]->get_executor();
}

}  // namespace zorvan::gridftp
