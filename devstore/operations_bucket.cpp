// Operations on buckets and listings of objects. Listings hold the index's
// shared lock for one page at most.
#include <algorithm>

#include "digest.h"
#include "listing.h"
#include "operations.h"
#include "receive.h"
#include "text.h"
#include "xml.h"

namespace zorvan::devstore {
namespace {

constexpr std::size_t longest_page = 1000;

void check_bucket_name(std::string_view name) {
    const auto letter_or_digit = [](char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); };
    const auto legal = [&](char c) { return letter_or_digit(c) || c == '-' || c == '.' || c == '_'; };
    if (name.size() < 3 || name.size() > 63 || !letter_or_digit(name.front()) ||
        !std::all_of(name.begin(), name.end(), legal) || name.find("..") != std::string_view::npos)
        throw s3_failure("InvalidBucketName");
    // A dotted quad would be taken for an address.
    if (std::count(name.begin(), name.end(), '.') == 3 &&
        std::all_of(name.begin(), name.end(), [](char c) { return c == '.' || (c >= '0' && c <= '9'); }))
        throw s3_failure("InvalidBucketName");
}

// What the two versions of the object listing have in common.
struct listing_request {
    std::string prefix;
    std::string delimiter;
    std::size_t limit = longest_page;
    bool url_encoded = false;

    [[nodiscard]] std::string shown(std::string_view text) const {
        return url_encoded ? url_encode(text, true) : std::string(text);
    }
};

listing_request listing_from(const http_request& request) {
    listing_request out;
    out.prefix = request.parameter_or_empty("prefix");
    out.delimiter = request.parameter_or_empty("delimiter");
    if (const auto* keys = request.parameter("max-keys"); keys && !keys->empty()) {
        const auto number = parse_number(*keys);
        if (!number) throw s3_failure("InvalidArgument");
        out.limit = static_cast<std::size_t>(std::min<std::uint64_t>(*number, longest_page));
    }
    const auto encoding = request.parameter_or_empty("encoding-type");
    if (!encoding.empty() && encoding != "url") throw s3_failure("InvalidArgument");
    out.url_encoded = encoding == "url";
    return out;
}

// The gateway puts the rolled-up prefixes before the keys.
void write_page(xml_writer& xml, const exchange& x, const listing_request& wanted, const object_page& page,
                bool with_owner) {
    for (const auto& prefix : page.prefixes)
        xml.open("CommonPrefixes").text("Prefix", wanted.shown(prefix)).close();
    for (const auto& [key, object] : page.objects) {
        xml.open("Contents").text("Key", wanted.shown(key)).text("LastModified", iso_date(object->modified));
        xml.text("ETag", quoted(object->etag)).number("Size", object->body.size());
        xml.text("StorageClass", shown_class(object->attributes));
        if (with_owner) {
            xml.open("Owner")
                .text("ID", x.auth.caller->uid)
                .text("DisplayName", x.auth.caller->display_name)
                .close();
        }
        xml.text("Type", "Normal").close();
    }
}

}  // namespace

reply list_buckets(exchange& x) {
    xml_writer xml;
    xml.open("ListAllMyBucketsResult", true).open("Owner").text("ID", x.auth.caller->uid);
    xml.text("DisplayName", x.auth.caller->display_name).close().open("Buckets");
    for (const auto& [name, created] : x.data.index.owned_by(x.uid()))
        xml.open("Bucket").text("Name", name).text("CreationDate", iso_date(created)).close();
    xml.close().close();
    co_return xml_response(xml.finish());
}

reply create_bucket(exchange& x) {
    check_bucket_name(x.bucket);
    const auto location = parse_location(co_await receive_text(x));
    const auto& config = x.data.config;
    if (!config.aws && !location.empty() && location != "default")
        throw s3_failure("InvalidLocationConstraint");
    x.data.index.create(x.bucket, x.uid(), location.empty() ? config.region : location, x.data.clock.now());
    http_response out;
    if (config.aws) out.set("Location", "/" + x.bucket);
    co_return out;
}

reply head_bucket(exchange& x) {
    http_response out;
    x.data.index.read(x.bucket, x.uid(), [&](const bucket& b) {
        if (x.data.config.aws) {
            out.set("x-amz-bucket-region", b.region);
            return;
        }
        std::uint64_t bytes = 0;
        for (const auto& [key, object] : b.objects())
            bytes += object->body.size();
        out.set("X-RGW-Object-Count", std::to_string(b.objects().size()));
        out.set("X-RGW-Bytes-Used", std::to_string(bytes));
        out.set("X-RGW-Quota-User-Size", "-1");
        out.set("X-RGW-Quota-User-Objects", "-1");
        out.set("X-RGW-Quota-Max-Buckets", "1000");
        out.set("X-RGW-Quota-Bucket-Size", "-1");
        out.set("X-RGW-Quota-Bucket-Objects", "-1");
    });
    co_return out;
}

