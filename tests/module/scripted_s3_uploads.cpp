// Uploads in progress of the scripted store: begun, filled with parts, listed, committed or aborted.
//
// The commit body is taken only in the exact form that the back end gives it. No state of its own; called
// under the store's mutex.
#include <openssl/evp.h>

#include <charconv>
#include <cstdio>

#include "scripted_s3_store.h"

namespace module_test {

const char* const etag_of_body = "(the MD5 of the body)";

std::string md5_of(const std::string& data) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_Digest(data.data(), data.size(), digest, &length, EVP_md5(), nullptr);
    std::string text;
    for (unsigned i = 0; i < length; ++i) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", digest[i]);
        text += digits;
    }
    return text;
}

namespace {

Reply list_parts(const Upload& upload, const S3Call& call, size_t page_entries) {
    Reply reply;
    reply.properties = Properties{};
    const int marker = call.part_marker ? std::stoi(*call.part_marker) : 0;
    for (const auto& [number, part] : upload.parts) {
        if (number <= marker) continue;
        if (reply.parts.size() == page_entries) {
            reply.truncated = true;
            break;
        }
        reply.parts.push_back({static_cast<uint64_t>(number), part.data.size(), part.etag});
    }
    // As real gateways do: the marker is there on the last page too.
    if (!reply.parts.empty()) reply.next_part = std::to_string(reply.parts.back().number);
    return reply;
}

Reply list_uploads(const Bucket& bucket, const S3Call& call, size_t page_entries) {
    std::map<std::pair<std::string, std::string>, int64_t> sorted;
    for (const auto& [id, upload] : bucket.uploads)
        sorted[{upload.key, id}] = upload.initiated;
    const std::pair marker{call.marker.value_or(""), call.upload_marker.value_or("")};
    const auto prefix = call.prefix.value_or("");
    Reply reply;
    reply.properties = Properties{};
    for (const auto& [name, initiated] : sorted) {
        const auto& [key, id] = name;
        if (!key.starts_with(prefix) || (call.marker && name <= marker)) continue;
        // Deeper keys are common prefixes, of which nothing is told here.
        if (call.delimiter == "/" && key.find('/', prefix.size()) != std::string::npos) continue;
        if (reply.uploads.size() == page_entries) {
            reply.truncated = true;
            reply.next_key = reply.uploads.back().key;
            reply.next_upload = reply.uploads.back().upload_id;
            break;
        }
        reply.uploads.push_back({key, id, initiated});
    }
    return reply;
}

bool skip(std::string_view& text, std::string_view expected) {
    if (!text.starts_with(expected)) return false;
    text.remove_prefix(expected.size());
    return true;
}

}  // namespace

Reply answer_upload_call(const Bucket& bucket, const S3Call& call, size_t page_entries) {
    Reply reply;
    reply.properties = Properties{};
    if (call.kind == S3Kind::initiate_multipart) return reply;
    if (call.kind == S3Kind::list_uploads) return list_uploads(bucket, call, page_entries);
    const auto upload = bucket.uploads.find(call.upload_id.value_or(""));
    if (upload == bucket.uploads.end() || upload->second.key != call.key) {
        reply.status = S3StatusErrorNoSuchUpload;
        return reply;
    }
    if (call.kind == S3Kind::list_parts) return list_parts(upload->second, call, page_entries);
    if (call.kind == S3Kind::upload_part) reply.properties->etag = etag_of_body;
    if (call.kind == S3Kind::complete_multipart) reply.commit_etag = etag_of_body;
    return reply;
}

void apply_upload_call(Bucket& bucket, const S3Call& call) {
    const auto id = call.upload_id.value_or("");
    if (call.kind == S3Kind::initiate_multipart)
        bucket.uploads[id] = {call.key.value_or(""), 1700000000, call.put.value_or(PutRecord{}), {}};
    if (call.kind == S3Kind::abort_multipart) bucket.uploads.erase(id);
    if (call.kind == S3Kind::upload_part && bucket.uploads.contains(id))
        bucket.uploads[id].parts[call.part] = {call.body, call.etag.value_or("")};
    if (call.kind == S3Kind::complete_multipart) {
        if (auto object = assemble(bucket, call)) bucket.objects[call.key.value_or("")] = *object;
        bucket.uploads.erase(id);
    }
}

std::optional<std::vector<std::pair<int, std::string>>> parse_commit(const std::string& body) {
    std::string_view text = body;
    std::vector<std::pair<int, std::string>> parts;
    if (!skip(text, "<CompleteMultipartUpload>")) return std::nullopt;
    while (skip(text, "<Part><PartNumber>")) {
        int number = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        text.remove_prefix(static_cast<size_t>(end - text.data()));
        if (error != std::errc() || !skip(text, "</PartNumber><ETag>")) return std::nullopt;
        const auto length = std::min(text.find('<'), text.size());
        parts.emplace_back(number, text.substr(0, length));
        text.remove_prefix(length);
        if (!skip(text, "</ETag></Part>")) return std::nullopt;
    }
    if (text != "</CompleteMultipartUpload>") return std::nullopt;
    return parts;
}

std::optional<Object> assemble(const Bucket& bucket, const S3Call& call) {
    const auto upload = bucket.uploads.find(call.upload_id.value_or(""));
    const auto listed = parse_commit(call.body);
    if (upload == bucket.uploads.end() || !listed) return std::nullopt;
    Object object;
    std::string etags;
    int last = 0;
    for (const auto& [number, etag] : *listed) {
        const auto part = upload->second.parts.find(number);
        if (number <= last || part == upload->second.parts.end() || part->second.etag != etag)
            return std::nullopt;
        last = number;
        object.data += part->second.data;
        etags += etag;
    }
    object.put = upload->second.put;
    object.properties.length = object.data.size();
    object.properties.metadata = object.put.metadata;
    object.properties.etag = "\"" + md5_of(etags) + "-" + std::to_string(listed->size()) + "\"";
    return object;
}

}  // namespace module_test
