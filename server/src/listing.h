/*
 * Lines of listings: LIST (as ls -l prints them), NLST, and MLSD/MLST facts (RFC 3659, section 7).
 *
 * Pure functions, any thread. An entry is a view: its text belongs to the record it was made from. Names go
 * out through single_line(), so that a key with CR, LF or NUL in it never adds a line; the caller learns of
 * it and logs it.
 */
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zorvan::gridftp {

/** What a listing shows of one record. */
struct listing_entry {
    std::string_view name;           /**< last component, or what the client typed */
    std::string_view symlink_target; /**< empty = none */
    std::uint32_t mode = 0;          /**< POSIX type and permission bits */
    std::uint32_t nlink = 1;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    std::int64_t size = 0;   /**< bytes */
    std::int64_t mtime = -1; /**< seconds since the epoch, -1 = unknown */

    bool is_directory() const;
};

/** The facts that MLSD and MLST can show, as bits of a set. */
enum listing_fact : unsigned {
    fact_type = 1U << 0U,
    fact_size = 1U << 1U,
    fact_modify = 1U << 2U,
    fact_unix_mode = 1U << 3U,
    fact_unix_owner = 1U << 4U,
    fact_unix_group = 1U << 5U,
    fact_perm = 1U << 6U,
    fact_all = (1U << 7U) - 1,
};

/** Facts named in OPTS MLST, "type;size;": unknown ones are left out (RFC 3659, 7.9). */
unsigned parse_facts(std::string_view text);

/** Names of a set of facts, each with ";": the answer to OPTS MLST. */
std::string fact_names(unsigned facts);

/** The FEAT line: "MLST type*;size*;..." with "*" behind the facts that are shown. */
std::string facts_feature(unsigned facts);

/** "type=file;size=3;... name" without CRLF.
 * @param is_self   the entry is the listed directory itself (type=cdir)
 * @param replaced  set to true when the name had bytes that no line can hold */
std::string facts_line(const listing_entry& entry, unsigned facts, bool is_self, bool& replaced);

/** A line as ls -l prints it, without CRLF. @param now  the present, seconds since the epoch */
std::string long_line(const listing_entry& entry, std::int64_t now, bool& replaced);

/** The arguments of LIST without leading options such as "-la"; the rest is the path. */
std::string_view without_list_options(std::string_view argument);

}  // namespace zorvan::gridftp
