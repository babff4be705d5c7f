/*
 * Verbs about how data travel: representation, mode, data connections (RFC 959, RFC 2428), sizes and offsets
 * for the next transfer, and the security verbs (RFC 2228, RFC 4217) as long as no TLS is on offer.
 */
#include <fmt/format.h>

#include "data_address.h"
#include "replies.h"
#include "server_log.h"
#include "session.h"
#include "text.h"
#include "verbs.h"

namespace zorvan::gridftp {

namespace {

constexpr std::int64_t largest_buffer = 64LL << 20U;

/** Open a listener for the next transfer; answers 425 when that fails. @return its port */
task<std::optional<std::uint16_t>> listen_for_data(session& client) {
    // The former one goes first: its port may be the only one of the range.
    client.parameters().connector.reset();
    boost::system::error_code error;
    const data_connection_rules rules = client.data_rules();
    auto listener = passive_listener::open(client.executor(), rules, error);
    if (!listener) {
        client.log(ZORVAN_GFS_LOG_ERROR, "no passive data port: " + error.message());
        co_await client.answer(425, texts::cannot_listen);
        co_return std::nullopt;
    }
    const std::uint16_t port = listener->port();
    client.parameters().connector = std::move(listener);
    co_return port;
}

/** Take an endpoint that the client asks to have the data sent to, and answer. */
task<void> connect_for_data(session& client, asio::ip::tcp::endpoint endpoint) {
    if (!is_allowed_data_peer(endpoint, client.client_address())) {
        client.log(ZORVAN_GFS_LOG_WARNING, fmt::format("refused to send data to {} port {}",
                                                       endpoint.address().to_string(), endpoint.port()));
        co_await client.answer(504, texts::port_refused);
        co_return;
    }
    // A link-local address needs the scope that only the control connection knows.
    const asio::ip::tcp::endpoint target(client.client_address(), endpoint.port());
    const data_connection_rules rules = client.data_rules();
    client.parameters().connector = std::make_unique<active_connector>(client.executor(), rules, target);
    co_await client.answer(200, texts::ok);
}

}  // namespace

task<void> handle_type(session& client, std::string_view argument) {
    const std::vector<std::string_view> words = split_words(argument);
    const bool single = words.size() == 1;
    // Bytes of eight bits are what an image consists of, too.
    const bool bytes = equals_ignoring_case(words[0], "L") && words.size() == 2 && words[1] == "8";
    if (bytes || (equals_ignoring_case(words[0], "I") && single)) {
        client.parameters().type = representation_type::image;
    } else if (equals_ignoring_case(words[0], "A") &&
               (single || (words.size() == 2 && equals_ignoring_case(words[1], "N")))) {
        client.parameters().type = representation_type::ascii;
    } else {
        co_await client.answer(504, texts::bad_parameter);
        co_return;
    }
    co_await client.answer(200, texts::ok);
}

task<void> handle_mode(session& client, std::string_view argument) {
    const bool extended = equals_ignoring_case(trim(argument), "E");
    if (!extended && !equals_ignoring_case(trim(argument), "S")) {
        co_await client.answer(504, texts::bad_parameter);
        co_return;
    }
    session_parameters& parameters = client.parameters();
    if (parameters.extended_mode != extended && parameters.connector) parameters.connector->kept.clear();
    parameters.extended_mode = extended;
    co_await client.answer(200, texts::ok);
}

task<void> handle_stru(session& client, std::string_view argument) {
    const bool good = equals_ignoring_case(trim(argument), "F");
    co_await client.answer(good ? 200 : 504, good ? texts::ok : texts::bad_parameter);
}

task<void> handle_pasv(session& client, std::string_view) {
    if (client.parameters().only_epsv) {
        co_await client.answer(503, texts::only_epsv);
        co_return;
    }
    if (!client.local_address().is_v4()) {
        co_await client.answer(425, texts::pasv_needs_ipv4);
        co_return;
    }
    const std::optional<std::uint16_t> port = co_await listen_for_data(client);
    if (!port) co_return;
    const asio::ip::address shown = client.config().public_address_v4.value_or(client.local_address());
    co_await client.answer(227, passive_text(shown.to_v4(), *port));
}

task<void> handle_epsv(session& client, std::string_view argument) {
    const std::string_view wanted = trim(argument);
    if (equals_ignoring_case(wanted, "ALL")) {
        client.parameters().only_epsv = true;
        client.parameters().connector.reset();
        co_await client.answer(200, texts::ok);
        co_return;
    }
    const std::string_view own = client.local_address().is_v4() ? "1" : "2";
    if (!wanted.empty() && wanted != own) {
        if (wanted == "1" || wanted == "2") {
            co_await client.answer(522, fmt::format("Network protocol not supported, use ({})", own));
        } else {
            co_await client.answer(
                wanted.find_first_not_of("0123456789") == std::string_view::npos ? 522 : 501,
                fmt::format("Network protocol not supported, use ({})", own));
        }
        co_return;
    }
    const std::optional<std::uint16_t> port = co_await listen_for_data(client);
    if (!port) co_return;
    co_await client.answer(229, extended_passive_text(*port));
}

task<void> handle_port(session& client, std::string_view argument) {
    if (client.parameters().only_epsv) {
        co_await client.answer(503, texts::only_epsv);
        co_return;
    }
    const auto endpoint = parse_port_argument(argument);
    if (!endpoint) {
        co_await client.answer(501, texts::bad_argument);
        co_return;
    }
    co_await connect_for_data(client, *endpoint);
}

task<void> handle_eprt(session& client, std::string_view argument) {
    if (client.parameters().only_epsv) {
        co_await client.answer(503, texts::only_epsv);
        co_return;
    }
    asio::ip::tcp::endpoint endpoint;
    const eprt_verdict verdict = parse_eprt_argument(argument, endpoint);
    if (verdict == eprt_verdict::malformed) {
        co_await client.answer(501, texts::bad_argument);
    } else if (verdict == eprt_verdict::unknown_protocol) {
        co_await client.answer(522, fmt::format("Network protocol not supported, use ({})",
                                                client.local_address().is_v4() ? "1" : "2"));
    } else {
        co_await connect_for_data(client, endpoint);
    }
}

task<void> handle_spas(session& client, std::string_view) {
    if (client.parameters().only_epsv) {
        co_await client.answer(503, texts::only_epsv);
        co_return;
    }
    if (!client.local_address().is_v4()) {
        co_await client.answer(425, texts::spas_needs_ipv4);
        co_return;
    }
    const std::optional<std::uint16_t> port = co_await listen_for_data(client);
    if (!port) co_return;
    const asio::ip::address shown = client.config().public_address_v4.value_or(client.local_address());
    const std::vector<std::string> stripes{port_argument(shown.to_v4(), *port)};
    co_await client.send(multi_line_reply(229, "Entering Striped Passive Mode.", stripes, "End"));
}

task<void> handle_spor(session& client, std::string_view argument) {
    if (client.parameters().only_epsv) {
        co_await client.answer(503, texts::only_epsv);
        co_return;
    }
    if (!client.client_address().is_v4()) {
        co_await client.answer(504, texts::spor_needs_ipv4);
        co_return;
    }
    const std::vector<std::string_view> stripes = split_words(argument);
    const auto endpoint = parse_port_argument(stripes[0]);
    if (!endpoint) {
        co_await client.answer(501, texts::bad_argument);
    } else if (stripes.size() > 1) {
        co_await client.answer(504, texts::one_stripe);
    } else {
        co_await connect_for_data(client, *endpoint);
    }
}

task<void> handle_allo(session& client, std::string_view argument) {
    const std::vector<std::string_view> words = split_words(argument);
    const auto size = parse_decimal(words[0]);
    // "ALLO n R m" names a record size too, which files without records do not have (RFC 959, 4.1.3).
    const bool good =
        size && (words.size() == 1 ||
                 (words.size() == 3 && equals_ignoring_case(words[1], "R") && parse_decimal(words[2])));
    if (!good) {
        co_await client.answer(501, texts::bad_argument);
        co_return;
    }
    // In TYPE A the number of bytes on the wire is not that of the file: it says nothing.
    const bool binds = client.parameters().type == representation_type::image;
    client.parameters().announced_size = binds ? static_cast<std::uint64_t>(*size) : 0;
    co_await client.answer(200, texts::ok);
}

task<void> handle_rest(session& client, std::string_view argument) {
    if (const auto offset = parse_decimal(trim(argument))) {
        client.parameters().restart = {};
        client.parameters().restart.add(0, static_cast<std::uint64_t>(*offset));
        co_await client.answer(350, fmt::format("Restarting at {}. Send STOR or RETR.", *offset));
        co_return;
    }
    auto list = client.parameters().extended_mode ? range_list::parse(trim(argument)) : std::nullopt;
    if (!list) {
        co_await client.answer(501, texts::bad_argument);
        co_return;
    }
    client.parameters().restart = std::move(*list);
    co_await client.answer(350, "Restarting around these ranges. Send STOR or RETR.");
}

task<void> handle_sbuf(session& client, std::string_view argument) {
    const auto size = parse_decimal(trim(argument));
    if (!size || *size == 0) {
        co_await client.answer(501, texts::bad_argument);
        co_return;
    }
    client.parameters().buffer_size = static_cast<std::size_t>(std::min(*size, largest_buffer));
    co_await client.answer(200, texts::ok);
}

task<void> handle_auth(session& client, std::string_view argument) {
    const std::string mechanism = ascii_upper(trim(argument));
    const bool tls = mechanism == "TLS" || mechanism == "TLS-C" || mechanism == "SSL" || mechanism == "TLS-P";
    co_await client.answer(tls ? 502 : 504, tls ? "TLS is not available." : "Unknown security mechanism.");
}

task<void> handle_pbsz(session& client, std::string_view) {
    co_await client.answer(503, "Use AUTH first.");
}

task<void> handle_prot(session& client, std::string_view) {
    co_await client.answer(503, "Use AUTH first.");
}

task<void> handle_ccc(session& client, std::string_view) {
    co_await client.answer(534, "The control connection keeps its protection.");
}

task<void> handle_dcau(session& client, std::string_view argument) {
    const std::string mode = ascii_upper(trim(argument));
    if (mode == "N") {
        co_await client.answer(200, texts::ok);
    } else if (mode == "A" || mode == "P" || mode.starts_with("S")) {
        co_await client.answer(504, "Data connections cannot be authenticated.");
    } else {
        co_await client.answer(501, texts::bad_argument);
    }
}

}  // namespace zorvan::gridftp
