// Multipart uploads. Parts are blobs of their own; the finished object strings
// them together without moving a byte. Its ETag is the MD5 of the parts' MD5s
// with "-N".
#include <openssl/rand.h>

#include <algorithm>
#include <array>

#include "digest.h"
#include "listing.h"
#include "operations.h"
#include "receive.h"
#include "text.h"
#include "xml.h"

namespace zorvan::devstore {
namespace {

std::string new_upload_id() {
    static constexpr std::string_view letters =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::array<unsigned char, 31> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1)
        throw std::runtime_error("no random bytes");
    std::string out = "2~";
    for (const unsigned char byte : bytes)
        out.push_back(letters[byte % letters.size()]);
    return out;
}

std::size_t page_limit(const http_request& request, std::string_view name) {
    const auto* text = request.parameter(name);
    if (!text || text->empty()) return 1000;
    const auto number = parse_number(*text);
    if (!number) throw s3_failure("InvalidArgument");
    return static_cast<std::size_t>(std::min<std::uint64_t>(*number, 1000));
}

// The parts a commit asks for, checked against those that were uploaded.
std::vector<unsigned> checked_parts(const upload_record& upload, std::vector<requested_part> wanted,
                                    const settings& config) {
    const auto by_number = [](const requested_part& a, const requested_part& b) {
        return a.number < b.number;
    };
    if (!std::is_sorted(wanted.begin(), wanted.end(), by_number)) {
        if (config.aws) throw s3_failure("InvalidPartOrder");
        std::stable_sort(wanted.begin(), wanted.end(), by_number);
    }
    std::vector<unsigned> out;
    for (const auto& part : wanted) {
        const auto at = upload.parts.find(part.number);
        if (at == upload.parts.end() || at->second.etag != part.etag) throw s3_failure("InvalidPart");
        if (!out.empty() && out.back() == part.number) throw s3_failure("InvalidPart");
        out.push_back(part.number);
    }
    // The gateway insists on every part that was uploaded, S3 drops those not named.
    if (!config.aws && out.size() != upload.parts.size()) throw s3_failure("InvalidPart");
    for (std::size_t i = 0; i + 1 < out.size(); ++i)
        if (upload.parts.at(out[i]).body.size() < config.min_part_size) throw s3_failure("EntityTooSmall");
    return out;
}

object_ptr assemble(const upload_record& upload, const std::vector<unsigned>& numbers, std::int64_t now) {
    auto object = std::make_shared<object_record>();
    std::string sums;
    for (const auto number : numbers) {
        const auto& part = upload.parts.at(number);
        sums += from_hex(part.etag).value_or(std::string());
        object->body.append(part.body);
    }
    object->etag = hex(md5_of(sums)) + "-" + std::to_string(numbers.size());
    object->attributes = upload.attributes;
    object->modified = now;
    return object;
}

http_response complete_reply(const exchange& x, const std::string& etag) {
    const auto& config = x.data.config;
    const std::string host =
        config.dns_name.empty() ? std::string(x.request.header("host")) : config.dns_name;
    xml_writer xml;
    xml.open("CompleteMultipartUploadResult", true);
    xml.text("Location", (config.aws ? "http://" : "") + host + "/" + x.bucket + "/" + x.key);
    xml.text("Bucket", x.bucket).text("Key", x.key).text("ETag", etag).close();
    return xml_response(xml.finish());
}

}  // namespace

reply create_upload(exchange& x) {
    upload_record upload;
    upload.attributes = attributes_from(x.request, x.data.config);
    x.data.index.read(x.bucket, x.uid(), [](const bucket&) {});
    co_await receive_text(x);
    upload.key = x.key;
    upload.id = new_upload_id();
    upload.owner = x.uid();
    upload.initiated = x.data.clock.now();
    const auto id = upload.id;
    x.data.index.write(x.bucket, x.uid(), [&](bucket& b) { b.begin_upload(std::move(upload)); });
    xml_writer xml;
    xml.open("InitiateMultipartUploadResult", true).text("Bucket", x.bucket).text("Key", x.key);
    xml.text("UploadId", id).close();
    co_return xml_response(xml.finish());
}

reply upload_part(exchange& x) {
    const auto number = parse_number(x.request.parameter_or_empty("partNumber"));
    if (!number || *number < 1 || *number > 10000) throw s3_failure("InvalidArgument");
    const auto id = x.request.parameter_or_empty("uploadId");
    x.data.index.read(x.bucket, x.uid(), [&](const bucket& b) {
        if (!b.find_upload(x.key, id)) throw s3_failure("NoSuchUpload");
    });
    auto arrived = co_await receive_blob(x);
    part_record part;
    part.body = std::move(arrived.body);
    part.etag = hex(arrived.md5);
    part.modified = x.data.clock.now();
    const auto etag = part.etag;
    const auto replaced = x.data.index.write(x.bucket, x.uid(), [&](bucket& b) {
        // The upload may have been aborted while the part came in.
        if (!b.find_upload(x.key, id)) throw s3_failure("NoSuchUpload");
        return b.store_part(x.key, id, static_cast<unsigned>(*number), std::move(part));
    });
    http_response out;
    out.set("ETag", quoted(etag));
    co_return out;
}

