// Why an operation failed, as a value: everything that a reply can be made from, nothing that must be
// released. Made from a result that a back end handed over, or by the server itself. Plain data, no threads.
#pragma once

#include <zorvan_common.h>

#include <string>
#include <string_view>
#include <vector>

namespace zorvan::gridftp {

/// Who failed.
enum class error_origin {
    back_end,      ///< the storage said so; see the error's fields
    data_channel,  ///< the data connection: could not be opened (425) or broke (426)
    server,        ///< the server itself refused: ftp_code, ftp_word and text_lines are the reply
};

/// A failure. Strings hold no CR, LF or NUL.
struct operation_error {
    error_origin origin = error_origin::back_end;
    bool plain_failure = false;  ///< the result -1, or a handle without an object: no field below is set
    int type = 0;                ///< zorvan_error_type_e or a module's own
    int errno_value = 0;         ///< of a system error
    int ftp_code = 0;            ///< of an FTP response error, or the server's own; 0 = none
    std::string ftp_word;        ///< e.g. "PATH_NOT_FOUND"; empty = none
    std::vector<std::string> text_lines;      ///< the object's own text, empty when it has none
    std::vector<std::string> friendly_lines;  ///< of the object, then of each cause
    std::string cause_first_line;             ///< first line of the direct cause's text; empty = none

    /// Take over a result and release its object.
    /// @param result  not ZORVAN_SUCCESS
    static operation_error take(zorvan_result_t result);

    /// The same without releasing the object.
    static operation_error peek(zorvan_result_t result);

    /// The server has no memory. Says so without needing any: it has no text.
    static operation_error out_of_memory() noexcept;

    /// A failure of the data connection. @param code 425 or 426
    static operation_error channel(int code, std::string_view text);

    /// A refusal of the server's own. @param text  may have several lines
    static operation_error server(int code, std::string_view word, std::string_view text);

    /// A new error object that says the same, for a back end; the caller owns the result.
    zorvan_result_t to_result() const;
};

/// Release the object behind a result, if there is one.
void release_result(zorvan_result_t result) noexcept;

}  // namespace zorvan::gridftp
