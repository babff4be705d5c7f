/*
 * Times in the forms of RFC 3659 (MDTM, MFMT, the "modify" fact) and of a long listing. All of them are UTC;
 * inside, a time is seconds since the epoch and -1 is "unknown". Pure functions, any thread, no locale.
 */
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zorvan::gridftp {

/** YYYYMMDDHHMMSS (RFC 3659, 2.3); nothing for -1 and for a time without a four-digit year. */
std::optional<std::string> format_time_value(std::int64_t seconds);

/** The reverse; a fraction ".sss" is accepted and dropped. Nothing when it is no such text or no such time.
 */
std::optional<std::int64_t> parse_time_value(std::string_view text);

/** The 12 characters of a long listing: "Nov 20 13:24", or "Nov 20  2024" when it is more than six months ago
 * or in the future. An unknown time shows as "Jan  1  1970".
 * @param now  the present, seconds since the epoch */
std::string format_list_time(std::int64_t seconds, std::int64_t now);

/** The present, seconds since the epoch. */
std::int64_t current_time();

}  // namespace zorvan::gridftp
