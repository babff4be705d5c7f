// The header lines of a reply. Each line is taken with and without its line end, and what a caller is shown
// keeps to its ranges.
#include <string>

#include "fuzz.h"
#include "response_headers.h"
#include "text.h"

namespace {

s3::ResponseHeaders read(std::string_view text, std::string_view line_end) {
    s3::ResponseHeaders headers;
    fuzz::Input input(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    while (!input.rest().empty())
        headers.add_line(std::string(input.line()) + std::string(line_end));
    return headers;
}

void check(const s3::ResponseHeaders& headers) {
    FUZZ_CHECK(headers.http_status >= 0 && headers.http_status <= 999);
    for (const auto& text :
         {headers.request_id, headers.content_type, headers.server, headers.etag, headers.location})
        if (text) FUZZ_CHECK(s3::trim(*text) == *text);
    for (const auto& [name, value] : headers.metadata) {
        FUZZ_CHECK(s3::to_lower(name) == name);
        FUZZ_CHECK(s3::trim(value) == value);
    }
    const s3::PropertiesView view(headers);
    const S3ResponseProperties& shown = *view.get();
    FUZZ_CHECK(shown.metaDataCount == static_cast<int>(headers.metadata.size()));
    FUZZ_CHECK((shown.metaData != nullptr) == (shown.metaDataCount > 0));
    FUZZ_CHECK(shown.usesServerSideEncryption >= 0 && shown.usesServerSideEncryption <= 2);
    FUZZ_CHECK(shown.restoreStatus >= 0 && shown.restoreStatus <= 2 && shown.restoreExpiry >= 0);
    FUZZ_CHECK(shown.lastModified >= -1);
    FUZZ_CHECK((shown.storageClass != nullptr) == (headers.storage_class || headers.archive_status));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = fuzz::Input(data, size).rest();
    const s3::ResponseHeaders headers = read(text, "");
    check(headers);
    const s3::ResponseHeaders wire = read(text, "\r\n");
    FUZZ_CHECK(wire.http_status == headers.http_status && wire.metadata == headers.metadata);
    FUZZ_CHECK(wire.etag == headers.etag && wire.content_length == headers.content_length);
    return 0;
}
