// Takes the place of the exchange on the wire; see s3_exchange.h.
#include "s3_exchange.h"

#include <string>

#include "request.h"
#include "status.h"
#include "upload_body.h"

namespace {

std::string_view reply;
int exchanges = 0;

S3Status take_properties(const S3ResponseProperties* properties, void* data) {
    auto& call = *static_cast<s3_fuzz::Call*>(data);
    ++call.properties;
    FUZZ_CHECK(call.results == 0 && call.ends == 0);
    for (const char* text :
         {properties->requestId, properties->requestId2, properties->contentType, properties->server,
          properties->eTag, properties->bucketRegion, properties->storageClass})
        s3_fuzz::check_text(text);
    for (int index = 0; index < properties->metaDataCount; ++index) {
        FUZZ_CHECK(properties->metaData[index].name != nullptr &&
                   properties->metaData[index].value != nullptr);
        s3_fuzz::check_text(properties->metaData[index].name);
        s3_fuzz::check_text(properties->metaData[index].value);
    }
    FUZZ_CHECK(properties->restoreStatus >= 0 && properties->restoreStatus <= 2);
    FUZZ_CHECK(properties->usesServerSideEncryption >= 0 && properties->usesServerSideEncryption <= 2);
    FUZZ_CHECK(properties->lastModified >= -1 && properties->restoreExpiry >= 0);
    return S3StatusOK;
}

void take_end(S3Status status, const S3ErrorDetails* details, void* data) {
    auto& call = *static_cast<s3_fuzz::Call*>(data);
    ++call.ends;
    call.status = status;
    FUZZ_CHECK(S3_get_status_name(status) != nullptr);
    if (details == nullptr) return;
    FUZZ_CHECK(status != S3StatusOK);
    s3_fuzz::check_text(details->message);
    s3_fuzz::check_text(details->resource);
    s3_fuzz::check_text(details->furtherDetails);
    for (int index = 0; index < details->extraDetailsCount; ++index) {
        FUZZ_CHECK(details->extraDetails[index].name != nullptr &&
                   details->extraDetails[index].value != nullptr);
        s3_fuzz::check_text(details->extraDetails[index].name);
        s3_fuzz::check_text(details->extraDetails[index].value);
    }
}

/// Hands the body on in two pieces.
S3Status hand_over(s3::ReplySink& sink, const s3::ResponseHeaders& headers, std::string_view body) {
    S3Status status = sink.begin(headers);
    for (const std::string_view piece : {body.substr(0, body.size() / 2), body.substr(body.size() / 2)}) {
        if (status == S3StatusOK && !piece.empty()) status = sink.data(piece);
    }
    return status;
}

S3Status send_body(s3::UploadBody& body) {
    const S3Status status = body.read_ahead();
    char buffer[4096];
    long count = status == S3StatusOK ? 1 : 0;
    while (count > 0)
        count = body.read(buffer, sizeof buffer);
    return count < 0 ? body.failure() : status;
}

}  // namespace

namespace s3 {

ExchangeResult exchange(const RequestPlan& plan, ReplySink* sink) {
    // Whatever the store says, a call asks a bounded number of times.
    FUZZ_CHECK(++exchanges < 100);
    ExchangeResult result;
    if (plan.body != nullptr) {
        result.status = send_body(*plan.body);
        result.aborted = result.status != S3StatusOK;
        if (result.aborted) return result;
    }
    fuzz::Input input(reinterpret_cast<const std::uint8_t*>(reply.data()), reply.size());
    for (std::string_view line = input.line(); !line.empty() && line != "\r"; line = input.line())
        result.headers.add_line(line);
    const std::string_view body = plan.method == "HEAD" ? std::string_view() : input.rest();
    const long http = result.headers.http_status;
    if (http >= 300) {
        ErrorReply error = read_error_body(body, http);
        FUZZ_CHECK(error.status != S3StatusOK);
        result.status = error.status;
        result.has_code = error.has_code;
        result.error = std::move(error.info);
        result.worth_repeating = is_retryable_kind(result.status);
    } else if (http < 200) {
        result.transport_failed = true;
        result.status = S3StatusConnectionFailed;
        result.worth_repeating = true;
    } else if (sink != nullptr) {
        result.status = hand_over(*sink, result.headers, body);
        result.aborted = result.status != S3StatusOK;
    } else {
        result.status = S3StatusOK;
        result.body = body;
    }
    return result;
}

}  // namespace s3

namespace s3_fuzz {

const S3ResponseHandler response_handler{take_properties, take_end};

void set_reply(std::string_view text) {
    static const bool ready = [] {
        // Nobody waits for a store that is not there.
        return S3_set_option(S3OptionRetryPauseMs, 0) == S3StatusOK &&
               S3_initialize(nullptr, 0, "store.example") == S3StatusOK;
    }();
    FUZZ_CHECK(ready);
    reply = text;
    exchanges = 0;
}

void check_end(const Call& call) {
    FUZZ_CHECK(call.ends == 1);
    FUZZ_CHECK(call.properties <= 1);
    FUZZ_CHECK(call.results == 0 || call.properties == 1);
}

S3BucketContext bucket_context() {
    return {"store.example", "bucket", S3ProtocolHTTPS, S3UriStylePath, nullptr, nullptr, nullptr,
            nullptr,         0};
}

}  // namespace s3_fuzz
