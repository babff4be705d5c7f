// Restoring archived objects (S3: RestoreObject).
#include <libs3.h>

#include "complete.h"
#include "text.h"
#include "upload_body.h"

namespace s3 {
namespace {

std::string restore_document(int days, const char* tier) {
    std::string out = "<RestoreRequest xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\">";
    if (days > 0) out += "<Days>" + std::to_string(days) + "</Days>";
    if (tier != nullptr && *tier != '\0')
        out += "<GlacierJobParameters><Tier>" + escape_xml(tier) + "</Tier></GlacierJobParameters>";
    return out + "</RestoreRequest>";
}

}  // namespace
}  // namespace s3

extern "C" void S3_restore_object(const S3BucketContext* bucketContext, const char* key, int days,
                                  const char* tier, S3RequestContext*, int timeoutMs,
                                  const S3ResponseHandler* handler, void* callbackData) {
    s3::run_call(*handler, callbackData, [&](s3::CallResult& call) {
        s3::check_key(key);
        s3::RequestPlan plan = s3::make_plan("POST", *bucketContext, key, timeoutMs);
        plan.query = {{"restore", ""}};
        const std::string document = s3::restore_document(days, tier);
        plan.headers = {{"Content-Type", "application/xml"},
                        {"Content-MD5", s3::to_base64(s3::md5(document))}};
        s3::UploadBody body(document);
        plan.body = &body;
        // Signed, unlike other bodies: gateways that do not know this request take an unsigned one for a
        // form.
        const std::string hash = s3::to_hex(s3::sha256(document));
        plan.payload_hash = hash;
        s3::perform_simple(plan, *handler, callbackData, call);
    });
}
