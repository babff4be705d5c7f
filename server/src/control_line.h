/*
 * Control lines: from the bytes of the control connection to command lines.
 *
 * parse_control_line() is a pure function of the parser's state and the bytes given: it touches no socket,
 * keeps no reference to the bytes and yields the same lines however the bytes were split into segments.
 * Line ends are CRLF or a bare LF (RFC 959, 5.3), Telnet commands are taken out (RFC 1123, 4.1.2.12) and a
 * line that is too long is reported once and skipped to its end.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace zorvan::gridftp {

/** Longest control line in bytes, without its line end. */
inline constexpr std::size_t control_line_limit = 8192;

/** What the parser remembers between two segments. A fresh one is the state at the start of a line. */
struct control_line_state {
    enum class telnet : std::uint8_t { none, iac, will, wont, do_, dont, subnegotiation, subnegotiation_iac };

    std::string line;            /**< bytes of the unfinished line, never more than the limit plus one CR */
    bool too_long = false;       /**< the rest of this line is being skipped */
    telnet phase = telnet::none; /**< position inside a Telnet sequence */
};

/** Outcome of one step. */
struct control_line_step {
    std::size_t consumed = 0; /**< bytes used up; all of them unless a line was completed before the end */
    bool complete = false;    /**< a line has ended: `line` or `too_long` tells which */
    bool too_long = false;    /**< that line was over the limit; its text is dropped */
    std::string line;         /**< the line without its end */
    std::string answer;       /**< Telnet refusals to send (RFC 854); empty most of the time */
};

/**
 * Take bytes up to the end of the next line, or all of them when none ends.
 * @param state  carried from call to call; changed
 * @param bytes  borrowed for the call
 */
control_line_step parse_control_line(control_line_state& state, std::string_view bytes);

/** A command line split at its first blank. Views into the line. */
struct command_line {
    std::string_view verb;
    std::string_view
        argument; /**< without the separating blank; its other blanks are kept, a name may have them */
};

/** Split a control line. Leading blanks are skipped. */
command_line split_command_line(std::string_view line);

/** The line as it may be logged: passwords masked, bytes outside printable ASCII and UTF-8 escaped, cut at
 * 256 bytes. */
std::string loggable_line(std::string_view line);

}  // namespace zorvan::gridftp