reply delete_bucket(exchange& x) {
    x.data.index.remove(x.bucket, x.uid());
    http_response out;
    out.status = 204;
    co_return out;
}

reply bucket_location(exchange& x) {
    const auto region = x.data.index.read(x.bucket, x.uid(), [](const bucket& b) { return b.region; });
    // The gateway answers its zone group's name; S3 leaves its first region unnamed.
    const std::string shown = !x.data.config.aws ? "default" : region == "us-east-1" ? "" : region;
    xml_writer xml;
    std::string document = R"(<LocationConstraint xmlns="http://s3.amazonaws.com/doc/2006-03-01/">)";
    co_return xml_response(document + xml_escape(shown) + "</LocationConstraint>");
}

reply bucket_versioning(exchange& x) {
    x.data.index.read(x.bucket, x.uid(), [](const bucket&) {});
    xml_writer xml;
    xml.open("VersioningConfiguration", true).close();
    co_return xml_response(xml.finish());
}

reply list_objects(exchange& x) {
    const auto wanted = listing_from(x.request);
    const auto marker = x.request.parameter_or_empty("marker");
    const auto page = x.data.index.read(x.bucket, x.uid(), [&](const bucket& b) {
        return list_page(b, wanted.prefix, wanted.delimiter, marker, wanted.limit);
    });
    xml_writer xml;
    xml.open("ListBucketResult", true).text("Name", x.bucket).text("Prefix", wanted.shown(wanted.prefix));
    // S3 names the next marker only for listings with a delimiter.
    if (page.truncated && (!x.data.config.aws || !wanted.delimiter.empty()))
        xml.text("NextMarker", wanted.shown(page.next));
    xml.text("Marker", wanted.shown(marker)).number("MaxKeys", wanted.limit);
    if (!wanted.delimiter.empty()) xml.text("Delimiter", wanted.shown(wanted.delimiter));
    if (wanted.url_encoded) xml.text("EncodingType", "url");
    xml.boolean("IsTruncated", page.truncated);
    write_page(xml, x, wanted, page, true);
    xml.close();
    co_return xml_response(xml.finish());
}

reply list_objects_v2(exchange& x) {
    const auto wanted = listing_from(x.request);
    std::string after = x.request.parameter_or_empty("start-after");
    const auto token = x.request.parameter_or_empty("continuation-token");
    if (!token.empty()) {
        const auto decoded = base64_decode(token);
        if (!decoded) throw s3_failure("InvalidArgument");
        after = *decoded;
    }
    const auto page = x.data.index.read(x.bucket, x.uid(), [&](const bucket& b) {
        return list_page(b, wanted.prefix, wanted.delimiter, after, wanted.limit);
    });
    xml_writer xml;
    xml.open("ListBucketResult", true).text("Name", x.bucket).text("Prefix", wanted.shown(wanted.prefix));
    xml.number("MaxKeys", wanted.limit).number("KeyCount", page.objects.size() + page.prefixes.size());
    if (!wanted.delimiter.empty()) xml.text("Delimiter", wanted.shown(wanted.delimiter));
    if (wanted.url_encoded) xml.text("EncodingType", "url");
    if (!token.empty()) xml.text("ContinuationToken", token);
    if (page.truncated) xml.text("NextContinuationToken", base64_encode(page.next));
    if (x.request.has_parameter("start-after"))
        xml.text("StartAfter", wanted.shown(x.request.parameter_or_empty("start-after")));
    xml.boolean("IsTruncated", page.truncated);
    write_page(xml, x, wanted, page, x.request.parameter_or_empty("fetch-owner") == "true");
    xml.close();
    co_return xml_response(xml.finish());
}

reply delete_objects(exchange& x) {
    x.data.index.read(x.bucket, x.uid(), [](const bucket&) {});
    const auto wanted = parse_delete(co_await receive_text(x));
    std::vector<object_ptr> dropped;
    x.data.index.write(x.bucket, x.uid(), [&](bucket& b) {
        for (const auto& key : wanted.keys)
            dropped.push_back(b.erase(key));
    });
    xml_writer xml;
    xml.open("DeleteResult", true);
    if (!wanted.quiet)
        for (const auto& key : wanted.keys)
            xml.open("Deleted").text("Key", key).close();
    xml.close();
    co_return xml_response(xml.finish());
}

}  // namespace zorvan::devstore
