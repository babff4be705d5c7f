/*
 * Verbs about the session itself: log-in (RFC 959), HOST (RFC 7151), FEAT and OPTS (RFC 2389), LANG (RFC
 * 2640) and the small ones. See verbs.h for the laws of handlers.
 */
#include <fmt/format.h>
#include <string.h>

#include <algorithm>

#include "command_table.h"
#include "host.h"
#include "replies.h"
#include "server_log.h"
#include "session.h"
#include "text.h"
#include "verbs.h"

namespace zorvan::gridftp {

namespace {

/** "Parallelism=start,least,most;" of OPTS RETR (GFD.20). @return the number to start with */
std::optional<std::size_t> parse_parallelism(std::string_view option) {
    const auto equals = option.find('=');
    if (equals == std::string_view::npos || !option.ends_with(';') ||
        !equals_ignoring_case(option.substr(0, equals), "Parallelism"))
        return std::nullopt;
    std::string_view values = option.substr(equals + 1, option.size() - equals - 2);
    std::size_t first = 0;
    for (int index = 0; index < 3; ++index) {
        const auto comma = values.find(',');
        const auto value = parse_decimal(trim(values.substr(0, comma)));
        if (!value || *value < 1 || (comma == std::string_view::npos) != (index == 2)) return std::nullopt;
        if (index == 0) first = static_cast<std::size_t>(*value);
        if (comma != std::string_view::npos) values.remove_prefix(comma + 1);
    }
    return first;
}

}  // namespace

task<void> handle_user(session& client, std::string_view argument) {
    if (client.logged_in()) {
        co_await client.answer(503, texts::already_logged_in);
        co_return;
    }
    client.parameters().user = trim(argument);
    client.parameters().user_given = true;
    // The same for every name: nobody learns here who exists.
    co_await client.answer(331, texts::need_password);
}

task<void> handle_pass(session& client, std::string_view argument) {
    if (client.logged_in()) {
        co_await client.answer(503, texts::already_logged_in);
        co_return;
    }
    if (!client.parameters().user_given) {
        co_await client.answer(503, texts::need_user_first);
        co_return;
    }
    client.parameters().user_given = false;
    std::string password(argument);
    const bool good = co_await client.check_password(std::move(password));
    if (!good) {
        client.log(ZORVAN_GFS_LOG_WARNING, "wrong user or password");
        co_await client.answer(530, texts::login_incorrect);
        co_return;
    }
    co_await client.log_in();
}

task<void> handle_acct(session& client, std::string_view) {
    co_await client.answer(202, texts::superfluous);
}

task<void> handle_quit(session& client, std::string_view) {
    client.close_after_reply();
    co_await client.answer(221, texts::goodbye);
}

task<void> handle_rein(session& client, std::string_view) {
    client.reset();
    co_await client.answer(220, texts::reinitialized);
}

task<void> handle_host(session& client, std::string_view argument) {
    if (client.logged_in() || client.parameters().user_given) {
        co_await client.answer(503, texts::host_too_late);
        co_return;
    }
    const bool known = client.choose_collection(argument);
    co_await client.answer(known ? 220 : 504, known ? texts::host_accepted : texts::host_unknown);
}

task<void> handle_feat(session& client, std::string_view) {
    const std::vector<std::string> features = {
        "CLNT",      "EPRT",        "EPSV",     "ERET", "ESTO",
        "HASH MD5*", "HOST",        "LANG EN*", "MDTM", facts_feature(client.parameters().facts),
        "PARALLEL",  "REST STREAM", "SIZE",     "SPAS", "SPOR",
        "TVFS",      "UTF8",        "XMD5",
    };
    co_await client.send(multi_line_reply(211, "Features:", features, "End"));
}

task<void> handle_opts(session& client, std::string_view argument) {
    const command_line parts = split_command_line(argument);
    const std::string_view option = trim(parts.argument);
    if (equals_ignoring_case(parts.verb, "UTF8") || equals_ignoring_case(parts.verb, "UTF-8")) {
        // Names are byte strings that go through unchanged, so ON is how things are and OFF cannot be had.
        const bool on =
            option.empty() || equals_ignoring_case(option, "ON") || equals_ignoring_case(option, "NLST");
        co_await client.answer(on ? 200 : 504, on ? "UTF8 is on." : "UTF8 is always on.");
    } else if (equals_ignoring_case(parts.verb, "MLST")) {
        client.parameters().facts = parse_facts(option);
        co_await client.answer(200, "MLST OPTS " + fact_names(client.parameters().facts));
    } else if (equals_ignoring_case(parts.verb, "HASH")) {
        const bool known = option.empty() || equals_ignoring_case(option, "MD5");
        co_await client.answer(known ? 200 : 501,
                               known ? "MD5" : "Unknown algorithm, current selection not changed");
    } else if (const auto connections = parse_parallelism(option);
               connections && equals_ignoring_case(parts.verb, "RETR")) {
        client.parameters().parallelism =
            std::min(*connections, client.environment().shared.config().most_connections);
        co_await client.answer(200, fmt::format("Parallelism={}", client.parameters().parallelism));
    } else {
        co_await client.answer(501, "Option not understood.");
    }
}

task<void> handle_syst(session& client, std::string_view) {
    co_await client.answer(215, texts::system_type);
}

task<void> handle_clnt(session& client, std::string_view argument) {
    if (!trim(argument).empty()) client.log(ZORVAN_GFS_LOG_DEBUG, "client: " + printable(trim(argument)));
    co_await client.answer(200, texts::ok);
}

task<void> handle_help(session& client, std::string_view argument) {
    const std::string_view verb = trim(argument);
    if (!verb.empty()) {
        if (const command_entry* entry = find_command(verb)) {
            co_await client.answer(214, fmt::format("Syntax: {}{}{}", entry->verb,
                                                    entry->syntax.empty() ? "" : " ", entry->syntax));
        } else {
            co_await client.answer(502, texts::unknown_command);
        }
        co_return;
    }
    constexpr std::size_t columns = 8;
    std::vector<std::string> lines;
    std::size_t column = 0;
    for (const command_entry& entry : all_commands()) {
        if (column++ % columns == 0) lines.emplace_back();
        lines.back() += fmt::format("{:<6}", entry.verb);
    }
    co_await client.send(multi_line_reply(214, "Commands:", lines, "HELP <command> shows its syntax."));
}

task<void> handle_noop(session& client, std::string_view) {
    co_await client.answer(200, texts::ok);
}

task<void> handle_lang(session& client, std::string_view argument) {
    const std::string_view language = trim(argument);
    const bool known = language.empty() || equals_ignoring_case(language, "EN") ||
                       (language.size() > 3 && equals_ignoring_case(language.substr(0, 3), "EN-"));
    co_await client.answer(known ? 200 : 504, known ? "Replies are in English." : "Only English is spoken.");
}

}  // namespace zorvan::gridftp
