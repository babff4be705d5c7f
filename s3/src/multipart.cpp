// Multipart uploads: begin, store a part, give up. Completing one has a file of its own (commit.cpp).
#include "multipart.h"

#include "text.h"
#include "upload_body.h"
#include "xml.h"

namespace s3 {

RequestPlan upload_plan(std::string_view method, const S3BucketContext& context, const char* key,
                        int timeout_ms) {
    check_key(key);
    return make_plan(method, context, key, timeout_ms);
}

void check_upload_id(const char* upload_id) {
    if (upload_id == nullptr || *upload_id == '\0') throw Refusal{S3StatusErrorNoSuchUpload};
}

bool is_usable_part_etag(std::string_view etag) {
    return !etag.empty() && etag.size() <= kLongestPartEtag;
}

namespace {

void initiate(RequestPlan& plan, const S3MultipartInitialHandler& handler, void* callback_data,
              CallResult& call) {
    ExchangeResult result = perform(plan);
    if (result.status != S3StatusOK) return set_result(call, std::move(result));
    const XmlReply document(result.body);
    if (!document.has_root("InitiateMultipartUploadResult")) {
        if (auto error = error_inside_success(result.body)) {
            call.status = error->status;
            call.error = std::move(error->info);
            return;
        }
        return fail(call, S3StatusXmlParseFailure, "the reply is not one complete document");
    }
    const std::string id = child_text(document.root(), "UploadId");
    call.status = deliver_properties(handler.responseHandler, callback_data, result.headers);
    if (call.status == S3StatusOK && handler.responseXmlCallback != nullptr)
        call.status = handler.responseXmlCallback(nonempty_or_null(id), callback_data);
}

void upload_part(RequestPlan& plan, const S3PutObjectHandler& handler, void* callback_data,
                 CallResult& call) {
    ExchangeResult result = perform(plan);
    if (result.status == S3StatusOK && !is_usable_part_etag(result.headers.etag.value_or("")))
        return fail(call, S3StatusInternalError, "the store took the part but gave no usable ETag");
    if (result.status == S3StatusOK)
        result.status = deliver_properties(handler.responseHandler, callback_data, result.headers);
    set_result(call, std::move(result));
}

void abort_upload(const S3BucketContext& context, const char* key, const char* upload_id, int timeout_ms,
                  const S3ResponseHandler& handler, void* callback_data) {
    run_call(handler, callback_data, [&](CallResult& call) {
        RequestPlan plan = upload_plan("DELETE", context, key, timeout_ms);
        // Without an id the request would delete the object itself.
        check_upload_id(upload_id);
        plan.query = {{"uploadId", upload_id}};
        perform_simple(plan, handler, callback_data, call);
    });
}

}  // namespace
}  // namespace s3

extern "C" void S3_initiate_multipart(const S3BucketContext* bucketContext, const char* key,
                                      const S3PutProperties* putProperties,
                                      const S3MultipartInitialHandler* handler, S3RequestContext*,
                                      int timeoutMs, void* callbackData) {
    s3::run_call(handler->responseHandler, callbackData, [&](s3::CallResult& call) {
        s3::RequestPlan plan = s3::upload_plan("POST", *bucketContext, key, timeoutMs);
        s3::append_put_headers(plan.headers, putProperties);
        plan.query = {{"uploads", ""}};
        s3::UploadBody body;
        plan.body = &body;
        plan.payload_hash = s3::kUnsignedPayload;
        s3::initiate(plan, *handler, callbackData, call);
    });
}

extern "C" void S3_upload_part(const S3BucketContext* bucketContext, const char* key,
                               const S3PutProperties* putProperties, const S3PutObjectHandler* handler,
                               int seq, const char* upload_id, uint64_t partContentLength, S3RequestContext*,
                               int timeoutMs, void* callbackData) {
    s3::run_call(handler->responseHandler, callbackData, [&](s3::CallResult& call) {
        s3::RequestPlan plan = s3::upload_plan("PUT", *bucketContext, key, timeoutMs);
        s3::check_upload_id(upload_id);
        if (seq < 1 || seq > s3::kHighestPartNumber) throw s3::Refusal{S3StatusErrorInvalidArgument};
        s3::append_put_headers(plan.headers, putProperties);
        plan.query = {{"partNumber", std::to_string(seq)}, {"uploadId", upload_id}};
        s3::UploadBody body(handler->putObjectDataCallback, callbackData, partContentLength);
        plan.body = &body;
        plan.payload_hash = s3::kUnsignedPayload;
        s3::upload_part(plan, *handler, callbackData, call);
        call.took_body_bytes = body.took_caller_bytes();
    });
}

extern "C" void S3_abort_multipart_upload(const S3BucketContext* bucketContext, const char* key,
                                          const char* uploadId, int timeoutMs,
                                          const S3AbortMultipartUploadHandler* handler) {
    s3::abort_upload(*bucketContext, key, uploadId, timeoutMs, handler->responseHandler,
                     handler->callbackData);
}

extern "C" void S3_abort_multipart_upload_ex(const S3BucketContext* bucketContext, const char* key,
                                             const char* uploadId, int timeoutMs,
                                             const S3AbortMultipartUploadHandler* handler, S3RequestContext*,
                                             void* callbackData) {
    s3::abort_upload(*bucketContext, key, uploadId, timeoutMs, handler->responseHandler, callbackData);
}
