// Plain sockets, see the header.
#include "loopback_listener.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace s3test {

LoopbackListener::LoopbackListener(int waiting) {
    socket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    if (socket_ < 0 || bind(socket_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        listen(socket_, waiting) != 0 ||
        getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size) != 0)
        throw std::runtime_error("no socket for a server on 127.0.0.1");
    port_ = ntohs(address.sin_port);
}

LoopbackListener::~LoopbackListener() {
    close(socket_);
}

int LoopbackListener::accept() {
    const int socket = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
    const int one = 1;
    if (socket >= 0) setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    return socket;
}

void LoopbackListener::stop() {
    shutdown(socket_, SHUT_RDWR);
}

}  // namespace s3test
