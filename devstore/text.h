// Small text helpers of the store: percent-coding, dates, hex, base64, XML
// escaping. Pure functions without state; every one may be called from any
// thread. Inputs are borrowed, results are owned by the caller.
#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zorvan::devstore {

/// Decodes %XX sequences. `plus_is_space` also turns '+' into a blank (form encoding of query values).
/// A malformed sequence is kept as it stands.
std::string url_decode(std::string_view text, bool plus_is_space = false);

/// Percent-encodes every byte except A-Z a-z 0-9 - . _ ~ (RFC 3986 unreserved), upper-case hex;
/// "/" stays when `keep_slash` is set. This is the coding Signature V4 asks for.
std::string url_encode(std::string_view text, bool keep_slash);

/// ASCII lower-case copy.
std::string to_lower(std::string_view text);

/// Case-insensitive ASCII comparison.
bool equals_ignoring_case(std::string_view a, std::string_view b);

/// The text without leading and trailing blanks and tabs.
std::string_view trim(std::string_view text);

/// Splits at every `separator`; empty pieces are kept.
std::vector<std::string_view> split(std::string_view text, char separator);

/// A decimal number that fills the whole text, or nothing (also on overflow, sign or blanks).
std::optional<std::uint64_t> parse_number(std::string_view text);

/// Milliseconds since the epoch as "Fri, 01 Jan 2021 00:00:00 GMT" (RFC 9110, IMF-fixdate).
std::string http_date(std::int64_t milliseconds);

/// Milliseconds since the epoch as "2021-01-01T00:00:00.000Z", the form of S3's XML.
std::string iso_date(std::int64_t milliseconds);

/// Parses an IMF-fixdate; seconds since the epoch, or nothing.
std::optional<std::int64_t> parse_http_date(std::string_view text);

/// Parses "20210101T000000Z"; seconds since the epoch, or nothing.
std::optional<std::int64_t> parse_amz_date(std::string_view text);

/// Lower-case hex.
std::string to_hex(std::span<const unsigned char> bytes);

/// Bytes of a hex text, nothing if it is not hex of even length.
std::optional<std::string> from_hex(std::string_view text);

/// Standard base64 with padding.
std::string base64_encode(std::string_view bytes);

/// Decodes padded standard base64; nothing when malformed.
std::optional<std::string> base64_decode(std::string_view text);

/// Escapes & < > " ' and the carriage return for XML text. Bytes that XML 1.0 cannot carry are left alone:
/// clients ask for encoding-type=url when they need them.
std::string xml_escape(std::string_view text);

}  // namespace zorvan::devstore
