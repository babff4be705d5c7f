// One upload: a local file to a remote path, in stream or extended mode.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "local_file.h"
#include "session.h"

namespace zorvan::copy {

struct upload_request {
    std::string path;  ///< remote
    bool extended = false;
    bool active = false;       ///< stream mode: the server connects to this host
    unsigned connections = 1;  ///< extended mode
    std::size_t block_size = 1U << 20U;
    std::uint64_t offset = 0;  ///< extended mode: the server has what lies before
    bool summed = false;       ///< have the source summed
    /// Ranges that the server has stored for good, as it writes them.
    std::function<void(const std::string&)> stored;
    std::function<void(std::uint64_t)> tick;  ///< bytes sent so far, those before the offset included
};

/// Send it. When it returns, the server has confirmed that it is stored.
/// @throws failure
void upload(session& with, source_file& source, const upload_request& request);

/// The server cannot go on where a former upload ended; one from the beginning might succeed.
class cannot_resume : public failure {
    using failure::failure;
};

}  // namespace zorvan::copy
