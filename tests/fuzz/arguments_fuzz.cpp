// The arguments of commands: every parser gets the whole input. What it accepts must mean the same when it is
// written out and read again.
#include <fmt/format.h>

#include <algorithm>

#include "control_line.h"
#include "data_address.h"
#include "ftp_time.h"
#include "fuzz.h"
#include "listing.h"
#include "text.h"

namespace {

using namespace zorvan::gridftp;
namespace ip = boost::asio::ip;

void check_addresses(std::string_view text) {
    if (const auto endpoint = parse_port_argument(text)) {
        const std::string shown = passive_text(endpoint->address().to_v4(), endpoint->port());
        const std::size_t begin = shown.find('(') + 1;
        FUZZ_CHECK(parse_port_argument(shown.substr(begin, shown.find(')') - begin)) == endpoint);
        // A client at that address may have its data there, and nobody else's client.
        FUZZ_CHECK(is_allowed_data_peer(*endpoint, endpoint->address()) == (endpoint->port() >= 1024));
        FUZZ_CHECK(!is_allowed_data_peer(*endpoint, ip::make_address("192.0.2.77")) ||
                   endpoint->address() == ip::make_address("192.0.2.77"));
    }
    ip::tcp::endpoint endpoint;
    if (parse_eprt_argument(text, endpoint) == eprt_verdict::good) {
        FUZZ_CHECK(endpoint.port() != 0);
        FUZZ_CHECK(!fuzz::breaks_a_line(text));
        const std::string shown = fmt::format("|{}|{}|{}|", endpoint.address().is_v4() ? 1 : 2,
                                              endpoint.address().to_string(), endpoint.port());
        ip::tcp::endpoint again;
        FUZZ_CHECK(parse_eprt_argument(shown, again) == eprt_verdict::good);
        FUZZ_CHECK(again == endpoint);
    }
}

void check_numbers(std::string_view text) {
    if (const auto value = parse_decimal(text)) {
        FUZZ_CHECK(*value >= 0);
        const std::size_t significant = std::min(text.find_first_not_of('0'), text.size() - 1);
        FUZZ_CHECK(std::to_string(*value) == text.substr(significant));
    }
    if (const auto time = parse_time_value(text)) {
        const auto shown = format_time_value(*time);
        // -1 is the mark of an unknown time.
        FUZZ_CHECK(shown || *time == -1 || text.starts_with("99991231235960"));
        if (shown) FUZZ_CHECK(parse_time_value(*shown) == time);
    }
}

void check_lists(std::string_view text) {
    const unsigned facts = parse_facts(text);
    FUZZ_CHECK((facts & ~static_cast<unsigned>(fact_all)) == 0);
    FUZZ_CHECK(parse_facts(fact_names(facts)) == facts);
    const std::string_view path = without_list_options(text);
    FUZZ_CHECK(path.empty() || (path.front() != '-' && text.ends_with(path)));
    FUZZ_CHECK(without_list_options(path) == path);

    std::string joined;
    for (const std::string_view word : split_words(text)) {
        FUZZ_CHECK(!word.empty() && word.find_first_of(" \t") == std::string_view::npos);
        joined += word;
    }
    std::string without_blanks(text);
    std::erase_if(without_blanks, [](char byte) { return byte == ' ' || byte == '\t'; });
    FUZZ_CHECK(joined == without_blanks);

    std::size_t length = 0;
    for (const std::string_view line : split_lines(text)) {
        FUZZ_CHECK(line.find_first_of("\r\n") == std::string_view::npos);
        length += line.size();
    }
    const auto ends =
        std::count_if(text.begin(), text.end(), [](char byte) { return byte == '\r' || byte == '\n'; });
    FUZZ_CHECK(length + static_cast<std::size_t>(ends) == text.size());
}

void check_texts(std::string_view text) {
    FUZZ_CHECK(trim(trim(text)) == trim(text));
    FUZZ_CHECK(equals_ignoring_case(ascii_upper(text), ascii_lower(text)));
    const std::string shown = printable(text);
    FUZZ_CHECK(printable(shown) == shown);
    bool replaced = false;
    const std::string line = single_line(text, &replaced);
    FUZZ_CHECK(!fuzz::breaks_a_line(line) && line.size() == text.size());
    FUZZ_CHECK(replaced == fuzz::breaks_a_line(text));
    FUZZ_CHECK(replaced || line == text);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = fuzz::Input(data, size).rest();
    check_addresses(text);
    check_numbers(text);
    check_lists(text);
    check_texts(text);
    return 0;
}
