// Operations on single objects: put, get with ranges and conditions, delete.
// Bodies are streamed; an object becomes visible only when all of it arrived.
#include <algorithm>
#include <array>

#include "digest.h"
#include "operations.h"
#include "receive.h"
#include "text.h"

namespace zorvan::devstore {
namespace {

constexpr std::string_view default_type = "binary/octet-stream";

// Headers that are kept with an object and given back with it.
constexpr auto kept_headers = std::to_array<std::pair<std::string_view, std::string_view>>({
    {"cache-control", "Cache-Control"},
    {"content-disposition", "Content-Disposition"},
    {"content-encoding", "Content-Encoding"},
    {"content-language", "Content-Language"},
    {"expires", "Expires"},
});

constexpr auto canned_acls =
    std::to_array<std::string_view>({"private", "public-read", "public-read-write", "authenticated-read",
                                     "bucket-owner-read", "bucket-owner-full-control"});

bool etag_in(std::string_view list, std::string_view etag) {
    for (auto piece : split(list, ',')) {
        piece = trim(piece);
        if (piece == "*") return true;
        if (piece.starts_with("W/")) piece.remove_prefix(2);
        if (piece.size() >= 2 && piece.front() == '"' && piece.back() == '"')
            piece = piece.substr(1, piece.size() - 2);
        if (piece == etag) return true;
    }
    return false;
}

struct byte_range {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
};

// RFC 9110, 14.2: one range only; what cannot be parsed is ignored.
std::optional<byte_range> range_of(const http_request& request, std::uint64_t size) {
    const auto value = trim(request.header("range"));
    if (!value.starts_with("bytes=") || value.find(',') != std::string_view::npos) return std::nullopt;
    const auto text = value.substr(6);
    const auto dash = text.find('-');
    if (dash == std::string_view::npos) return std::nullopt;
    const auto first = parse_number(trim(text.substr(0, dash)));
    const auto last = parse_number(trim(text.substr(dash + 1)));
    if (dash > 0 && !first) return std::nullopt;
    if (dash + 1 < text.size() && !last) return std::nullopt;
    if (!first && !last) return std::nullopt;
    if (first && last && *last < *first) return std::nullopt;
    byte_range out;
    if (first) {
        out.offset = *first;
        if (out.offset < size) out.length = (last ? std::min(*last, size - 1) : size - 1) - out.offset + 1;
    } else {
        out.length = std::min(*last, size);
        out.offset = size - out.length;
    }
    if (out.length == 0)
        throw s3_failure("InvalidRange", {{"RangeRequested", std::string(value)},
                                          {"ActualObjectSize", std::to_string(size)}});
    return out;
}

void add_object_headers(http_response& out, const exchange& x, const object_record& object) {
    const auto& attributes = object.attributes;
    out.set("Accept-Ranges", "bytes");
    out.set("Last-Modified", http_date(object.modified));
    out.set("ETag", quoted(object.etag));
    if (!x.data.config.aws) out.set("x-rgw-object-type", "Normal");
    out.set("Content-Type", attributes.content_type.empty() ? default_type : attributes.content_type);
    for (const auto& [name, value] : attributes.headers)
        out.set(name, value);
    for (const auto& [name, value] : attributes.metadata)
        out.headers.emplace_back("x-amz-meta-" + name, value);
    if (!attributes.storage_class.empty()) out.set("X-Amz-Storage-Class", attributes.storage_class);
    if (const auto tier = archive_tier(x.data, object); !tier.empty()) out.set("x-amz-archive-status", tier);
    if (const auto restore = restore_header(x.data, object); !restore.empty())
        out.set("x-amz-restore", restore);
    for (const auto& [name, value] : x.request.query)
        if (name.starts_with("response-") && name != "response-") out.set(name.substr(9), value);
}

}  // namespace

std::string quoted(std::string_view etag) {
    return '"' + std::string(etag) + '"';
}

std::string_view shown_class(const object_attributes& attributes) {
    return attributes.storage_class.empty() ? std::string_view("STANDARD") : attributes.storage_class;
}

object_attributes attributes_from(const http_request& request, const settings& config) {
    object_attributes out;
    out.content_type = request.header("content-type");
    for (const auto& [lower, usual] : kept_headers)
        if (request.has_header(lower)) out.headers.emplace_back(usual, request.header(lower));
    for (const auto& [name, value] : request.headers)
        if (name.starts_with("x-amz-meta-")) out.metadata.emplace_back(name.substr(11), value);
    out.storage_class = request.header("x-amz-storage-class");
    const auto& classes = config.storage_classes;
    if (!out.storage_class.empty() &&
        std::find(classes.begin(), classes.end(), out.storage_class) == classes.end())
        throw s3_failure("InvalidArgument");
    const auto acl = request.header("x-amz-acl");
    if (!acl.empty() && std::find(canned_acls.begin(), canned_acls.end(), acl) == canned_acls.end())
        throw s3_failure("InvalidArgument");
    return out;
}

void check_conditions(const http_request& request, const object_record& object, std::string_view prefix) {
    const bool plain = prefix.empty();
    const auto value = [&](std::string_view name) {
        return request.header(std::string(prefix) + std::string(name));
    };
    const std::int64_t modified = object.modified / 1000;
    const auto if_match = value("if-match");
    const auto if_none_match = value("if-none-match");
    if (!if_match.empty()) {
        if (!etag_in(if_match, object.etag)) throw s3_failure("PreconditionFailed");
    } else if (const auto since = parse_http_date(value("if-unmodified-since")); since && modified > *since) {
        throw s3_failure("PreconditionFailed");
    }
    const s3_failure unchanged(
        plain ? "NotModified" : "PreconditionFailed", {},
        {{"ETag", quoted(object.etag)}, {"Last-Modified", http_date(object.modified)}});
    if (!if_none_match.empty()) {
        if (etag_in(if_none_match, object.etag)) throw unchanged;
    } else if (const auto since = parse_http_date(value("if-modified-since")); since && modified <= *since) {
        throw unchanged;
    }
}

void check_write_conditions(const http_request& request, const object_record* current) {
    const auto if_match = request.header("if-match");
    const auto if_none_match = request.header("if-none-match");
    if (!if_match.empty() && (!current || !etag_in(if_match, current->etag)))
        throw s3_failure("PreconditionFailed");
    if (!if_none_match.empty() && current && etag_in(if_none_match, current->etag))
        throw s3_failure("PreconditionFailed");
}

reply put_object(exchange& x) {
    auto object = std::make_shared<object_record>();
    object->attributes = attributes_from(x.request, x.data.config);
    x.data.index.read(x.bucket, x.uid(),
                      [&](const bucket& b) { check_write_conditions(x.request, b.find(x.key).get()); });
    auto arrived = co_await receive_blob(x);
    object->body = std::move(arrived.body);
    object->etag = hex(arrived.md5);
    object->modified = x.data.clock.now();
    // The replaced object is dropped here, outside the index's lock.
    const auto replaced = x.data.index.write(x.bucket, x.uid(), [&](bucket& b) {
        check_write_conditions(x.request, b.find(x.key).get());
        return b.store(x.key, object);
    });
    http_response out;
    out.set("ETag", quoted(object->etag));
    out.set("Accept-Ranges", "bytes");
    co_return out;
}

reply get_object(exchange& x) {
    const auto object = x.data.index.read(x.bucket, x.uid(), [&](const bucket& b) { return b.find(x.key); });
    if (!object) throw s3_failure("NoSuchKey");
    check_conditions(x.request, *object, "");
    http_response out;
    const bool head = x.request.method == "HEAD";
    if (!head) check_readable(x.data, *object);
    out.body = object->body;
    out.body_length = object->body.size();
    if (!x.request.header("range").empty() && !x.request.ignore_range) {
        if (const auto range = range_of(x.request, object->body.size())) {
            out.status = 206;
            out.body_offset = range->offset;
            out.body_length = range->length;
            out.set("Content-Range", "bytes " + std::to_string(range->offset) + "-" +
                                         std::to_string(range->offset + range->length - 1) + "/" +
                                         std::to_string(object->body.size()));
        }
    }
    add_object_headers(out, x, *object);
    co_return out;
}

reply delete_object(exchange& x) {
    const auto dropped = x.data.index.write(x.bucket, x.uid(), [&](bucket& b) { return b.erase(x.key); });
    http_response out;
    out.status = 204;
    co_return out;
}

}  // namespace zorvan::devstore
