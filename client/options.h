// The command line.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "control.h"
#include "location.h"

namespace zorvan::copy {

enum class checksum_choice : std::uint8_t {
    automatic,  ///< MD5 in extended mode, if the server can
    none,
    md5
};

struct settings {
    std::vector<location> sources;
    location destination;
    unsigned parallel = 1;
    bool extended = false;
    std::size_t block_size = 1U << 20U;
    bool resume = false;
    std::string restart_file;
    checksum_choice checksum = checksum_choice::automatic;
    bool recursive = false;
    bool active = false;
    bool show_progress = false;  ///< also when standard error is no terminal
    bool no_progress = false;
    bool quiet = false;
    bool verbose = false;
    unsigned retries = 0;
    std::chrono::seconds retry_pause{5};
    time_limits limits;
    std::string netrc;  ///< a file; empty: none
};

struct command_line {
    std::optional<settings> wanted;  ///< none: `text` is all that was asked for
    std::string text;
};

/// @param arguments  without the program's name
/// @throws failure  bad_usage or malformed_url
command_line parse_command_line(std::vector<std::string> arguments);

}  // namespace zorvan::copy
