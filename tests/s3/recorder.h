// Handlers that write down what they were told, in order, and can be told to refuse. One Recorder per
// request.
#pragma once

#include <gtest/gtest.h>
#include <libs3.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace s3test {

inline std::optional<std::string> copy_of(const char* text) {
    return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

struct Recorder {
    // What happened, in order: "properties", "data", "page", "bucket", "xml", "user", "body", "complete".
    std::vector<std::string> events;
    S3Status status = S3StatusOK;
    int completions = 0;
    bool has_details = false;
    std::optional<std::string> message, resource, further_details;
    std::vector<std::pair<std::string, std::string>> extra;
    // The answer to "is it worth another try", asked inside the complete callback.
    int retryable_in_complete = -1;

    uint64_t content_length = 0;
    int64_t last_modified = 0;
    std::optional<std::string> etag, request_id, request_id2, content_type, server, bucket_region,
        storage_class;
    int encryption = -1, restore_status = -1;
    int64_t restore_expiry = -1;
    std::vector<std::pair<std::string, std::string>> metadata;

    std::string data;
    std::function<void()> on_data;
    std::optional<size_t> refuse_data_after;
    S3Status refuse_data_with = S3StatusAbortedByCallback;
    S3Status refuse_properties_with = S3StatusOK;
    S3Status refuse_page_with = S3StatusOK;

    // Upload: what the put-data callback gives, piece by piece.
    std::string body;
    size_t body_at = 0;
    size_t body_piece = SIZE_MAX;
    bool abort_body = false;
    std::function<void()> on_body;
    int largest_room = 0;
    int smallest_room = INT32_MAX;

    bool truncated = false;
    std::optional<std::string> marker, id_marker;
    std::vector<std::string> keys, prefixes, etags, ids;
    std::vector<uint64_t> sizes, numbers;
    std::vector<int64_t> times;
    std::vector<std::optional<std::string>> owners;
    std::optional<std::string> upload_id, location, commit_etag, owner_id, owner_name, class_name;
    std::string user_id, user_name, user_email;
    int32_t suspended = -1, max_buckets = -1;
    std::vector<RGUserKey> user_keys;

    std::optional<std::string> detail(const std::string& name) const {
        for (const auto& [key, value] : extra) {
            if (key == name) return value;
        }
        return std::nullopt;
    }
    std::optional<std::string> meta(const std::string& name) const {
        for (const auto& [key, value] : metadata) {
            if (key == name) return value;
        }
        return std::nullopt;
    }
    bool saw(const std::string& event) const {
        return std::find(events.begin(), events.end(), event) != events.end();
    }

    static S3Status on_properties(const S3ResponseProperties* p, void* data) {
        auto& self = *static_cast<Recorder*>(data);
        self.events.emplace_back("properties");
        self.content_length = p->contentLength;
        self.last_modified = p->lastModified;
        self.etag = copy_of(p->eTag);
        self.request_id = copy_of(p->requestId);
        self.request_id2 = copy_of(p->requestId2);
        self.content_type = copy_of(p->contentType);
        self.server = copy_of(p->server);
        self.bucket_region = copy_of(p->bucketRegion);
        self.storage_class = copy_of(p->storageClass);
        self.encryption = p->usesServerSideEncryption;
        self.restore_status = p->restoreStatus;
        self.restore_expiry = p->restoreExpiry;
        for (int i = 0; i < p->metaDataCount; ++i)
            self.metadata.emplace_back(p->metaData[i].name, p->metaData[i].value);
        return self.refuse_properties_with;
    }

    static void on_complete(S3Status status, const S3ErrorDetails* details, void* data) {
        auto& self = *static_cast<Recorder*>(data);
        self.events.emplace_back("complete");
        ++self.completions;
        self.status = status;
        self.retryable_in_complete = S3_status_is_retryable(status);
        self.has_details = details != nullptr;
        if (details == nullptr) return;
        self.message = copy_of(details->message);
        self.resource = copy_of(details->resource);
        self.further_details = copy_of(details->furtherDetails);
        for (int i = 0; i < details->extraDetailsCount; ++i)
            self.extra.emplace_back(details->extraDetails[i].name, details->extraDetails[i].value);
    }

    static S3Status on_get_data(int size, const char* bytes, void* data) {
        auto& self = *static_cast<Recorder*>(data);
        if (self.events.empty() || self.events.back() != "data") self.events.emplace_back("data");
        if (self.on_data) self.on_data();
        if (self.refuse_data_after && self.data.size() >= *self.refuse_data_after)
            return self.refuse_data_with;
        self.data.append(bytes, static_cast<size_t>(size));
        return S3StatusOK;
    }

    static int on_put_data(int room, char* buffer, void* data) {
        auto& self = *static_cast<Recorder*>(data);
        if (self.events.empty() || self.events.back() != "body") self.events.emplace_back("body");
        if (self.on_body) self.on_body();
        if (self.abort_body) return -1;
        self.largest_room = std::max(self.largest_room, room);
        self.smallest_room = std::min(self.smallest_room, room);
        const size_t size =
            std::min({static_cast<size_t>(room), self.body_piece, self.body.size() - self.body_at});
        std::memcpy(buffer, self.body.data() + self.body_at, size);
        self.body_at += size;
        return static_cast<int>(size);
    }

    static S3Status on_page(int truncated, const char* marker, int count, const S3ListBucketContent* contents,
                            int prefix_count, const char** prefixes, void* data) {
        auto& self = *static_cast<Recorder*>(data);
        self.events.emplace_back("page");
        self.truncated = truncated != 0;
        self.marker = copy_of(marker);
        for (int i = 0; i < count; ++i) {
            self.keys.emplace_back(contents[i].key);
            self.etags.emplace_back(contents[i].eTag);
            self.sizes.push_back(contents[i].size);
            self.times.push_back(contents[i].lastModified);
            self.owners.push_back(copy_of(contents[i].ownerId));
        }
        for (int i = 0; i < prefix_count; ++i)
            self.prefixes.emplace_back(prefixes[i]);
        return self.refuse_page_with;
    }

    static S3Status on_bucket(const char* owner_id, const char* owner_name, const char* name, int64_t created,
                              void* data) {
        auto& self = *static_cast<Recorder*>(data);
        self.events.emplace_back("bucket");
        self.owner_id = copy_of(owner_id);
        self.owner_name = copy_of(owner_name);
        self.keys.emplace_back(name);
        self.times.push_back(created);
        return self.refuse_page_with;
    }

    static S3Status on_upload_id(const char* id, void* data) {
        auto& self = *static_cast<Recorder*>(data);
        self.events.emplace_back("xml");
        self.upload_id = copy_of(id);
        return self.refuse_page_with;
    }

    static S3Status on_committed(const char* location, const char* etag, void* data) {
        auto& self = *static_cast<Recorder*>(data);
        self.events.emplace_back("xml");
        self.location = copy_of(location);
        self.commit_etag = copy_of(etag);
        return self.refuse_page_with;
    }

    static S3Status on_parts(int truncated, const char* marker, const char*, const char*,
                             const char* owner_id, const char* owner_name, const char* storage_class,
                             int count, int delivered_before, const S3ListPart* parts, void* data) {
        auto& self = *static_cast<Recorder*>(data);
        EXPECT_EQ(delivered_before, 0);
        self.events.emplace_back("page");
        self.truncated = truncated != 0;
        self.marker = copy_of(marker);
        self.owner_id = copy_of(owner_id);
        self.owner_name = copy_of(owner_name);
        self.class_name = copy_of(storage_class);
        for (int i = 0; i < count; ++i) {
            self.etags.emplace_back(parts[i].eTag);
            self.numbers.push_back(parts[i].partNumber);
            self.sizes.push_back(parts[i].size);
            self.times.push_back(parts[i].lastModified);
        }
        return self.refuse_page_with;
    }

    static S3Status on_uploads(int truncated, const char* key_marker, const char* id_marker, int count,
                               const S3ListMultipartUpload* uploads, int prefix_count, const char** prefixes,
                               void* data) {
        auto& self = *static_cast<Recorder*>(data);
        self.events.emplace_back("page");
        self.truncated = truncated != 0;
        self.marker = copy_of(key_marker);
        self.id_marker = copy_of(id_marker);
        for (int i = 0; i < count; ++i) {
            self.keys.emplace_back(uploads[i].key);
            self.ids.emplace_back(uploads[i].uploadId);
            self.times.push_back(uploads[i].initiated);
        }
        for (int i = 0; i < prefix_count; ++i)
            self.prefixes.emplace_back(prefixes[i]);
        return self.refuse_page_with;
    }

    static S3Status on_user(const RGUserInfo* info, void* data) {
        auto& self = *static_cast<Recorder*>(data);
        self.events.emplace_back("user");
        self.user_id = info->userId;
        self.user_name = info->displayName;
        self.user_email = info->email;
        self.suspended = info->suspended;
        self.max_buckets = info->maxBuckets;
        self.user_keys.assign(info->keys, info->keys + info->keyCount);
        return self.refuse_page_with;
    }
};

inline constexpr S3ResponseHandler kResponse{&Recorder::on_properties, &Recorder::on_complete};
inline constexpr S3GetObjectHandler kGet{kResponse, &Recorder::on_get_data};
inline constexpr S3PutObjectHandler kPut{kResponse, &Recorder::on_put_data};
inline constexpr S3ListBucketHandler kList{kResponse, &Recorder::on_page};
inline constexpr S3ListServiceHandler kService{kResponse, &Recorder::on_bucket};
inline constexpr S3MultipartInitialHandler kInitiate{kResponse, &Recorder::on_upload_id};
inline constexpr S3MultipartCommitHandler kCommit{kResponse, &Recorder::on_put_data, &Recorder::on_committed};
inline constexpr S3ListPartsHandler kParts{kResponse, &Recorder::on_parts};
inline constexpr S3ListMultipartUploadsHandler kUploads{kResponse, &Recorder::on_uploads};
inline constexpr RGUserInfoHandler kUser{kResponse, &Recorder::on_user};

inline S3PutProperties no_properties() {
    S3PutProperties properties{};
    properties.expires = -1;
    return properties;
}

}  // namespace s3test
