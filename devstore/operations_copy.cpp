// Server-side copies, whole and as parts. The copy shares the source's bytes;
// only attributes are made anew.
#include "digest.h"
#include "operations.h"
#include "text.h"
#include "xml.h"

namespace zorvan::devstore {
namespace {

constexpr std::uint64_t largest_copy = std::uint64_t{5} << 30U;

struct copy_source {
    std::string bucket;
    std::string key;
};

copy_source source_of(const http_request& request) {
    std::string_view text = request.header("x-amz-copy-source");
    text = text.substr(0, text.find("?versionId="));
    auto decoded = url_decode(text);
    if (decoded.starts_with('/')) decoded.erase(0, 1);
    const auto slash = decoded.find('/');
    if (slash == std::string::npos || slash == 0 || slash + 1 == decoded.size())
        throw s3_failure("InvalidArgument");
    return {decoded.substr(0, slash), decoded.substr(slash + 1)};
}

object_ptr load_source(const exchange& x, const copy_source& from) {
    auto object = x.data.index.read(from.bucket, x.uid(), [&](const bucket& b) { return b.find(from.key); });
    if (!object) throw s3_failure("NoSuchKey");
    check_conditions(x.request, *object, "x-amz-copy-source-");
    check_readable(x.data, *object);
    return object;
}

http_response copy_reply(const exchange& x, std::string_view root, std::string_view etag,
                         std::int64_t modified) {
    xml_writer xml;
    xml.open(root, true).text("LastModified", iso_date(modified));
    // The gateway leaves the quotes out here.
    xml.text("ETag", x.data.config.aws ? quoted(etag) : std::string(etag)).close();
    return xml_response(xml.finish());
}

}  // namespace

reply copy_object(exchange& x) {
    const auto from = source_of(x.request);
    const auto directive = x.request.header("x-amz-metadata-directive");
    if (!directive.empty() && directive != "COPY" && directive != "REPLACE")
        throw s3_failure("InvalidArgument");
    const bool replace = directive == "REPLACE";
    auto attributes = attributes_from(x.request, x.data.config);
    x.data.index.read(x.bucket, x.uid(), [](const bucket&) {});
    const auto source = load_source(x, from);
    if (source->body.size() > largest_copy) throw s3_failure("InvalidRequest");
    if (from.bucket == x.bucket && from.key == x.key && !replace && attributes.storage_class.empty())
        throw s3_failure("InvalidRequest");
    auto object = std::make_shared<object_record>();
    object->body = source->body;
    object->etag = source->etag;
    object->modified = x.data.clock.now();
    // The storage class is never inherited.
    const auto storage_class = attributes.storage_class;
    object->attributes = replace ? attributes : source->attributes;
    object->attributes.storage_class = storage_class;
    const auto replaced =
        x.data.index.write(x.bucket, x.uid(), [&](bucket& b) { return b.store(x.key, object); });
    co_return copy_reply(x, "CopyObjectResult", object->etag, object->modified);
}

reply upload_part_copy(exchange& x) {
    const auto number = parse_number(x.request.parameter_or_empty("partNumber"));
    if (!number || *number < 1 || *number > 10000) throw s3_failure("InvalidArgument");
    const auto id = x.request.parameter_or_empty("uploadId");
    const auto from = source_of(x.request);
    x.data.index.read(x.bucket, x.uid(), [&](const bucket& b) {
        if (!b.find_upload(x.key, id)) throw s3_failure("NoSuchUpload");
    });
    const auto source = load_source(x, from);
    part_record part;
    part.body = source->body;
    if (const auto range = x.request.header("x-amz-copy-source-range"); !range.empty()) {
        const auto dash = range.find('-');
        if (!range.starts_with("bytes=") || dash == std::string_view::npos)
            throw s3_failure("InvalidArgument");
        const auto first = parse_number(range.substr(6, dash - 6));
        const auto last = parse_number(range.substr(dash + 1));
        if (!first || !last || *last < *first) throw s3_failure("InvalidArgument");
        if (*last >= source->body.size()) throw s3_failure("InvalidRange");
        part.body = source->body.slice(*first, *last - *first + 1);
    }
    if (part.body.size() > largest_copy) throw s3_failure("InvalidRequest");
    auto sum = digest::md5();
    std::vector<char> scratch(block_size);
    for (std::uint64_t at = 0; at < part.body.size();) {
        const auto piece = part.body.read(at, scratch);
        sum.update(piece);
        at += piece.size();
    }
    part.etag = hex(sum.finish());
    part.modified = x.data.clock.now();
    const auto etag = part.etag;
    const auto modified = part.modified;
    const auto replaced = x.data.index.write(x.bucket, x.uid(), [&](bucket& b) {
        if (!b.find_upload(x.key, id)) throw s3_failure("NoSuchUpload");
        return b.store_part(x.key, id, static_cast<unsigned>(*number), std::move(part));
    });
    co_return copy_reply(x, "CopyPartResult", etag, modified);
}

}  // namespace zorvan::devstore
