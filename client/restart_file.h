// What a transfer that broke off has left, in a small text file, so that a later run can go on.
//
// A file of a transfer that is none of this one - another size, another time, another path - is no help and
// no error.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "range_list.h"

namespace zorvan::copy {

struct restart_record {
    bool upload = false;
    std::string remote;  ///< the address, without user and password
    std::string local;   ///< an absolute path
    std::uint64_t size = 0;
    std::string stamp;           ///< of the source's content: a time, without blanks; may be empty
    gridftp::range_list ranges;  ///< what need not be sent again

    /// Whether the other one is of the same transfer of the same content.
    bool same_transfer(const restart_record& other) const;
};

/// The first line of such a file.
std::string_view restart_file_title();
std::string format_restart(const restart_record& record);
/// @return nothing for whatever is no such text, a cut one included
std::optional<restart_record> parse_restart(std::string_view text);

/// @return nothing if there is none, or none that can be read
std::optional<restart_record> read_restart_file(const std::string& path);
/// Replaces the file in one step. @throws failure  write_failed
void write_restart_file(const std::string& path, const restart_record& record);
void remove_restart_file(const std::string& path) noexcept;
/// Whether a file is one of these by its first line.
bool is_restart_file(const std::string& path);

}  // namespace zorvan::copy
