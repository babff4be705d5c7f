// Small text tools of the client: percent encoding, dates, numbers, digests. Pure functions without state,
// independent of locale and time zone.
#include "text.h"

#include <curl/curl.h>
#include <openssl/evp.h>

#include <charconv>
#include <ctime>
#include <new>

namespace s3 {
namespace {

constexpr std::string_view kUpperHex = "0123456789ABCDEF";
constexpr std::string_view kLowerHex = "0123456789abcdef";

constexpr bool is_unreserved(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || c == '~';
}

std::string percent_encode(std::string_view text, bool keep_slash) {
    std::string out;
    out.reserve(text.size() + text.size() / 4);
    for (const char raw : text) {
        const auto c = static_cast<unsigned char>(raw);
        if (is_unreserved(c) || (keep_slash && c == '/')) {
            out.push_back(raw);
        } else {
            out.push_back('%');
            out.push_back(kUpperHex[c >> 4]);
            out.push_back(kUpperHex[c & 15]);
        }
    }
    return out;
}

constexpr int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

constexpr char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

// Reads exactly `digits` decimal digits from the front of text.
bool take_number(std::string_view& text, size_t digits, int& out) {
    if (text.size() < digits) return false;
    int value = 0;
    for (size_t i = 0; i < digits; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
        value = value * 10 + (text[i] - '0');
    }
    out = value;
    text.remove_prefix(digits);
    return true;
}

bool take_char(std::string_view& text, char c) {
    if (text.empty() || text.front() != c) return false;
    text.remove_prefix(1);
    return true;
}

template <size_t N>
std::array<unsigned char, N> digest(std::string_view data, const EVP_MD* algorithm) {
    std::array<unsigned char, N> out{};
    unsigned int size = 0;
    if (EVP_Digest(data.data(), data.size(), out.data(), &size, algorithm, nullptr) != 1 || size != N)
        throw std::bad_alloc();
    return out;
}

}  // namespace

std::string encode_path(std::string_view text) {
    return percent_encode(text, true);
}

std::string encode_query(std::string_view text) {
    return percent_encode(text, false);
}

std::string decode_percent(std::string_view text, bool plus_is_space) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && hex_digit(text[i + 1]) >= 0 &&
            hex_digit(text[i + 2]) >= 0) {
            out.push_back(static_cast<char>(hex_digit(text[i + 1]) * 16 + hex_digit(text[i + 2])));
            i += 2;
        } else if (text[i] == '+' && plus_is_space) {
            out.push_back(' ');
        } else {
            out.push_back(text[i]);
        }
    }
    return out;
}

std::string to_lower(std::string_view text) {
    std::string out(text);
    for (char& c : out)
        c = lower(c);
    return out;
}

bool equals_ignore_case(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (lower(a[i]) != lower(b[i])) return false;
    }
    return true;
}

std::string_view trim(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r\n";
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::optional<uint64_t> parse_u64(std::string_view text) {
    uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || error != std::errc() || stop != end) return std::nullopt;
    return value;
}

int64_t parse_iso8601(std::string_view text) {
    std::tm tm{};
    int year = 0;
    int month = 0;
    text = trim(text);
    if (!take_number(text, 4, year) || !take_char(text, '-') || !take_number(text, 2, month) ||
        !take_char(text, '-') || !take_number(text, 2, tm.tm_mday) || !take_char(text, 'T') ||
        !take_number(text, 2, tm.tm_hour) || !take_char(text, ':') || !take_number(text, 2, tm.tm_min) ||
        !take_char(text, ':') || !take_number(text, 2, tm.tm_sec))
        return -1;
    if (month < 1 || month > 12 || tm.tm_mday < 1 || tm.tm_mday > 31 || tm.tm_hour > 23 || tm.tm_min > 59 ||
        tm.tm_sec > 60)
        return -1;
    if (take_char(text, '.')) {
        if (text.empty() || text.front() < '0' || text.front() > '9') return -1;
        while (!text.empty() && text.front() >= '0' && text.front() <= '9')
            text.remove_prefix(1);
    }
    int64_t offset = 0;
    if (!take_char(text, 'Z') && !text.empty()) {
        const int64_t sign = text.front() == '-' ? -1 : 1;
        int hours = 0;
        int minutes = 0;
        if (!take_char(text, '+') && !take_char(text, '-')) return -1;
        if (!take_number(text, 2, hours)) return -1;
        take_char(text, ':');
        if (!take_number(text, 2, minutes)) return -1;
        offset = sign * (hours * 3600 + minutes * 60);
    }
    if (!text.empty()) return -1;
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    return static_cast<int64_t>(timegm(&tm)) - offset;
}