reply complete_upload(exchange& x) {
    const auto id = x.request.parameter_or_empty("uploadId");
    x.data.index.read(x.bucket, x.uid(), [&](const bucket& b) {
        if (!b.find_upload(x.key, id) && !b.find_completed(x.key, id)) throw s3_failure("NoSuchUpload");
    });
    const auto wanted = parse_complete(co_await receive_text(x));
    object_ptr replaced;
    upload_record ended;
    std::string etag;
    const bool first = x.data.index.write(x.bucket, x.uid(), [&](bucket& b) {
        const auto* upload = b.find_upload(x.key, id);
        if (!upload) {
            const auto* completed = b.find_completed(x.key, id);
            if (!completed) throw s3_failure("NoSuchUpload");
            etag = completed->etag;
            return false;
        }
        const auto numbers = checked_parts(*upload, wanted, x.data.config);
        check_write_conditions(x.request, b.find(x.key).get());
        const auto object = assemble(*upload, numbers, x.data.clock.now());
        etag = object->etag;
        replaced = b.store(x.key, object);
        ended = b.end_upload(x.key, id);
        b.remember_completed(id, {x.key, etag});
        return true;
    });
    if (x.data.config.aws || x.data.config.complete_etag) co_return complete_reply(x, quoted(etag));
    // The gateway names the ETag only when the commit is repeated.
    co_return complete_reply(x, first ? std::string() : etag);
}

reply abort_upload(exchange& x) {
    const auto id = x.request.parameter_or_empty("uploadId");
    const auto dropped = x.data.index.write(x.bucket, x.uid(), [&](bucket& b) {
        if (!b.find_upload(x.key, id)) throw s3_failure("NoSuchUpload");
        return b.end_upload(x.key, id);
    });
    http_response out;
    out.status = 204;
    co_return out;
}

reply list_parts(exchange& x) {
    const auto id = x.request.parameter_or_empty("uploadId");
    const auto limit = page_limit(x.request, "max-parts");
    const auto marker = parse_number(x.request.parameter_or_empty("part-number-marker")).value_or(0);
    const bool url_encoded = x.request.parameter_or_empty("encoding-type") == "url";
    xml_writer xml;
    x.data.index.read(x.bucket, x.uid(), [&](const bucket& b) {
        const auto* upload = b.find_upload(x.key, id);
        if (!upload)
            throw s3_failure(!x.data.config.aws && b.find_completed(x.key, id) ? "NoSuchKey"
                                                                               : "NoSuchUpload");
        xml.open("ListPartsResult", true).text("Bucket", x.bucket);
        xml.text("Key", url_encoded ? url_encode(x.key, true) : x.key).text("UploadId", id);
        if (url_encoded) xml.text("EncodingType", "url");
        xml.text("StorageClass", shown_class(upload->attributes)).number("PartNumberMarker", marker);
        auto at = upload->parts.upper_bound(static_cast<unsigned>(std::min<std::uint64_t>(marker, 10001)));
        std::uint64_t last = marker;
        std::vector<std::pair<unsigned, const part_record*>> page;
        for (; at != upload->parts.end() && page.size() < limit; ++at) {
            page.emplace_back(at->first, &at->second);
            last = at->first;
        }
        xml.number("NextPartNumberMarker", last).number("MaxParts", limit);
        xml.boolean("IsTruncated", at != upload->parts.end() && limit > 0);
        xml.open("Owner").close();
        for (const auto& [number, part] : page) {
            xml.open("Part").number("PartNumber", number).text("LastModified", iso_date(part->modified));
            xml.text("ETag", quoted(part->etag)).number("Size", part->body.size()).close();
        }
        xml.close();
    });
    co_return xml_response(xml.finish());
}

reply list_uploads(exchange& x) {
    upload_query query;
    query.prefix = x.request.parameter_or_empty("prefix");
    query.delimiter = x.request.parameter_or_empty("delimiter");
    query.key_marker = x.request.parameter_or_empty("key-marker");
    query.id_marker = x.request.parameter_or_empty("upload-id-marker");
    query.limit = page_limit(x.request, "max-uploads");
    const bool url_encoded = x.request.parameter_or_empty("encoding-type") == "url";
    const auto shown = [&](const std::string& text) { return url_encoded ? url_encode(text, true) : text; };
    xml_writer xml;
    x.data.index.read(x.bucket, x.uid(), [&](const bucket& b) {
        const auto page = list_upload_page(b, query, x.data.config.aws);
        xml.open("ListMultipartUploadsResult", true)
            .text("Bucket", x.bucket)
            .text("Prefix", shown(query.prefix));
        xml.text("KeyMarker", shown(query.key_marker)).text("UploadIdMarker", query.id_marker);
        if (!page.next_key.empty()) {
            xml.text("NextKeyMarker", shown(page.next_key));
            if (!page.next_id.empty()) xml.text("NextUploadIdMarker", page.next_id);
        }
        xml.number("MaxUploads", query.limit);
        if (!query.delimiter.empty()) xml.text("Delimiter", shown(query.delimiter));
        if (url_encoded) xml.text("EncodingType", "url");
        xml.boolean("IsTruncated", page.truncated);
        for (const auto* upload : page.uploads) {
            xml.open("Upload").text("Key", shown(upload->key)).text("UploadId", upload->id);
            for (const auto* role : {"Initiator", "Owner"})
                xml.open(role)
                    .text("ID", upload->owner)
                    .text("DisplayName", x.auth.caller->display_name)
                    .close();
            xml.text("StorageClass", shown_class(upload->attributes))
                .text("Initiated", iso_date(upload->initiated));
            xml.close();
        }
        for (const auto& prefix : page.prefixes)
            xml.open("CommonPrefixes").text("Prefix", shown(prefix)).close();
        xml.close();
    });
    co_return xml_response(xml.finish());
}

}  // namespace zorvan::devstore
