/*
 * Error replies; see error_reply.h.
 */
#include "error_reply.h"

#include <cerrno>

#include "replies.h"

namespace zorvan::gridftp {

namespace {

/** `CODE-WORD`, the text's lines as `CODE-line`, then `CODE cause`; `CODE WORD` when there is neither. */
std::string coded_reply(const operation_error& error) {
    if (error.text_lines.empty() && error.cause_first_line.empty())
        return reply(error.ftp_code, error.ftp_word);
    if (error.origin == error_origin::server) {
        // The server's own refusals have no cause; clients that show only the last line are to show the text.
        std::vector<std::string> lines = error.text_lines;
        const std::string last = lines.back();
        lines.pop_back();
        return multi_line_reply(error.ftp_code, error.ftp_word, lines, last,
                                std::to_string(error.ftp_code) + "-");
    }
    return multi_line_reply(error.ftp_code, error.ftp_word, error.text_lines, error.cause_first_line,
                            std::to_string(error.ftp_code) + "-");
}

/** The lines themselves: all but the last as `CODE-line`. */
std::string lines_reply(int code, const std::vector<std::string>& lines) {
    std::string text;
    for (std::size_t index = 0; index + 1 < lines.size(); ++index) {
        text += std::to_string(code) + "-" + reply_line(lines[index]);
    }
    text += reply(code, lines.empty() ? texts::unknown_error : std::string_view(lines.back()));
    return text;
}

}  // namespace

int error_reply_code(const operation_error& error, error_context context) {
    if (error.plain_failure) return context == error_context::login ? 530 : 500;
    if (error.ftp_code != 0) return error.ftp_code;
    switch (context) {
        case error_context::login:
            return 530;
        case error_context::command:
            return 550;
        case error_context::transfer:
            break;
    }
    if (error.type == ZORVAN_ERROR_TYPE_SYSTEM && error.errno_value == EFBIG) return 552;
    if (error.type == ZORVAN_ERROR_TYPE_SYSTEM && error.errno_value == EINVAL) return 550;
    if (error.type == ZORVAN_ERROR_TYPE_GENERIC) return 550;
    return 451;
}

std::string error_reply(const operation_error& error, error_context context) {
    const int code = error_reply_code(error, context);
    if (error.plain_failure)
        return reply(code, context == error_context::login ? texts::storage_refused : texts::storage_cannot);
    if (error.ftp_code == 0) return lines_reply(code, error.friendly_lines);
    if (!error.ftp_word.empty()) return coded_reply(error);
    return lines_reply(code, error.text_lines.empty() ? error.friendly_lines : error.text_lines);
}

}  // namespace zorvan::gridftp
