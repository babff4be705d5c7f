/*
 * Small text helpers that the session layer shares. Pure functions of their arguments, any thread; ASCII
 * rules only, independent of the locale: the protocol's words are ASCII and paths are byte strings.
 */
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zorvan::gridftp {

/** A copy with ASCII letters in upper case. */
std::string ascii_upper(std::string_view text);

/** A copy with ASCII letters in lower case. */
std::string ascii_lower(std::string_view text);

/** Equality that ignores the case of ASCII letters. */
bool equals_ignoring_case(std::string_view left, std::string_view right);

/** Without blanks and tabs at both ends. */
std::string_view trim(std::string_view text);

/** A whole text of decimal digits as a number of at most 2^63-1; nothing for anything else, overflow
 * included. */
std::optional<std::int64_t> parse_decimal(std::string_view text);

/** The words between blanks. Views into the text. */
std::vector<std::string_view> split_words(std::string_view text);

/** A copy in which control bytes, DEL and bytes that are no valid UTF-8 show as \xNN: safe in a log line. */
std::string printable(std::string_view text);

/** A copy without CR, LF and NUL, each replaced by '?': can never add a line to a reply or listing.
 * @param replaced  set to true when a byte was replaced; may be null */
std::string single_line(std::string_view text, bool* replaced = nullptr);

/** The lines of a text, split at CRLF, LF or CR, without a last empty one. Views into the text. */
std::vector<std::string_view> split_lines(std::string_view text);

}  // namespace zorvan::gridftp
