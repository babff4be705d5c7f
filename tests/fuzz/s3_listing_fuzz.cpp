// Listings as a store sends them: the first line says which (objects, parts, uploads, buckets), the rest is
// the reply. What reaches the caller is whole: texts where there must be some, a marker where the listing
// goes on, and nothing at all from a reply that the call refuses.
#include <set>
#include <string>

#include "s3_exchange.h"

namespace {

using s3_fuzz::Call;
using s3_fuzz::check_text;

constexpr const char* marker = "marker";

void begin_result(void* data) {
    auto& call = *static_cast<Call*>(data);
    ++call.results;
    FUZZ_CHECK(call.ends == 0);
}

void check_marker(int truncated, const char* next) {
    FUZZ_CHECK(truncated == 0 || truncated == 1);
    FUZZ_CHECK((next != nullptr) == (truncated == 1));
    check_text(next);
}

void check_prefixes(int count, const char** prefixes) {
    for (int index = 0; index < count; ++index) {
        FUZZ_CHECK(prefixes[index] != nullptr);
        check_text(prefixes[index]);
    }
}

S3Status take_objects(int truncated, const char* next, int count, const S3ListBucketContent* contents,
                      int prefix_count, const char** prefixes, void* data) {
    begin_result(data);
    check_marker(truncated, next);
    // A caller asks again with the marker: the same one, or none, would be for ever.
    if (truncated == 1) FUZZ_CHECK(*next != '\0' && std::string(next) != marker);
    for (int index = 0; index < count; ++index) {
        FUZZ_CHECK(contents[index].key != nullptr && contents[index].eTag != nullptr);
        for (const char* text : {contents[index].key, contents[index].eTag, contents[index].ownerId,
                                 contents[index].ownerDisplayName})
            check_text(text);
    }
    check_prefixes(prefix_count, prefixes);
    return S3StatusOK;
}

S3Status take_parts(int truncated, const char* next, const char* initiator, const char* initiator_name,
                    const char* owner, const char* owner_name, const char* storage_class, int count, int,
                    const S3ListPart* parts, void* data) {
    begin_result(data);
    check_marker(truncated, next);
    FUZZ_CHECK(initiator != nullptr && initiator_name != nullptr && storage_class != nullptr);
    for (const char* text : {initiator, initiator_name, owner, owner_name, storage_class})
        check_text(text);
    for (int index = 0; index < count; ++index) {
        FUZZ_CHECK(parts[index].partNumber >= 1 && parts[index].partNumber <= 10000);
        const std::string_view etag = parts[index].eTag;
        FUZZ_CHECK(!etag.empty() && etag.size() <= 34);
    }
    return S3StatusOK;
}

S3Status take_uploads(int truncated, const char* next_key, const char* next_id, int count,
                      const S3ListMultipartUpload* uploads, int prefix_count, const char** prefixes,
                      void* data) {
    begin_result(data);
    check_marker(truncated, next_key);
    check_marker(truncated, next_id);
    if (truncated == 1) FUZZ_CHECK(*next_key != '\0');
    for (int index = 0; index < count; ++index) {
        const S3ListMultipartUpload& upload = uploads[index];
        FUZZ_CHECK(upload.key != nullptr && upload.uploadId != nullptr && upload.initiatorId != nullptr);
        FUZZ_CHECK(upload.initiatorDisplayName != nullptr && upload.storageClass != nullptr);
        for (const char* text : {upload.key, upload.uploadId, upload.initiatorId, upload.initiatorDisplayName,
                                 upload.ownerId, upload.ownerDisplayName, upload.storageClass})
            check_text(text);
    }
    check_prefixes(prefix_count, prefixes);
    return S3StatusOK;
}

std::set<std::string> buckets;

S3Status take_bucket(const char* owner, const char* owner_name, const char* name, int64_t, void* data) {
    begin_result(data);
    check_text(owner);
    check_text(owner_name);
    // No name comes twice, or a root would show the same folder twice.
    FUZZ_CHECK(name != nullptr && *name != '\0' && buckets.insert(name).second);
    return S3StatusOK;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const std::string_view kind = input.line();
    s3_fuzz::set_reply(input.rest());
    const S3BucketContext context = s3_fuzz::bucket_context();
    const S3ResponseHandler& handler = s3_fuzz::response_handler;
    Call call;
    if (kind == "objects") {
        const S3ListBucketHandler objects{handler, take_objects};
        S3_list_bucket(&context, "prefix/", marker, "/", 1000, nullptr, 0, &objects, &call);
    } else if (kind == "parts") {
        const S3ListPartsHandler parts{handler, take_parts};
        S3_list_parts(&context, "key", nullptr, "id", nullptr, 1000, nullptr, 0, &parts, &call);
    } else if (kind == "uploads") {
        const S3ListMultipartUploadsHandler uploads{handler, take_uploads};
        S3_list_multipart_uploads(&context, "prefix/", nullptr, nullptr, nullptr, nullptr, 1000, nullptr, 0,
                                  &uploads, &call);
    } else if (kind == "buckets") {
        const S3ListServiceHandler service{handler, take_bucket};
        buckets.clear();
        S3_list_service(S3ProtocolHTTPS, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0, &service,
                        &call);
    } else {
        return 0;
    }
    s3_fuzz::check_end(call);
    FUZZ_CHECK(call.results == 0 || call.status == S3StatusOK);
    FUZZ_CHECK(call.status != S3StatusOK || call.properties == 1);
    return 0;
}
