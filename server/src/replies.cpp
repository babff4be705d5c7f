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

std::string range_marker(std::string_view ranges) {
    return reply(111, fmt::format("Range Marker {}", ranges));
}

std::string performance_marker(std::chrono::system_clock::time_point time, std::uint64_t bytes) {
    const auto tenths =
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() / 100;
    const std::vector<std::string> lines{
        fmt::format("Timestamp: {}.{}", tenths / 10, tenths % 10),
        "Stripe Index: 0",
        fmt::format("Stripe Bytes Transferred: {}", bytes),
        "Total Stripe Count: 1",
    };
    return multi_line_reply(112, "Perf Marker", lines, "End");
}

}  // namespace zorvan::gridftp
