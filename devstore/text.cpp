// Percent-coding, dates, hex, base64 and XML escaping. See text.h; everything
// here is pure and free of locale, so that output never depends on the host.
#include "text.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <ctime>

namespace zorvan::devstore {
namespace {

constexpr std::array<std::string_view, 12> month_names = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr std::array<std::string_view, 7> day_names = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool unreserved(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || c == '~';
}

std::tm utc(std::int64_t milliseconds) {
    const auto seconds = static_cast<std::time_t>(milliseconds / 1000);
    std::tm out{};
    gmtime_r(&seconds, &out);
    return out;
}

std::optional<int> digits(std::string_view text, std::size_t at, std::size_t count) {
    if (at + count > text.size()) return std::nullopt;
    const auto value = parse_number(text.substr(at, count));
    if (!value) return std::nullopt;
    return static_cast<int>(*value);
}

}  // namespace

std::string url_decode(std::string_view text, bool plus_is_space) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && hex_value(text[i + 1]) >= 0 &&
            hex_value(text[i + 2]) >= 0) {
            out.push_back(static_cast<char>(hex_value(text[i + 1]) * 16 + hex_value(text[i + 2])));
            i += 2;
        } else if (text[i] == '+' && plus_is_space) {
            out.push_back(' ');
        } else {
            out.push_back(text[i]);
        }
    }
    return out;
}

std::string url_encode(std::string_view text, bool keep_slash) {
    static constexpr std::string_view hex = "0123456789ABCDEF";
    std::string out;
    out.reserve(text.size() + text.size() / 4);
    for (const char c : text) {
        if (unreserved(c) || (c == '/' && keep_slash)) {
            out.push_back(c);
        } else {
            const auto byte = static_cast<unsigned char>(c);
            out.push_back('%');
            out.push_back(hex[byte >> 4U]);
            out.push_back(hex[byte & 15U]);
        }
    }
    return out;
}

std::string to_lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), lower);
    return out;
}

bool equals_ignoring_case(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return lower(x) == lower(y); });
}

std::string_view trim(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> out;
    for (;;) {
        const auto at = text.find(separator);
        out.push_back(text.substr(0, at));
        if (at == std::string_view::npos) return out;
        text.remove_prefix(at + 1);
    }
}

std::optional<std::uint64_t> parse_number(std::string_view text) {
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::string http_date(std::int64_t milliseconds) {
    const std::tm t = utc(milliseconds);
    std::array<char, 64> out{};
    const int n = std::snprintf(out.data(), out.size(), "%s, %02d %s %04d %02d:%02d:%02d GMT",
                                day_names[static_cast<std::size_t>(t.tm_wday)].data(), t.tm_mday,
                                month_names[static_cast<std::size_t>(t.tm_mon)].data(), t.tm_year + 1900,
                                t.tm_hour, t.tm_min, t.tm_sec);
    return {out.data(), static_cast<std::size_t>(n)};
}

std::string iso_date(std::int64_t milliseconds) {
    const std::tm t = utc(milliseconds);
    std::array<char, 64> out{};
    const int n = std::snprintf(out.data(), out.size(), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ",
                                t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec,
                                static_cast<int>(milliseconds % 1000));
    return {out.data(), static_cast<std::size_t>(n)};
}

std::optional<std::int64_t> parse_http_date(std::string_view text) {
    // "Fri, 01 Jan 2021 00:00:00 GMT"
    text = trim(text);
    if (text.size() != 29 || text.substr(3, 2) != ", " || text.substr(25) != " GMT") return std::nullopt;
    const auto month = std::find(month_names.begin(), month_names.end(), text.substr(8, 3));
    const auto day = digits(text, 5, 2), year = digits(text, 12, 4), hour = digits(text, 17, 2),
               minute = digits(text, 20, 2), second = digits(text, 23, 2);
    if (month == month_names.end() || !day || !year || !hour || !minute || !second) return std::nullopt;
    std::tm t{};
    t.tm_year = *year - 1900;
    t.tm_mon = static_cast<int>(month - month_names.begin());
    t.tm_mday = *day;
    t.tm_hour = *hour;
    t.tm_min = *minute;
    t.tm_sec = *second;
    return timegm(&t);
}

std::optional<std::int64_t> parse_amz_date(std::string_view text) {
    if (text.size() != 16 || text[8] != 'T' || text[15] != 'Z') return std::nullopt;
    const auto year = digits(text, 0, 4), month = digits(text, 4, 2), day = digits(text, 6, 2),
               hour = digits(text, 9, 2), minute = digits(text, 11, 2), second = digits(text, 13, 2);
    if (!year || !month || !day || !hour || !minute || !second) return std::nullopt;
    std::tm t{};
    t.tm_year = *year - 1900;
    t.tm_mon = *month - 1;
    t.tm_mday = *day;
    t.tm_hour = *hour;
    t.tm_min = *minute;
    t.tm_sec = *second;
    return timegm(&t);
}

std::string to_hex(std::span<const unsigned char> bytes) {
    static constexpr std::string_view hex = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (const unsigned char b : bytes) {
        out.push_back(hex[b >> 4U]);
        out.push_back(hex[b & 15U]);
    }
    return out;
}

std::optional<std::string> from_hex(std::string_view text) {
    if (text.size() % 2 != 0) return std::nullopt;
    std::string out;
    out.reserve(text.size() / 2);
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = hex_value(text[i]);
        const int low = hex_value(text[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        out.push_back(static_cast<char>(high * 16 + low));
    }
    return out;
}

std::string base64_encode(std::string_view bytes) {
    std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int n =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                        reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
    out.resize(static_cast<std::size_t>(n));
    return out;
}

std::optional<std::string> base64_decode(std::string_view text) {
    if (text.empty() || text.size() % 4 != 0) return std::nullopt;
    std::string out(text.size() / 4 * 3, '\0');
    const int n =
        EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                        reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    if (n < 0) return std::nullopt;
    // EVP_DecodeBlock counts the padding as data.
    std::size_t padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=')
        ++padding;
    out.resize(static_cast<std::size_t>(n) - padding);
    return out;
}

std::string xml_escape(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&apos;";
                break;
            case '\r':
                out += "&#13;";
                break;
            default:
                out.push_back(c);
        }
    }
    return out;
}

}  // namespace zorvan::devstore
