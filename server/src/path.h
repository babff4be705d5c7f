/*
 * Paths as clients type them (TVFS, RFC 3659 section 6), resolved against the working directory.
 *
 * What comes out begins with "/", has neither ".", ".." nor doubled slashes, and ends with "/" only when it
 * is the root: the one form in which a path reaches the back end. Pure functions, any thread. A path is a
 * byte string; UTF-8 is the convention of RFC 2640, not a condition.
 */
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zorvan::gridftp {

/** A resolved path. */
struct resolved_path {
    std::string path; /**< absolute and canonical */
    bool names_directory =
        false; /**< typed with a trailing slash, "." or "..", or nothing: a directory is meant */

    /** Whether it is the root. */
    bool is_root() const { return path == "/"; }
    /** Whether its parent is the root. */
    bool is_below_root() const { return !is_root() && path.rfind('/') == 0; }
};

/**
 * Resolve what a client typed. ".." at the root stays at the root.
 * @param directory  the working directory, canonical
 * @param typed      as typed; empty = the working directory
 * @return nothing when the text holds NUL, CR or LF
 */
std::optional<resolved_path> resolve_path(std::string_view directory, std::string_view typed);

/** The last component of a canonical path; "/" of the root. A view into the path. */
std::string_view last_component(std::string_view path);

/** A path in the form of a 257 reply: in double quotes, those inside doubled (RFC 959 appendix II), on one
 * line.
 */
std::string quoted_path(std::string_view path);

}  // namespace zorvan::gridftp
