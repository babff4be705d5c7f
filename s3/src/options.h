// Settings and the library's life: what S3_initialize and S3_set_option said, per host and for the process.
// Every function may be called on any thread; copies are handed out, so no lock outlives a call.
#pragma once

#include <libs3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace s3 {

class ConnectionPool;

/// The present value of a setting, in the unit that its name says.
int64_t option(S3Option which);

/// What a request needs to know of the library; pool is null while the library is not initialised.
struct LibraryState {
    std::shared_ptr<ConnectionPool> pool;
    std::string user_agent;
    bool verify_peer = true;
};

/// The state for a request to host, whose port is left aside.
LibraryState library_state(std::string_view host);

/// The host for a context that names none: the thread's, else that of the latest S3_initialize.
std::string default_host();

/// "host:port" or "[v6]:port" without the port, in lower case.
std::string host_without_port(std::string_view host);

}  // namespace s3
