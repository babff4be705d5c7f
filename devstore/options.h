// The command line of zorvan-devstore.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "store.h"

namespace zorvan::devstore {

/// What was asked for.
struct options {
    settings config;
    std::string listen = "127.0.0.1:0";
    std::string port_file;
    std::string control;
    std::string control_port_file;
    std::string data_dir = "memory";
    unsigned threads = 0;
    std::vector<user> users;
    std::string users_file;
};

/// Reads the command line. Nothing when the program is to end at once with `status`: after --help, --version
/// or an error, whose text was printed.
std::optional<options> parse_options(int argc, const char* const* argv, int& status);

}  // namespace zorvan::devstore
