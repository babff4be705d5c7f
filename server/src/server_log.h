// The server's log: one process-wide sink, usable from the first to the last line of main and from any
// thread. Until it is configured, warnings and errors go to standard error.
#pragma once

#include <zorvan_gridftp_server.h>

#include <string>
#include <string_view>

namespace zorvan::gridftp {

/// Begin to log. @param level  error, warning, transfer, info or debug: that and everything graver
/// @param file  path to append to; empty = standard error
/// @param error  one line on failure (bad level, file cannot be opened); the log stays as it was
bool configure_log(std::string_view level, const std::string& file, std::string& error);

/// Open the log file again under its name (after a rotation). Thread-safe.
void reopen_log() noexcept;

/// Would a line of this level (zorvan_gfs_log_level_e) be written?
bool log_enabled(int level) noexcept;

/// Write a line. Control characters in it are replaced, so that no line can be forged. Thread-safe; never
/// throws.
void log_line(int level, std::string_view text) noexcept;

}  // namespace zorvan::gridftp
