// One download: a remote path to a local file, in stream or extended mode.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "local_file.h"
#include "range_list.h"
#include "session.h"

namespace zorvan::copy {

struct download_request {
    std::string path;  ///< remote
    bool extended = false;
    bool active = false;  ///< stream mode: the server connects to this host; in extended mode it always does
    unsigned connections = 1;
    std::optional<std::uint64_t> size;  ///< of the file, if the server told
    /// What is in the part file already, and what came; filled in by the transfer, also when it fails.
    gridftp::range_list* received = nullptr;
    /// Several times a second: what is in the part file.
    std::function<void(const gridftp::range_list&)> tick;
};

/// Fetch what is missing into the part file. When it returns, all of it is there.
/// @throws failure
void download(session& with, part_file& target, const download_request& request);

/// Fetch everything, in stream mode, to what is no regular file. @return the bytes
std::uint64_t download(session& with, output_stream& target, const download_request& request,
                       const std::function<void(std::uint64_t)>& tick);

}  // namespace zorvan::copy
