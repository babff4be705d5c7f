/*
 * From a failed operation to the FTP reply that the client sees. Pure functions, any thread.
 *
 * An error with an FTP code is shown whole (code, word, text, cause); any other gets a code by what was being
 * done and its friendly text. Codes of the 4xx kind invite clients to repeat, so only what a repetition may
 * mend gets one.
 */
#pragma once

#include <cstdint>
#include <string>

#include "operation_error.h"

namespace zorvan::gridftp {

/** What was being done. */
enum class error_context : std::uint8_t {
    login,   /**< 530 unless the error has a code */
    command, /**< a command or a stat: 550 unless the error has a code */
    transfer /**< 552, 550 or 451 by the error's kind unless it has a code */
};

/** The code that error_reply() gives. */
int error_reply_code(const operation_error& error, error_context context);

/** The whole reply, one or more lines, each with CRLF. */
std::string error_reply(const operation_error& error, error_context context);

}  // namespace zorvan::gridftp
