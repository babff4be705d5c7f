/*
 * The arguments of PORT, EPRT and EPSV and the replies to PASV and EPSV (RFC 959, RFC 2428), and the rule
 * about whom a data connection may reach. Pure functions, any thread.
 */
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace zorvan::gridftp {

/** A numeric address that fills the whole text; nothing for anything else, a text with a NUL in it included.
 */
std::optional<boost::asio::ip::address> parse_address(std::string_view text);

/** "h1,h2,h3,h4,p1,p2" of PORT. Nothing for anything else. */
std::optional<boost::asio::ip::tcp::endpoint> parse_port_argument(std::string_view text);

/** What an EPRT argument turned out to be. */
enum class eprt_verdict {
    good,
    malformed,        /**< 501 */
    unknown_protocol, /**< 522: neither 1 (IPv4) nor 2 (IPv6) */
};

/** "|1|132.235.1.2|6275|" of EPRT, with any delimiter from 33 to 126. @param endpoint  set when good */
eprt_verdict parse_eprt_argument(std::string_view text, boost::asio::ip::tcp::endpoint& endpoint);

/** The address itself, an IPv4 one when it is an IPv4 address mapped into IPv6. */
boost::asio::ip::address unmapped(const boost::asio::ip::address& address);

/** Whether a client may have data sent to an endpoint: its own address, a port from 1024 on (RFC 2577). */
bool is_allowed_data_peer(const boost::asio::ip::tcp::endpoint& endpoint,
                          const boost::asio::ip::address& client);

/** "h1,h2,h3,h4,p1,p2", as PORT takes and PASV gives it. */
std::string port_argument(const boost::asio::ip::address_v4& address, std::uint16_t port);

/** Text of a 227 reply. @param address  an IPv4 address */
std::string passive_text(const boost::asio::ip::address_v4& address, std::uint16_t port);

/** Text of a 229 reply. */
std::string extended_passive_text(std::uint16_t port);

}  // namespace zorvan::gridftp
