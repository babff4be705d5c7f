// The headers of a reply. Names are compared whole and without case (RFC 9110, 5.1); values are trimmed.
#include "response_headers.h"

#include "text.h"

namespace s3 {
namespace {

constexpr std::string_view kMetadataPrefix = S3_METADATA_HEADER_NAME_PREFIX;

ContentRange parse_content_range(std::string_view value) {
    ContentRange range;
    if (!value.starts_with("bytes ")) return range;
    value = trim(value.substr(6));
    const size_t slash = value.find('/');
    if (slash == std::string_view::npos) return range;
    range.total = parse_u64(value.substr(slash + 1));
    const std::string_view span = value.substr(0, slash);
    const size_t dash = span.find('-');
    if (dash == std::string_view::npos) return range;
    range.first = parse_u64(span.substr(0, dash));
    range.last = parse_u64(span.substr(dash + 1));
    return range;
}

std::optional<std::string> quoted_field(std::string_view value, std::string_view name) {
    const size_t at = value.find(name);
    if (at == std::string_view::npos) return std::nullopt;
    std::string_view rest = value.substr(at + name.size());
    if (!rest.starts_with("=\"")) return std::nullopt;
    rest.remove_prefix(2);
    return std::string(rest.substr(0, rest.find('"')));
}

void parse_restore(std::string_view value, ResponseHeaders& out) {
    const std::optional<std::string> ongoing = quoted_field(value, "ongoing-request");
    const std::optional<std::string> expiry = quoted_field(value, "expiry-date");
    if (!ongoing) return;
    if (equals_ignore_case(*ongoing, "true")) {
        out.restore_status = 1;
    } else if (expiry) {
        // Without an expiry date some stores mean "never restored".
        out.restore_status = 2;
    }
    if (expiry) {
        const int64_t seconds = parse_http_date(*expiry);
        out.restore_expiry = seconds < 0 ? 0 : seconds;
    }
}

}  // namespace

void ResponseHeaders::add_line(std::string_view line) {
    if (line.starts_with("HTTP/")) {
        *this = ResponseHeaders{};
        const size_t blank = line.find(' ');
        if (blank != std::string_view::npos)
            http_status = static_cast<long>(parse_u64(trim(line.substr(blank + 1)).substr(0, 3)).value_or(0));
        return;
    }
    if (trim(line).empty()) complete = true;
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) return;
    const std::string name = to_lower(trim(line.substr(0, colon)));
    const std::string_view value = trim(line.substr(colon + 1));
    if (name == "x-amz-request-id") {
        request_id = value;
    } else if (name == "x-amz-id-2") {
        request_id2 = value;
    } else if (name == "content-type") {
        content_type = value;
    } else if (name == "content-length") {
        content_length = parse_u64(value);
    } else if (name == "content-range") {
        content_range = parse_content_range(value);
    } else if (name == "transfer-encoding") {
        chunked = to_lower(value).ends_with("chunked");
    } else if (name == "server") {
        server = value;
    } else if (name == "etag") {
        etag = value;
    } else if (name == "last-modified") {
        last_modified = parse_http_date(std::string(value));
    } else if (name == "location") {
        location = value;
    } else if (name == "x-amz-bucket-region") {
        bucket_region = value;
    } else if (name == "x-amz-storage-class") {
        storage_class = value;
    } else if (name == "x-amz-archive-status") {
        archive_status = value;
    } else if (name == "x-amz-restore") {
        parse_restore(value, *this);
    } else if (name == "x-amz-server-side-encryption") {
        if (equals_ignore_case(value, "AES256")) {
            if (encryption == 0) encryption = 1;
        } else if (!value.empty()) {
            encryption = 2;
        }
    } else if (name == "x-amz-server-side-encryption-customer-algorithm") {
        encryption = 2;
    } else if (name.starts_with(kMetadataPrefix)) {
        metadata.emplace_back(name.substr(kMetadataPrefix.size()), value);
    }
}

PropertiesView::PropertiesView(const ResponseHeaders& headers) {
    metadata_.reserve(headers.metadata.size());
    for (const auto& [name, value] : headers.metadata)
        metadata_.push_back({name.c_str(), value.c_str()});
    properties_.requestId = text_or_null(headers.request_id);
    properties_.requestId2 = text_or_null(headers.request_id2);
    properties_.contentType = text_or_null(headers.content_type);
    properties_.contentLength = headers.content_length.value_or(0);
    properties_.server = text_or_null(headers.server);
    properties_.eTag = text_or_null(headers.etag);
    properties_.lastModified = headers.last_modified;
    properties_.metaDataCount = static_cast<int>(metadata_.size());
    properties_.metaData = metadata_.empty() ? nullptr : metadata_.data();
    properties_.usesServerSideEncryption = headers.encryption;
    properties_.bucketRegion = text_or_null(headers.bucket_region);
    if (headers.storage_class || headers.archive_status) {
        storage_class_ = headers.storage_class.value_or("");
        if (headers.archive_status) storage_class_ += ":" + *headers.archive_status;
        properties_.storageClass = storage_class_.c_str();
    }
    properties_.restoreStatus = headers.restore_status;
    properties_.restoreExpiry = headers.restore_expiry;
}

}  // namespace s3
