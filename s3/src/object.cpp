// Single objects: put, head, delete. Downloads have a file of their own.
#include <libs3.h>

#include "complete.h"
#include "options.h"
#include "upload_body.h"

namespace s3 {
namespace {

// A bucket is asked for by callers that repeat a retryable answer at once and without end, so patience lives
// here and what stays broken is reported as final.
ExchangeResult probe_bucket(RequestPlan& plan) {
    const int64_t seconds = option(S3OptionBucketProbeSeconds);
    // One silent try must not outlast all of them together.
    plan.deadline.limit(Deadline(static_cast<int>(seconds * 1000)));
    for (int attempt = 0;; ++attempt) {
        ExchangeResult result = perform(plan);
        if (!is_retryable_kind(result.status)) return result;
        if (seconds == 0 || !pause_before_retry(attempt, plan.deadline)) {
            if (!result.error.message)
                result.error.message =
                    std::string("the bucket cannot be asked for: ") + S3_get_status_name(result.status);
            result.status = S3StatusInternalError;
            return result;
        }
    }
}

void head(const S3BucketContext& context, const char* key, int timeout_ms, const S3ResponseHandler& handler,
          void* callback_data, CallResult& call) {
    const bool bucket = key == nullptr || *key == '\0';
    RequestPlan plan;
    try {
        plan = make_plan("HEAD", context, key, timeout_ms);
    } catch (const Refusal& refusal) {
        if (!bucket || !is_retryable_kind(refusal.status)) throw;
        return fail(call, S3StatusInternalError, "the name of the bucket's host is malformed");
    }
    ExchangeResult result = bucket ? probe_bucket(plan) : perform(plan);
    const bool tells_region = bucket && result.headers.http_status == 301 && result.headers.bucket_region;
    if (result.status == S3StatusOK || tells_region) {
        const S3Status status = deliver_properties(handler, callback_data, result.headers);
        if (status != S3StatusOK) result.status = status;
    }
    set_result(call, std::move(result));
}

}  // namespace
}  // namespace s3

extern "C" void S3_put_object(const S3BucketContext* bucketContext, const char* key, uint64_t contentLength,
                              const S3PutProperties* putProperties, S3RequestContext*, int timeoutMs,
                              const S3PutObjectHandler* handler, void* callbackData) {
    s3::run_call(handler->responseHandler, callbackData, [&](s3::CallResult& call) {
        s3::check_key(key);
        s3::RequestPlan plan = s3::make_plan("PUT", *bucketContext, key, timeoutMs);
        s3::append_put_headers(plan.headers, putProperties);
        s3::UploadBody body(handler->putObjectDataCallback, callbackData, contentLength);
        plan.body = &body;
        plan.payload_hash = s3::kUnsignedPayload;
        s3::perform_simple(plan, handler->responseHandler, callbackData, call);
        call.took_body_bytes = body.took_caller_bytes();
    });
}

extern "C" void S3_head_object(const S3BucketContext* bucketContext, const char* key, S3RequestContext*,
                               int timeoutMs, const S3ResponseHandler* handler, void* callbackData) {
    s3::run_call(*handler, callbackData, [&](s3::CallResult& call) {
        s3::head(*bucketContext, key, timeoutMs, *handler, callbackData, call);
    });
}

extern "C" void S3_delete_object(const S3BucketContext* bucketContext, const char* key, S3RequestContext*,
                                 int timeoutMs, const S3ResponseHandler* handler, void* callbackData) {
    s3::run_call(*handler, callbackData, [&](s3::CallResult& call) {
        s3::check_key(key);
        s3::RequestPlan plan = s3::make_plan("DELETE", *bucketContext, key, timeoutMs);
        s3::perform_simple(plan, *handler, callbackData, call);
    });
}
