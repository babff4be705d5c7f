// The network's threads; see network_threads.h.
#include "network_threads.h"

#include <algorithm>

namespace zorvan::gridftp {

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
        threads_.emplace_back([&context = *loop] { context.run(); });
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
