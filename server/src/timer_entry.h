// Waiting for a timer, in a coroutine, without a failure.
#pragma once

#include <boost/asio/steady_timer.hpp>

#include "async.h"
#include "out_of_memory.h"

namespace zorvan::gridftp {

/// Enter a timer whose time is set into its loop's list, just before a coroutine waits for it. The list takes
/// memory when it grows, and a wait that finds none would destroy the coroutine; one that finds the timer
/// entered needs no more than Asio's own (see asio_memory.cpp).
inline void enter_timer(asio::steady_timer& timer) noexcept {
    run_until_memory([&timer] { timer.async_wait([](const boost::system::error_code&) {}); });
}

}  // namespace zorvan::gridftp
