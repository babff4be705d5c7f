// Where something is copied from or to: a local path or an ftp:// address. Pure functions, any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zorvan::copy {

/// A server and who logs in there.
struct server_address {
    std::string host;  ///< a name or an address, an IPv6 one without brackets
    std::uint16_t port = 21;
    std::string user;  ///< empty: not named
    std::optional<std::string> password;
    bool operator==(const server_address&) const = default;
};

struct location {
    std::optional<server_address> server;  ///< none: a local path
    /// Bytes, percent signs resolved. Remote ones begin with "/". "-" is standard input or output.
    std::string path;
    bool remote() const noexcept { return server.has_value(); }
    /// Whether the path was written as that of a folder: with a "/" at its end.
    bool names_folder() const noexcept { return path.ends_with('/'); }
};

/// Read what stands on the command line. Anything without "://" is a local path.
/// @throws failure  malformed_url for an address that is none or of another scheme
location parse_location(std::string_view text);

/// The address of a remote path, without user and password and with percent signs: for messages and the
/// restart file.
std::string display_url(const server_address& server, std::string_view path);

/// What stands behind the last "/", not counting those at the end; "" for the root.
std::string base_name(std::string_view path);

/// A folder's path and a name in it.
std::string join(std::string_view folder, std::string_view name);

}  // namespace zorvan::copy
