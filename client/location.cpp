// Addresses (RFC 3986, RFC 1738 section 3.2); see location.h.
#include "location.h"

#include <charconv>

#include "failure.h"
#include "text.h"

namespace zorvan::copy {
namespace {

[[noreturn]] void malformed(const std::string& why) {
    throw failure(exit_status::malformed_url, "malformed address: " + why);
}

int hex_value(char digit) {
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    return -1;
}

std::string decoded(std::string_view text) {
    std::string out;
    for (std::size_t at = 0; at < text.size(); ++at) {
        char byte = text[at];
        if (byte == '%') {
            const int high = at + 2 < text.size() ? hex_value(text[at + 1]) : -1;
            const int low = at + 2 < text.size() ? hex_value(text[at + 2]) : -1;
            if (high < 0 || low < 0) malformed("a percent sign without two hexadecimal digits");
            byte = static_cast<char>(high * 16 + low);
            at += 2;
        }
        // They would end the command line that the text becomes a part of.
        if (byte == '\r' || byte == '\n' || byte == '\0') malformed("a line end or a zero byte");
        out += byte;
    }
    return out;
}

std::uint16_t parse_port(std::string_view text) {
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || value == 0 || value > 65535) {
        malformed("\"" + gridftp::printable(text) + "\" is no port");
    }
    return static_cast<std::uint16_t>(value);
}

void parse_host(std::string_view text, server_address& server) {
    std::string_view port;
    if (text.starts_with('[')) {
        const auto end = text.find(']');
        if (end == std::string_view::npos) malformed("\"[\" without \"]\"");
        server.host = text.substr(1, end - 1);
        port = text.substr(end + 1);
        if (!port.empty() && port.front() != ':') malformed("something between \"]\" and the port");
    } else {
        const auto colon = text.find(':');
        server.host = decoded(text.substr(0, colon));
        if (colon != std::string_view::npos) port = text.substr(colon);
    }
    if (server.host.empty()) malformed("no host name");
    if (server.host.find_first_of(" /?#@:") != std::string::npos && !text.starts_with('[')) {
        malformed("no host has such a name");
    }
    if (port.size() > 1) server.port = parse_port(port.substr(1));
}

bool unreserved(unsigned char byte) {
    return (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
           std::string_view("-._~/").find(static_cast<char>(byte)) != std::string_view::npos;
}

}  // namespace

location parse_location(std::string_view text) {
    const auto mark = text.find("://");
    const auto scheme = gridftp::ascii_lower(text.substr(0, mark));
    const bool is_address =
        mark != std::string_view::npos && mark > 0 &&
        scheme.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789+-.") == std::string::npos;
    location result;
    if (!is_address) {
        if (text.empty()) malformed("an empty path");
        result.path = text;
        return result;
    }
    const auto rest = text.substr(mark + 3);
    const auto slash = rest.find('/');
    const auto authority = rest.substr(0, slash);
    const auto path = slash == std::string_view::npos ? std::string_view("/") : rest.substr(slash);
    if (scheme == "file") {
        if (!authority.empty() && authority != "localhost") malformed("a file:// address names another host");
        result.path = decoded(path);
        return result;
    }
    if (scheme != "ftp") {
        malformed("\"" + scheme + "://\" is not supported, only ftp:// and file:// are");
    }
    server_address server;
    const auto at = authority.rfind('@');
    if (at != std::string_view::npos) {
        const auto who = authority.substr(0, at);
        const auto colon = who.find(':');
        server.user = decoded(who.substr(0, colon));
        if (server.user.empty()) malformed("no user before \"@\"");
        if (colon != std::string_view::npos) server.password = decoded(who.substr(colon + 1));
    }
    parse_host(at == std::string_view::npos ? authority : authority.substr(at + 1), server);
    result.path = decoded(path);
    result.server = std::move(server);
    return result;
}

std::string display_url(const server_address& server, std::string_view path) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    const bool brackets = server.host.find(':') != std::string::npos;
    std::string url = "ftp://" + (brackets ? "[" + server.host + "]" : server.host);
    if (server.port != 21) url += ":" + std::to_string(server.port);
    for (const char letter : path) {
        const auto byte = static_cast<unsigned char>(letter);
        if (unreserved(byte)) {
            url += letter;
        } else {
            url += '%';
            url += digits[byte >> 4U];
            url += digits[byte & 15U];
        }
    }
    return url;
}

std::string base_name(std::string_view path) {
    while (path.ends_with('/')) {
        path.remove_suffix(1);
    }
    return std::string(path.substr(path.rfind('/') + 1));
}

std::string join(std::string_view folder, std::string_view name) {
    std::string path(folder);
    if (!path.ends_with('/')) path += '/';
    return path.append(name);
}

}  // namespace zorvan::copy
