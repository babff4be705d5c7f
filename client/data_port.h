// A port of this host that the server connects to, told to it with EPRT or PORT.
#pragma once

#include "session.h"

namespace zorvan::copy {

class data_port {
  public:
    data_port() = default;
    /// Listen where the control connection is, and tell the server. @throws failure  active_refused
    static data_port listening(session& with, int connections) {
        data_port port;
        port.listener_ = listen_on(with.control().local(), connections);
        with.active(local_endpoint(port.listener_.fd()));
        return port;
    }
    /// -1 if there is none.
    int fd() const noexcept { return listener_.fd(); }

  private:
    descriptor listener_;
};

}  // namespace zorvan::copy
