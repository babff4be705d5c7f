// Replies line by line; see reply.h.
#include "reply.h"

#include <array>

#include "failure.h"
#include "text.h"

namespace zorvan::copy {
namespace {

bool is_digit(char byte) {
    return byte >= '0' && byte <= '9';
}

/// The code at the beginning of a line; 0 if there is none.
int code_of(std::string_view line) {
    if (line.size() < 3 || line[0] < '1' || line[0] > '6' || !is_digit(line[1]) || !is_digit(line[2]))
        return 0;
    if (line.size() > 3 && line[3] != ' ' && line[3] != '-') return 0;
    return (line[0] - '0') * 100 + (line[1] - '0') * 10 + (line[2] - '0');
}

std::string without_code(const std::string& line) {
    return line.size() > 4 ? line.substr(4) : std::string();
}

[[noreturn]] void weird(const std::string& what) {
    throw failure(exit_status::weird_reply, "weird server reply: " + what);
}

std::optional<unsigned> port_number(std::string_view text) {
    const auto value = gridftp::parse_decimal(text);
    if (!value || *value < 1 || *value > 65535) return std::nullopt;
    return static_cast<unsigned>(*value);
}

}  // namespace

std::string reply::last() const {
    return lines.empty() ? std::string() : without_code(lines.back());
}

std::string reply::word() const {
    return lines.empty() ? std::string() : without_code(lines.front());
}

std::string reply::summary() const {
    std::string text = std::to_string(code);
    if (!word().empty()) text += " " + word();
    if (lines.size() > 1 && !last().empty()) text += ": " + last();
    constexpr std::size_t enough = 500;
    if (text.size() > enough) text = text.substr(0, enough) + "...";
    return gridftp::printable(text);
}

void reply_parser::feed(std::string_view bytes) {
    while (!bytes.empty()) {
        const auto end = bytes.find('\n');
        const auto piece = bytes.substr(0, end);
        if (line_.size() + piece.size() > longest_line) weird("a line without an end");
        line_ += piece;
        if (end == std::string_view::npos) return;
        bytes.remove_prefix(end + 1);
        if (line_.ends_with('\r')) line_.pop_back();
        take_line(line_);
        line_.clear();
    }
}

void reply_parser::take_line(std::string_view line) {
    const int code = code_of(line);
    if (!open_) {
        if (code == 0) weird("\"" + gridftp::printable(line.substr(0, 80)) + "\"");
        open_.emplace();
        open_->code = code;
        size_ = 0;
    }
    size_ += line.size() + 1;
    if (size_ > largest_reply) weird("a reply without an end");
    open_->lines.emplace_back(line);
    // Lines in between may begin with anything, the same code and "-" included.
    const bool ends = code == open_->code && (line.size() == 3 || line[3] == ' ');
    if (!ends) return;
    ready_.push_back(std::move(*open_));
    open_.reset();
}

std::optional<reply> reply_parser::take() {
    if (ready_.empty()) return std::nullopt;
    auto first = std::move(ready_.front());
    ready_.pop_front();
    return first;
}

std::optional<std::string> range_marker(const reply& from) {
    constexpr std::string_view title = "Range Marker";
    const auto text = from.last();
    if (from.code != 111 || text.size() <= title.size() ||
        !gridftp::equals_ignoring_case(std::string_view(text).substr(0, title.size()), title)) {
        return std::nullopt;
    }
    return std::string(gridftp::trim(std::string_view(text).substr(title.size())));
}

std::optional<unsigned> extended_passive_port(const reply& from) {
    if (from.code != 229) return std::nullopt;
    const auto text = from.last();
    const auto open = text.find('(');
    const auto close = text.find(')', open == std::string::npos ? 0 : open);
    if (open == std::string::npos || close == std::string::npos || close < open + 6) return std::nullopt;
    const auto inside = std::string_view(text).substr(open + 1, close - open - 1);
    const char mark = inside.front();
    if (is_digit(mark) || inside[1] != mark || inside[2] != mark || inside.back() != mark)
        return std::nullopt;
    return port_number(inside.substr(3, inside.size() - 4));
}

std::optional<unsigned> passive_port(const reply& from) {
    if (from.code != 227) return std::nullopt;
    const auto text = from.last();
    // Not every server puts the numbers into parentheses.
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (!is_digit(text[at]) || (at > 0 && is_digit(text[at - 1]))) continue;
        std::array<unsigned, 6> numbers{};
        std::size_t found = 0;
        std::size_t next = at;
        while (found < numbers.size()) {
            std::size_t end = next;
            unsigned value = 0;
            while (end < text.size() && end < next + 3 && is_digit(text[end])) {
                value = value * 10 + static_cast<unsigned>(text[end++] - '0');
            }
            if (end == next || value > 255) break;
            numbers[found++] = value;
            next = end;
            if (found < numbers.size()) {
                if (next >= text.size() || text[next] != ',') break;
                ++next;
            }
        }
        const unsigned port = numbers[4] * 256 + numbers[5];
        if (found == numbers.size() && (next >= text.size() || !is_digit(text[next]))) {
            return port == 0 ? std::nullopt : std::optional(port);
        }
    }
    return std::nullopt;
}

}  // namespace zorvan::copy
