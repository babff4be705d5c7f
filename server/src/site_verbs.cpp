/*
 * SITE: what no standard names. STAGE hands a path to the back end's own command; UTIME and CHMOD are
 * refused, because a stored object has no times and modes of its own to set.
 */
#include "replies.h"
#include "session.h"
#include "text.h"
#include "verbs.h"

namespace zorvan::gridftp {

namespace {

/** Whether a text begins as a final reply does: "NNN " or "NNN-". */
bool is_reply(std::string_view text) {
    return text.size() >= 4 && text[0] >= '2' && text[0] <= '5' && text[1] >= '0' && text[1] <= '9' &&
           text[2] >= '0' && text[2] <= '9' && (text[3] == ' ' || text[3] == '-');
}

/** A back end's own reply with line ends as they must be. One that is none becomes the text of a 250. */
std::string back_end_reply(std::string_view text) {
    const std::vector<std::string_view> lines = split_lines(text);
    if (lines.empty()) return reply(250, texts::stage_done);
    if (!is_reply(lines.front()) || lines.back().size() < 4 ||
        lines.back().substr(0, 3) != lines.front().substr(0, 3) || lines.back()[3] != ' ') {
        return reply(250, lines.front());
    }
    std::string whole;
    for (const std::string_view line : lines)
        whole += reply_line(line);
    return whole;
}

task<void> stage(session& client, std::string_view typed) {
    const std::optional<resolved_path> target = co_await client.resolve_file(typed, 550);
    if (!target) co_return;
    const auto outcome = co_await client.simple_command(ZORVAN_GRIDFTP_SERVER_COMMAND_CUSTOM, target->path);
    if (outcome) co_await client.send(back_end_reply(outcome->text.value_or("")));
}

}  // namespace

task<void> handle_site(session& client, std::string_view argument) {
    const command_line parts = split_command_line(argument);
    if (equals_ignoring_case(parts.verb, "HELP")) {
        const std::vector<std::string> lines = {"HELP", "STAGE <path>"};
        co_await client.send(multi_line_reply(214, "SITE commands:", lines, "End"));
    } else if (equals_ignoring_case(parts.verb, "STAGE")) {
        if (trim(parts.argument).empty()) {
            co_await client.answer(501, texts::argument_wanted);
        } else {
            co_await stage(client, parts.argument);
        }
    } else if (equals_ignoring_case(parts.verb, "UTIME") || equals_ignoring_case(parts.verb, "CHMOD")) {
        co_await client.answer(504, "Not supported by an object store.");
    } else {
        co_await client.answer(500, "Unknown SITE command.");
    }
}

}  // namespace zorvan::gridftp
