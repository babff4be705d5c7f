// Small text tools of the client: percent encoding, dates, numbers, digests. Pure functions without state;
// any thread may call them, results are owned by the caller, std::bad_alloc is the only exception.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace s3 {

/// Percent-encodes every byte but A-Z a-z 0-9 - . _ ~ and "/" (upper-case hex), as Signature V4 wants paths.
std::string encode_path(std::string_view text);

/// The same for a query name or value, where "/" is encoded too.
std::string encode_query(std::string_view text);

/// Decodes percent escapes; malformed ones stay as they are. plus_is_space: "+" stands for a space.
std::string decode_percent(std::string_view text, bool plus_is_space);

/// ASCII only, whatever the locale is.
std::string to_lower(std::string_view text);
bool equals_ignore_case(std::string_view a, std::string_view b);

/// Without leading and trailing blanks, tabs and line ends.
std::string_view trim(std::string_view text);

/// A decimal number that fills the whole text, or nothing (also when it does not fit).
std::optional<uint64_t> parse_u64(std::string_view text);

/// Seconds since 1970 of "2013-05-24T00:00:00[.000](Z|+hh:mm)", read as UTC; -1 when malformed (RFC 3339).
int64_t parse_iso8601(std::string_view text);

/// Seconds since 1970 of an HTTP date (RFC 9110, 5.6.7); -1 when malformed.
int64_t parse_http_date(const std::string& text);

/// "Fri, 24 May 2013 00:00:00 GMT" (RFC 9110, 5.6.7); empty for a year that has no four digits.
std::string format_http_date(int64_t seconds);

/// "20130524T000000Z", the form of x-amz-date.
std::string format_basic_iso8601(int64_t seconds);

/// Lower-case hex.
std::string to_hex(std::span<const unsigned char> bytes);
/// Nothing when the text is not an even number of hex digits.
std::optional<std::string> from_hex(std::string_view text);

std::string to_base64(std::span<const unsigned char> bytes);
std::array<unsigned char, 16> md5(std::string_view data);
std::array<unsigned char, 32> sha256(std::string_view data);

/// Escapes & < > " ' for element text.
std::string escape_xml(std::string_view text);

/// A text as the C interface gives it: null when there is none. Borrowed.
inline const char* text_or_null(const std::optional<std::string>& text) {
    return text ? text->c_str() : nullptr;
}
/// The same where an empty text stands for none.
inline const char* nonempty_or_null(const std::string& text) {
    return text.empty() ? nullptr : text.c_str();
}

/// Puts double quotes around an ETag that has none; empty stays empty.
std::string quoted_etag(std::string_view etag);
/// An ETag without its quotes.
std::string_view unquoted_etag(std::string_view etag);

}  // namespace s3
