// Listens on a free port of 127.0.0.1, for servers that tests talk to. One thread accepts; any may stop it.
#pragma once

#include <string>

namespace s3test {

class LoopbackListener {
  public:
    /// @param waiting  connections that may wait to be accepted
    explicit LoopbackListener(int waiting);
    ~LoopbackListener();
    LoopbackListener(const LoopbackListener&) = delete;
    LoopbackListener& operator=(const LoopbackListener&) = delete;

    int port() const { return port_; }
    /// "127.0.0.1:port".
    std::string host() const { return "127.0.0.1:" + std::to_string(port_); }
    /// Wait for a connection. Its socket belongs to the caller and sends at once (TCP_NODELAY).
    /// @return -1 after stop()
    int accept();
    /// Ends accept(), now and for good.
    void stop();

  private:
    int socket_ = -1;
    int port_ = 0;
};

}  // namespace s3test