int64_t parse_http_date(const std::string& text) {
    const time_t seconds = curl_getdate(text.c_str(), nullptr);
    return seconds < 0 ? -1 : static_cast<int64_t>(seconds);
}

std::string format_http_date(int64_t seconds) {
    static constexpr std::array<std::string_view, 7> kDays{"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr std::array<std::string_view, 12> kMonths{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const auto when = static_cast<time_t>(seconds);
    std::tm tm{};
    if (gmtime_r(&when, &tm) == nullptr || tm.tm_year > 9999 - 1900) return {};
    std::array<char, 64> rest{};
    const size_t size = std::strftime(rest.data(), rest.size(), " %Y %H:%M:%S GMT", &tm);
    std::string out(kDays[static_cast<size_t>(tm.tm_wday)]);
    out += tm.tm_mday < 10 ? ", 0" : ", ";
    out += std::to_string(tm.tm_mday);
    out += ' ';
    out += kMonths[static_cast<size_t>(tm.tm_mon)];
    out.append(rest.data(), size);
    return out;
}

std::string format_basic_iso8601(int64_t seconds) {
    const auto when = static_cast<time_t>(seconds);
    std::tm tm{};
    gmtime_r(&when, &tm);
    std::array<char, 32> out{};
    const size_t size = std::strftime(out.data(), out.size(), "%Y%m%dT%H%M%SZ", &tm);
    return std::string(out.data(), size);
}

std::string to_hex(std::span<const unsigned char> bytes) {
    std::string out;
    out.reserve(bytes.size() * 2);
    for (const unsigned char byte : bytes) {
        out.push_back(kLowerHex[byte >> 4]);
        out.push_back(kLowerHex[byte & 15]);
    }
    return out;
}

std::optional<std::string> from_hex(std::string_view text) {
    if (text.size() % 2 != 0) return std::nullopt;
    std::string out;
    out.reserve(text.size() / 2);
    for (size_t i = 0; i < text.size(); i += 2) {
        const int high = hex_digit(text[i]);
        const int low = hex_digit(text[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        out.push_back(static_cast<char>(high * 16 + low));
    }
    return out;
}

std::string to_base64(std::span<const unsigned char> bytes) {
    std::string out((bytes.size() + 2) / 3 * 4 + 1, '\0');
    const int size = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), bytes.data(),
                                     static_cast<int>(bytes.size()));
    out.resize(static_cast<size_t>(size));
    return out;
}

std::array<unsigned char, 16> md5(std::string_view data) {
    return digest<16>(data, EVP_md5());
}

std::array<unsigned char, 32> sha256(std::string_view data) {
    return digest<32>(data, EVP_sha256());
}

std::string escape_xml(std::string_view text) {
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
            default:
                out.push_back(c);
        }
    }
    return out;
}

std::string quoted_etag(std::string_view etag) {
    if (etag.empty()) return {};
    if (etag.front() == '"' || etag.starts_with("W/\"")) return std::string(etag);
    std::string out;
    out.reserve(etag.size() + 2);
    out += '"';
    out += etag;
    out += '"';
    return out;
}

std::string_view unquoted_etag(std::string_view etag) {
    if (etag.starts_with("W/")) etag.remove_prefix(2);
    if (etag.size() >= 2 && etag.front() == '"' && etag.back() == '"') etag = etag.substr(1, etag.size() - 2);
    return etag;
}

}  // namespace s3
