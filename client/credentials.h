// Who logs in with which password.
#pragma once

#include <string>

#include "location.h"

namespace zorvan::copy {

struct credentials {
    std::string user;
    std::string password;
};

/// From the address, the environment, a netrc file or the person at the terminal, in this order.
/// @param netrc  a file; empty: none
/// @throws failure  login_denied when there is a user but no password
credentials find_credentials(const server_address& server, const std::string& netrc);

}  // namespace zorvan::copy
