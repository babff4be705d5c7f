// Completing a multipart upload (S3: CompleteMultipartUpload). The request is the one that cannot be told
// from its own repetition: a lost reply may hide a success, and after a success the upload is unknown.
// Whenever the outcome is open, the object is asked for and its ETag compared with the one that follows from
// the parts.
#include <libs3.h>

#include <algorithm>

#include "multipart.h"
#include "options.h"
#include "text.h"
#include "upload_body.h"
#include "xml.h"

namespace s3 {
namespace {

// MD5 over the parts' MD5s, "-", number of parts; empty when a part's ETag is no MD5 (encrypted stores).
std::string etag_of_parts(std::string_view commit_document) {
    const XmlReply document(commit_document);
    if (!document.has_root("CompleteMultipartUpload")) return {};
    std::vector<std::pair<uint64_t, std::string>> parts;
    for (const pugi::xml_node& node : document.root().children("Part")) {
        const std::string etag = child_text(node, "ETag");
        const auto digest = from_hex(unquoted_etag(trim(etag)));
        const auto number = parse_u64(trim(child_text(node, "PartNumber")));
        if (!digest || digest->size() != 16 || !number) return {};
        parts.emplace_back(*number, *digest);
    }
    if (parts.empty()) return {};
    std::sort(parts.begin(), parts.end());
    std::string digests;
    for (const auto& [number, digest] : parts)
        digests += digest;
    return to_hex(md5(digests)) + "-" + std::to_string(parts.size());
}

struct Committed {
    std::string location, etag;
};

class Commit {
  public:
    Commit(RequestPlan& plan, UploadBody& body, const S3MultipartCommitHandler& handler, void* callback_data)
        : plan_(plan), body_(body), handler_(handler), callback_data_(callback_data) {}
    void run(CallResult& call);

  private:
    enum class Verdict { kDone, kFailed, kOpen };
    Verdict judge(ExchangeResult& result);
    bool object_is_there(ExchangeResult& result);
    S3Status tell(const ResponseHeaders& headers);

    RequestPlan& plan_;
    UploadBody& body_;
    const S3MultipartCommitHandler& handler_;
    void* callback_data_;
    Committed committed_;
    bool was_open_ = false;
};

// Reads the reply of one try; for an open outcome result.status says what went wrong.
Commit::Verdict Commit::judge(ExchangeResult& result) {
    if (result.aborted) return Verdict::kFailed;
    if (result.status == S3StatusOK) {
        const XmlReply document(result.body);
        if (document.has_root("CompleteMultipartUploadResult")) {
            committed_.location = child_text(document.root(), "Location");
            committed_.etag = quoted_etag(trim(child_text(document.root(), "ETag")));
            return Verdict::kDone;
        }
        result.status = S3StatusErrorInternalError;
        if (auto error = error_inside_success(result.body)) {
            result.status = error->status;
            result.error = std::move(error->info);
            result.worth_repeating = is_retryable_kind(result.status);
        } else {
            result.worth_repeating = true;
        }
        return Verdict::kOpen;
    }
    if (result.transport_failed || result.worth_repeating) return Verdict::kOpen;
    // The upload is gone after a try whose fate is unknown: that try may have been the one that succeeded.
    if (was_open_ && (result.status == S3StatusErrorNoSuchUpload || result.status == S3StatusErrorNoSuchKey))
        return Verdict::kOpen;
    return Verdict::kFailed;
}

bool Commit::object_is_there(ExchangeResult& result) {
    const std::string wanted = etag_of_parts(body_.text());
    if (wanted.empty()) return false;
    RequestPlan head;
    head.method = "HEAD";
    head.store = plan_.store;
    head.address = plan_.address;
    head.deadline = plan_.deadline;
    ExchangeResult answer = perform(head);
    for (int attempt = 0; answer.worth_repeating && attempt < option(S3OptionUploadResends); ++attempt) {
        if (!pause_before_retry(attempt, plan_.deadline)) break;
        answer = perform(head);
    }
    // No comparison of sizes: the document names the parts' MD5s alone, a finished upload's parts can no
    // longer be listed, and parts with the same MD5s make an object of the same size.
    if (answer.status != S3StatusOK || unquoted_etag(answer.headers.etag.value_or("")) != wanted)
        return false;
    result = std::move(answer);
    committed_ = {"", quoted_etag(*result.headers.etag)};
    return true;
}

S3Status Commit::tell(const ResponseHeaders& headers) {
    const S3Status status = deliver_properties(handler_.responseHandler, callback_data_, headers);
    if (status != S3StatusOK || handler_.responseXmlCallback == nullptr) return status;
    return handler_.responseXmlCallback(nonempty_or_null(committed_.location),
                                        nonempty_or_null(committed_.etag), callback_data_);
}

void Commit::run(CallResult& call) {
    const auto resends = option(S3OptionUploadResends);
    const Address address = plan_.address;
    const NameValues query = plan_.query;
    for (int attempt = 0;; ++attempt) {
        // Not perform(): between two commits the object decides.
        ExchangeResult result = perform_once(plan_);
        Verdict verdict = judge(result);
        if (verdict == Verdict::kOpen) {
            was_open_ = true;
            ExchangeResult head;
            if (object_is_there(head)) {
                result = std::move(head);
                verdict = Verdict::kDone;
            }
        }
        if (verdict == Verdict::kDone) {
            call.status = tell(result.headers);
            return;
        }
        const bool again = verdict == Verdict::kOpen && result.worth_repeating && attempt < resends &&
                           body_.rewind() && pause_before_retry(attempt, plan_.deadline);
        if (!again) return set_result(call, std::move(result));
        plan_.address = address;
        plan_.query = query;
    }
}

}  // namespace
}  // namespace s3

extern "C" void S3_complete_multipart_upload(const S3BucketContext* bucketContext, const char* key,
                                             const S3MultipartCommitHandler* handler, const char* upload_id,
                                             uint64_t contentLength, S3RequestContext*, int timeoutMs,
                                             void* callbackData) {
    s3::run_call(handler->responseHandler, callbackData, [&](s3::CallResult& call) {
        s3::RequestPlan plan = s3::upload_plan("POST", *bucketContext, key, timeoutMs);
        s3::check_upload_id(upload_id);
        plan.slow = true;
        plan.query = {{"uploadId", upload_id}};
        plan.headers = {{"Content-Type", "application/xml"}};
        s3::UploadBody body(handler->putObjectDataCallback, callbackData, contentLength,
                            s3::UploadBody::Reading::kAllAhead);
        plan.body = &body;
        plan.payload_hash = s3::kUnsignedPayload;
        s3::Commit(plan, body, *handler, callbackData).run(call);
        call.took_body_bytes = body.took_caller_bytes();
    });
}
