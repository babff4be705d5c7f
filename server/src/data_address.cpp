/*
 * Data connection addresses; see data_address.h.
 */
#include "data_address.h"

#include <fmt/format.h>
#include <net/if.h>

#include <algorithm>
#include <array>
#include <limits>

#include "text.h"

namespace zorvan::gridftp {

namespace ip = boost::asio::ip;

namespace {

/** An interface of this host by its name or its number. make_address() would take any text for some number.
 */
std::optional<std::uint32_t> parse_scope(std::string_view text) {
    const std::uint32_t index = if_nametoindex(std::string(text).c_str());
    if (index != 0) return index;
    const auto number = parse_decimal(text);
    if (!number || *number == 0 || *number > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
    return static_cast<std::uint32_t>(*number);
}

}  // namespace

std::optional<ip::address> parse_address(std::string_view text) {
    // make_address() reads a C string: what stands behind a NUL it would not see.
    if (text.find('\0') != std::string_view::npos) return std::nullopt;
    const std::size_t percent = text.find('%');
    boost::system::error_code error;
    const ip::address address = ip::make_address(std::string(text.substr(0, percent)), error);
    if (error) return std::nullopt;
    if (percent == std::string_view::npos) return address;
    if (address.is_v4()) return std::nullopt;
    const auto scope = parse_scope(text.substr(percent + 1));
    if (!scope) return std::nullopt;
    return ip::address_v6(address.to_v6().to_bytes(), *scope);
}

std::optional<ip::tcp::endpoint> parse_port_argument(std::string_view text) {
    text = trim(text);
    std::array<std::uint8_t, 6> numbers{};
    for (std::size_t index = 0; index < numbers.size(); ++index) {
        const std::size_t comma = text.find(',');
        if ((comma == std::string_view::npos) != (index + 1 == numbers.size())) return std::nullopt;
        const auto value = parse_decimal(trim(text.substr(0, comma)));
        if (!value || *value > 255) return std::nullopt;
        numbers.at(index) = static_cast<std::uint8_t>(*value);
        text.remove_prefix(comma == std::string_view::npos ? text.size() : comma + 1);
    }
    const ip::address_v4 address({numbers[0], numbers[1], numbers[2], numbers[3]});
    return ip::tcp::endpoint(address, static_cast<std::uint16_t>(numbers[4] * 256 + numbers[5]));
}

eprt_verdict parse_eprt_argument(std::string_view text, ip::tcp::endpoint& endpoint) {
    text = trim(text);
    if (text.size() < 7) return eprt_verdict::malformed;
    const char delimiter = text.front();
    if (delimiter < 33 || delimiter > 126 || text.back() != delimiter) return eprt_verdict::malformed;
    std::array<std::string_view, 3> fields;
    text = text.substr(1);
    for (std::string_view& field : fields) {
        const std::size_t end = text.find(delimiter);
        if (end == std::string_view::npos) return eprt_verdict::malformed;
        field = text.substr(0, end);
        text.remove_prefix(end + 1);
    }
    if (!text.empty()) return eprt_verdict::malformed;
    const auto protocol = parse_decimal(fields[0]);
    if (!protocol) return eprt_verdict::malformed;
    if (*protocol != 1 && *protocol != 2) return eprt_verdict::unknown_protocol;
    // A scope names an interface of the client's, which means nothing here.
    const std::size_t percent = std::min(fields[1].find('%'), fields[1].size());
    const std::string_view scope = fields[1].substr(percent);
    if (std::any_of(scope.begin(), scope.end(), [](char byte) { return byte <= ' ' || byte > '~'; })) {
        return eprt_verdict::malformed;
    }
    const auto address = parse_address(fields[1].substr(0, percent));
    const auto port = parse_decimal(fields[2]);
    if (!address || !port || *port == 0 || *port > 65535) return eprt_verdict::malformed;
    if (address->is_v4() != (*protocol == 1)) return eprt_verdict::malformed;
    endpoint = ip::tcp::endpoint(*address, static_cast<std::uint16_t>(*port));
    return eprt_verdict::good;
}

ip::address unmapped(const ip::address& address) {
    if (address.is_v6() && address.to_v6().is_v4_mapped()) {
        return ip::make_address_v4(ip::v4_mapped, address.to_v6());
    }
    return address;
}

bool is_allowed_data_peer(const ip::tcp::endpoint& endpoint, const ip::address& client) {
    constexpr std::uint16_t first_unprivileged = 1024;
    ip::address peer = unmapped(endpoint.address());
    ip::address own = unmapped(client);
    // A link-local address is the same host whatever the scope says; EPRT carries none.
    if (peer.is_v6() && own.is_v6()) {
        peer = ip::address_v6(peer.to_v6().to_bytes());
        own = ip::address_v6(own.to_v6().to_bytes());
    }
    return peer == own && endpoint.port() >= first_unprivileged;
}

std::string port_argument(const ip::address_v4& address, std::uint16_t port) {
    const auto bytes = address.to_bytes();
    return fmt::format("{},{},{},{},{},{}", bytes[0], bytes[1], bytes[2], bytes[3], port / 256, port % 256);
}

std::string passive_text(const ip::address_v4& address, std::uint16_t port) {
    return "Entering Passive Mode (" + port_argument(address, port) + ")";
}

std::string extended_passive_text(std::uint16_t port) {
    return fmt::format("Entering Extended Passive Mode (|||{}|)", port);
}

}  // namespace zorvan::gridftp
