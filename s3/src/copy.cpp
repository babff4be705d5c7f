// Copies inside the store (S3: CopyObject). The store answers 200 before it has copied, so the document
// decides.
#include <libs3.h>

#include <algorithm>
#include <cstring>

#include "complete.h"
#include "text.h"
#include "upload_body.h"
#include "xml.h"

namespace s3 {
namespace {

struct CopyTarget {
    int64_t* last_modified;
    char* etag;
    int etag_size;
};

void write_etag(const CopyTarget& target, std::string_view etag) {
    if (target.etag == nullptr || target.etag_size <= 0) return;
    const size_t size = std::min(etag.size(), static_cast<size_t>(target.etag_size) - 1);
    std::memcpy(target.etag, etag.data(), size);
    target.etag[size] = '\0';
}

RequestPlan copy_plan(const S3BucketContext& context, const char* key, const char* destination_bucket,
                      const char* destination_key, const S3PutProperties* properties, int timeout_ms) {
    RequestPlan plan;
    plan.method = "PUT";
    plan.deadline = Deadline(timeout_ms);
    plan.slow = true;
    plan.store = make_store(context);
    check_bucket(plan.store.bucket, plan.store.virtual_host);
    const std::string source = "/" + encode_path(plan.store.bucket) + "/" + encode_path(key);
    if (destination_bucket != nullptr) plan.store.bucket = destination_bucket;
    check_bucket(plan.store.bucket, plan.store.virtual_host);
    plan.address = object_address(plan.store, destination_key != nullptr ? destination_key : key);
    append_put_headers(plan.headers, properties);
    plan.headers.emplace_back("x-amz-copy-source", source);
    if (properties != nullptr) plan.headers.emplace_back("x-amz-metadata-directive", "REPLACE");
    return plan;
}

// 200 and a document without an ETag means that the copy failed after the headers were sent.
void read_copy_reply(ExchangeResult& result, const CopyTarget& target) {
    const XmlReply document(result.body);
    const std::string etag =
        document.has_root("CopyObjectResult") ? quoted_etag(child_text(document.root(), "ETag")) : "";
    if (etag.empty()) {
        result.status = S3StatusErrorInternalError;
        if (auto error = error_inside_success(result.body)) {
            result.status = error->status;
            result.error = std::move(error->info);
        }
        return;
    }
    write_etag(target, etag);
    if (target.last_modified != nullptr)
        *target.last_modified = parse_iso8601(child_text(document.root(), "LastModified"));
}

}  // namespace
}  // namespace s3

extern "C" void S3_copy_object(const S3BucketContext* bucketContext, const char* key,
                               const char* destinationBucket, const char* destinationKey,
                               const S3PutProperties* putProperties, int64_t* lastModifiedReturn,
                               int eTagReturnSize, char* eTagReturn, S3RequestContext*, int timeoutMs,
                               const S3ResponseHandler* handler, void* callbackData) {
    s3::run_call(*handler, callbackData, [&](s3::CallResult& call) {
        const s3::CopyTarget target{lastModifiedReturn, eTagReturn, eTagReturnSize};
        if (lastModifiedReturn != nullptr) *lastModifiedReturn = -1;
        s3::write_etag(target, "");
        s3::check_key(key);
        if (destinationKey != nullptr) s3::check_key(destinationKey);
        s3::RequestPlan plan =
            s3::copy_plan(*bucketContext, key, destinationBucket, destinationKey, putProperties, timeoutMs);
        s3::UploadBody body;
        plan.body = &body;
        s3::ExchangeResult result = s3::perform(plan);
        if (result.status == S3StatusOK) s3::read_copy_reply(result, target);
        if (result.status == S3StatusOK)
            result.status = s3::deliver_properties(*handler, callbackData, result.headers);
        s3::set_result(call, std::move(result));
    });
}
