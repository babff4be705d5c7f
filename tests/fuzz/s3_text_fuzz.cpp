// Encodings of the S3 client: what is written can be read again, and holds nothing that a URL, a header or an
// XML document would take for its own.
#include "text.h"

#include <algorithm>
#include <string>

#include "fuzz.h"
#include "xml.h"

namespace {

void check_url(std::string_view text) {
    const std::string path = s3::encode_path(text);
    const std::string query = s3::encode_query(text);
    FUZZ_CHECK(s3::decode_percent(path, false) == text);
    // A "+" is encoded in both, so both dialects of stores read the same.
    FUZZ_CHECK(s3::decode_percent(query, true) == text);
    for (const std::string* encoded : {&path, &query}) {
        FUZZ_CHECK(std::all_of(encoded->begin(), encoded->end(),
                               [](char byte) { return byte > 0x20 && byte < 0x7f; }));
        FUZZ_CHECK(encoded->find_first_of("?#&=+\"<>\\ ") == std::string::npos);
    }
    FUZZ_CHECK(query.find('/') == std::string::npos);
    FUZZ_CHECK(s3::decode_percent(text, false).size() <= text.size());
}

void check_numbers(std::string_view text) {
    if (const auto value = s3::parse_u64(text)) {
        const std::size_t significant = std::min(text.find_first_not_of('0'), text.size() - 1);
        FUZZ_CHECK(std::to_string(*value) == text.substr(significant));
    }
    if (const auto bytes = s3::from_hex(text)) {
        const auto* first = reinterpret_cast<const unsigned char*>(bytes->data());
        FUZZ_CHECK(s3::to_hex({first, bytes->size()}) == s3::to_lower(text));
    }
    const std::int64_t date = s3::parse_http_date(std::string(text));
    FUZZ_CHECK(date >= -1);
    if (date >= 0) {
        const std::string shown = s3::format_http_date(date);
        if (!shown.empty()) FUZZ_CHECK(s3::parse_http_date(shown) == date);
    }
    static_cast<void>(s3::parse_iso8601(text));
}

void check_documents(std::string_view text) {
    const s3::XmlReply document("<a>" + s3::escape_xml(text) + "</a>");
    // XML has no NUL, turns CR into LF, and an element of nothing but blanks may be left empty.
    const bool plain = text.find_first_of(std::string_view("\0\r", 2)) == std::string_view::npos;
    if (plain && !s3::trim(text).empty()) {
        FUZZ_CHECK(document.has_root("a"));
        FUZZ_CHECK(document.root().text().get() == text);
    }
    // Any text may come as a document.
    const s3::XmlReply other(text);
    if (other.ok()) FUZZ_CHECK(other.has_root(s3::local_name(other.root())));
}

void check_etags(std::string_view text) {
    const std::string quoted = s3::quoted_etag(text);
    FUZZ_CHECK(s3::quoted_etag(quoted) == quoted);
    FUZZ_CHECK(text.empty() == quoted.empty());
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = fuzz::Input(data, size).rest();
    check_url(text);
    check_numbers(text);
    check_documents(text);
    check_etags(text);
    return 0;
}
