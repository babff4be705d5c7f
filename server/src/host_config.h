// What the core needs to know from the configuration. Plain data, constant once the host is made.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace zorvan::gridftp {

/// Where uploads of unknown size wait until they are measured.
struct spool_config {
    bool enabled = true;
    std::string directory = "/var/tmp";  ///< holds unlinked temporary files
    std::uint64_t memory = 16u << 20;    ///< bytes in memory, total of the process
    std::uint64_t limit = 16ull << 30;   ///< bytes in memory and files, total of the process
};

struct host_config {
    std::size_t block_size = 262144;                   ///< bytes of one read or write of a back end
    int concurrency = 4;                               ///< reads or writes outstanding
    std::chrono::milliseconds update_interval{5'000};  ///< between progress replies; 0 = none
    std::size_t checksums_per_user = 8;                ///< checksums that run for one user at a time
    std::optional<std::string> backend_options;        ///< the back end's option string
    spool_config spool;
    std::chrono::milliseconds data_stall{300'000};     ///< a client that moves nothing for so long is cut
    std::chrono::milliseconds receive_wait{60'000};    ///< a second upload to one path waits so long
    std::chrono::milliseconds partial_block_wait{50};  ///< data wait so long for their block to fill
    std::chrono::milliseconds drain_time{20'000};      ///< a refused upload is read and dropped so long
    std::uint64_t drain_bytes = 256u << 20;            ///< ... and so far
    std::size_t most_connections = 32;                 ///< data connections of a transfer in extended mode
    std::chrono::milliseconds held_up_wait{200};  ///< extended mode: blocks far ahead wait so long for others
    std::chrono::milliseconds idle_thread{10'000};  ///< an unused pool thread ends after so long
};

}  // namespace zorvan::gridftp
