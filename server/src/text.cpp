/*
 * Text helpers; see text.h.
 */
#include "text.h"

#include <algorithm>
#include <charconv>

namespace zorvan::gridftp {

namespace {

constexpr char upper(char letter) {
    return letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 32) : letter;
}
constexpr char lower(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + 32) : letter;
}

/** Length of the valid UTF-8 sequence (RFC 3629) that begins the text, 0 when there is none. */
std::size_t utf8_length(std::string_view text) {
    const auto at = [&](std::size_t index) { return static_cast<unsigned char>(text[index]); };
    const unsigned char first = at(0);
    if (first < 0x80) return 1;
    std::size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xbf;
    if (first >= 0xc2 && first <= 0xdf) {
        length = 2;
    } else if (first >= 0xe0 && first <= 0xef) {
        length = 3;
        if (first == 0xe0) low = 0xa0;
        if (first == 0xed) high = 0x9f;
    } else if (first >= 0xf0 && first <= 0xf4) {
        length = 4;
        if (first == 0xf0) low = 0x90;
        if (first == 0xf4) high = 0x8f;
    }
    if (length == 0 || text.size() < length || at(1) < low || at(1) > high) return 0;
    for (std::size_t index = 2; index < length; ++index) {
        if (at(index) < 0x80 || at(index) > 0xbf) return 0;
    }
    return length;
}

}  // namespace

std::string ascii_upper(std::string_view text) {
    std::string copy(text);
    for (char& letter : copy)
        letter = upper(letter);
    return copy;
}

std::string ascii_lower(std::string_view text) {
    std::string copy(text);
    for (char& letter : copy)
        letter = lower(letter);
    return copy;
}

bool equals_ignoring_case(std::string_view left, std::string_view right) {
    if (left.size() != right.size()) return false;
    for (std::size_t index = 0; index < left.size(); ++index) {
        if (lower(left[index]) != lower(right[index])) return false;
    }
    return true;
}

std::string_view trim(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

std::optional<std::int64_t> parse_decimal(std::string_view text) {
    if (text.empty() || text.front() < '0' || text.front() > '9') return std::nullopt;
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::vector<std::string_view> split_words(std::string_view text) {
    std::vector<std::string_view> words;
    for (std::size_t begin = text.find_first_not_of(" \t"); begin != std::string_view::npos;
         begin = text.find_first_not_of(" \t", begin)) {
        const std::size_t end = std::min(text.find_first_of(" \t", begin), text.size());
        words.push_back(text.substr(begin, end - begin));
        begin = end;
    }
    return words;
}

std::string printable(std::string_view text) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        const auto first = static_cast<unsigned char>(text.front());
        if (length == 0 || first < 0x20 || first == 0x7f) {
            out += "\\x";
            out += digits[first >> 4U];
            out += digits[first & 0xfU];
            text.remove_prefix(1);
        } else {
            out.append(text.substr(0, length));
            text.remove_prefix(length);
        }
    }
    return out;
}

std::string single_line(std::string_view text, bool* replaced) {
    std::string out(text);
    for (char& byte : out) {
        if (byte != '\r' && byte != '\n' && byte != '\0') continue;
        byte = '?';
        if (replaced != nullptr) *replaced = true;
    }
    return out;
}

std::vector<std::string_view> split_lines(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const std::size_t end = text.find_first_of("\r\n");
        lines.push_back(text.substr(0, end));
        if (end == std::string_view::npos) break;
        const bool crlf = text[end] == '\r' && end + 1 < text.size() && text[end + 1] == '\n';
        text.remove_prefix(end + (crlf ? 2 : 1));
    }
    return lines;
}

}  // namespace zorvan::gridftp
