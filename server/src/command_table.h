/*
 * The table of commands: which verbs exist, who may use them when, what arguments they take and who handles
 * them.
 *
 * Constant data; lookups are pure and may be made on any thread. To add a command: a row here, a handler in
 * the
 * *_verbs file of its group (declared in verbs.h).
 */
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "async.h"

namespace zorvan::gridftp {

class session;

/** Handles one command and sends its reply. Runs on the session's strand. @param argument  lives for the call
 */
using command_handler = task<void> (*)(session& client, std::string_view argument);

/** What a command does with its argument. Others than these shapes are refused with 501 before the handler.
 */
enum class argument_rule : std::uint8_t {
    none,     /**< nothing but blanks may follow */
    optional, /**< anything may follow */
    required, /**< something must follow */
    ignored,  /**< whatever follows is dropped */
};

/** One command. */
struct command_entry {
    std::string_view verb;   /**< upper case */
    std::string_view syntax; /**< of the argument, for HELP */
    argument_rule argument = argument_rule::none;
    bool before_login = false; /**< works without a log-in */
    command_handler handler = nullptr;
};

/** The row of a verb, whatever its case; null when there is none. */
const command_entry* find_command(std::string_view verb);

/** All rows, sorted by verb. */
std::span<const command_entry> all_commands();

}  // namespace zorvan::gridftp
