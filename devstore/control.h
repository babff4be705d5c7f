// The control port: a small HTTP interface for tests, apart from the S3 port
// and without authentication. See control_help() for what it offers.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <string_view>

#include "store.h"

namespace zorvan::devstore {

/// Accepts on `acceptor` for ever; borrows `data`. Ends when the io_context stops.
boost::asio::awaitable<void> serve_control(boost::asio::ip::tcp::acceptor& acceptor, store& data);

/// What the interface understands, as text (also the answer to GET /).
std::string_view control_help();

}  // namespace zorvan::devstore
