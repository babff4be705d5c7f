// A store that answers every request at once with the little that its method wants, keeps its connections and
// writes nothing down: for many requests. It binds a free port of 127.0.0.1; one thread accepts, one detached
// thread serves each connection; the destructor ends them all and waits for them.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "loopback_listener.h"

namespace s3test {

class FastServer {
  public:
    FastServer();
    ~FastServer();
    FastServer(const FastServer&) = delete;
    FastServer& operator=(const FastServer&) = delete;

    /// "127.0.0.1:port".
    std::string host() const { return listener_.host(); }
    int requests() const { return requests_; }
    /// Returns when no connection is left.
    void wait_until_all_left();
    /// Connections ever made.
    int connections() const { return connections_; }

  private:
    void accept_loop();
    void serve(int socket);
    void serve_until_it_leaves(int socket);

    LoopbackListener listener_{256};
    std::atomic<int> requests_ = 0;
    std::atomic<int> connections_ = 0;
    std::mutex mutex_;
    std::condition_variable left_;
    std::set<int> open_;     // guarded by mutex_
    bool stopping_ = false;  // guarded by mutex_
    std::thread acceptor_;
};

}  // namespace s3test
