/*
 * Reply forms; see replies.h.
 */
#include "replies.h"

#include <fmt/format.h>

#include "text.h"

namespace zorvan::gridftp {

std::string reply(int code, std::string_view text) {
    return fmt::format("{} {}\r\n", code, single_line(text));
}

std::string reply_line(std::string_view text) {
    return single_line(text) + "\r\n";
}

std::string multi_line_reply(int code, std::string_view first, const std::vector<std::string>& middle,
                             std::string_view last, std::string_view prefix) {
    std::string text = fmt::format("{}-{}\r\n", code, single_line(first));
    for (const std::string& line : middle) {
        text += prefix;
        text += reply_line(line);
    }
    text += reply(code, last);
    return text;
}

}  // namespace zorvan::gridftp
