// Buckets: create and delete.
#include <libs3.h>

#include "complete.h"
#include "text.h"
#include "upload_body.h"

namespace s3 {
namespace {

std::string location_document(const char* constraint) {
    if (constraint == nullptr || *constraint == '\0') return {};
    return "<CreateBucketConfiguration><LocationConstraint>" + escape_xml(constraint) +
           "</LocationConstraint></CreateBucketConfiguration>";
}

}  // namespace
}  // namespace s3

extern "C" void S3_create_bucket(S3Protocol protocol, const char* accessKeyId, const char* secretAccessKey,
                                 const char* securityToken, const char* hostName, const char* bucketName,
                                 const char* authRegion, S3CannedAcl cannedAcl,
                                 const char* locationConstraint, S3RequestContext*, int timeoutMs,
                                 const S3ResponseHandler* handler, void* callbackData) {
    s3::run_call(*handler, callbackData, [&](s3::CallResult& call) {
        s3::RequestPlan plan;
        plan.method = "PUT";
        plan.deadline = s3::Deadline(timeoutMs);
        plan.store = s3::make_store(protocol, S3UriStylePath, accessKeyId, secretAccessKey, securityToken,
                                    hostName, bucketName, authRegion);
        s3::check_bucket(plan.store.bucket, false);
        plan.address = s3::object_address(plan.store, "");
        s3::append_acl(plan.headers, cannedAcl);
        s3::UploadBody body(s3::location_document(locationConstraint));
        if (body.length() > 0) plan.headers.emplace_back("Content-Type", "application/xml");
        plan.body = &body;
        plan.payload_hash = s3::kUnsignedPayload;
        s3::perform_simple(plan, *handler, callbackData, call);
    });
}

extern "C" void S3_delete_bucket(S3Protocol protocol, S3UriStyle uriStyle, const char* accessKeyId,
                                 const char* secretAccessKey, const char* securityToken, const char* hostName,
                                 const char* bucketName, const char* authRegion, S3RequestContext*,
                                 int timeoutMs, const S3ResponseHandler* handler, void* callbackData) {
    s3::run_call(*handler, callbackData, [&](s3::CallResult& call) {
        s3::RequestPlan plan;
        plan.method = "DELETE";
        plan.deadline = s3::Deadline(timeoutMs);
        plan.store = s3::make_store(protocol, uriStyle, accessKeyId, secretAccessKey, securityToken, hostName,
                                    bucketName, authRegion);
        s3::check_bucket(plan.store.bucket, plan.store.virtual_host);
        plan.address = s3::object_address(plan.store, "");
        s3::perform_simple(plan, *handler, callbackData, call);
    });
}
