/*
 * Data connections in plain TCP: a passive listener (PASV, EPSV) and an active connector (PORT, EPRT).
 *
 * Both are data_connectors of one transfer each - in extended mode of several -, made by the session when the
 * client asks for them and given to the transfer that follows. They live on the session's strand. Only the
 * host at the other end of the control connection gets in or is reached (RFC 2577): a connection from
 * elsewhere is dropped and the listener goes on.
 */
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <memory>

#include "data_stream.h"

namespace zorvan::gridftp {

/** What both kinds need to know. */
struct data_connection_rules {
    asio::ip::address client;                 /**< the peer of the control connection */
    asio::ip::address local;                  /**< the address on which the client reached the server */
    std::chrono::milliseconds timeout{60000}; /**< for the connection to come about */
    std::uint16_t first_port = 0;             /**< passive ports; 0 = any */
    std::uint16_t last_port = 0;
    std::size_t buffer_size = 0; /**< of SBUF, bytes; 0 = the system's own choice */
};

/** Waits for the client to connect. */
class passive_listener final : public data_connector {
  public:
    /**
     * Begin to listen on a port of the range, beginning at a random one.
     * @param executor  the session's strand
     * @return null, with `error` set, when no port is to be had
     */
    static std::unique_ptr<passive_listener> open(const asio::any_io_executor& executor,
                                                  const data_connection_rules& rules,
                                                  boost::system::error_code& error);

    /** The port on which it listens. */
    std::uint16_t port() const noexcept { return port_; }

    task<connect_result> connect() override;
    task<connect_result> connect_more(bool limited) override;
    void stop_connecting() noexcept override;
    bool accepts() const noexcept override { return true; }
    void cancel() noexcept override;

  private:
    passive_listener(const asio::any_io_executor& executor, const data_connection_rules& rules);
    boost::system::error_code bind(std::uint16_t port);

    asio::ip::tcp::acceptor acceptor_;
    asio::steady_timer timer_;
    data_connection_rules rules_;
    std::uint16_t port_ = 0;
    bool cancelled_ = false;
    bool stopped_ = false;
    bool timed_out_ = false;
};

/** Connects to where the client asked for. The endpoint was checked with is_allowed_data_peer(). */
class active_connector final : public data_connector {
  public:
    active_connector(const asio::any_io_executor& executor, const data_connection_rules& rules,
                     asio::ip::tcp::endpoint endpoint);

    task<connect_result> connect() override;
    task<connect_result> connect_more(bool limited) override;
    void stop_connecting() noexcept override;
    bool accepts() const noexcept override { return false; }
    void cancel() noexcept override;

  private:
    asio::ip::tcp::socket socket_;
    asio::steady_timer timer_;
    data_connection_rules rules_;
    asio::ip::tcp::endpoint endpoint_;
    bool cancelled_ = false;
};

}  // namespace zorvan::gridftp
