// The store's HTTP side: accepts connections and serves each in a coroutine
// of its own on a strand, so that a connection needs no lock. Faults are
// carried out here, at the points faults.h names.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "store.h"

namespace zorvan::devstore {

/// Accepts on `acceptor` for ever; borrows `data`. Ends when the io_context stops.
boost::asio::awaitable<void> serve(boost::asio::ip::tcp::acceptor& acceptor, store& data);

}  // namespace zorvan::devstore
