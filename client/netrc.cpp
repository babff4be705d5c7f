// ~/.netrc; see netrc.h.
#include "netrc.h"

#include <fstream>
#include <iterator>

#include "failure.h"
#include "text.h"

namespace zorvan::copy {
namespace {

constexpr std::string_view blanks = " \t\r\n";

/// The next word; "" at the end. Quotes keep blanks together, a backslash in them the next character as it
/// is.
std::string take_word(std::string_view& text) {
    for (;;) {
        text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
        if (!text.starts_with('#')) break;
        text.remove_prefix(std::min(text.find('\n'), text.size()));
    }
    if (!text.starts_with('"')) {
        const auto end = std::min(text.find_first_of(blanks), text.size());
        std::string word(text.substr(0, end));
        text.remove_prefix(end);
        return word;
    }
    std::string word;
    std::size_t at = 1;
    for (; at < text.size() && text[at] != '"'; ++at) {
        if (text[at] == '\\' && at + 1 < text.size()) ++at;
        word += text[at];
    }
    text.remove_prefix(std::min(at + 1, text.size()));
    return word;
}

}  // namespace

std::optional<netrc_entry> find_netrc_entry(std::string_view text, std::string_view host,
                                            std::string_view user) {
    std::optional<netrc_entry> entry;
    const auto fits = [&] { return entry && (user.empty() || entry->user.empty() || entry->user == user); };
    while (text.find_first_not_of(blanks) != std::string_view::npos) {
        const auto word = take_word(text);
        if (word == "machine" || word == "default") {
            if (fits()) return entry;
            const bool wanted = word == "default" || gridftp::equals_ignoring_case(take_word(text), host);
            entry = wanted ? std::optional<netrc_entry>(std::in_place) : std::nullopt;
        } else if (word == "login") {
            const auto value = take_word(text);
            if (entry) entry->user = value;
        } else if (word == "password") {
            const auto value = take_word(text);
            if (entry) entry->password = value;
        } else if (word == "account") {
            take_word(text);
        } else if (word == "macdef") {
            const auto end = text.find("\n\n");
            text.remove_prefix(end == std::string_view::npos ? text.size() : end + 2);
        }
    }
    return fits() ? entry : std::nullopt;
}

std::string read_netrc(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (!file) throw failure(exit_status::bad_usage, "cannot read " + gridftp::printable(path));
    return text;
}

}  // namespace zorvan::copy
