// User names and passwords from a file in the format of ~/.netrc. Pure functions but for the reading.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zorvan::copy {

struct netrc_entry {
    std::string user;
    std::string password;
    bool operator==(const netrc_entry&) const = default;
};

/// The first entry of the host (and of the user, unless empty), or the default entry.
std::optional<netrc_entry> find_netrc_entry(std::string_view text, std::string_view host,
                                            std::string_view user);

/// The file's text. @throws failure  bad_usage
std::string read_netrc(const std::string& path);

}  // namespace zorvan::copy
