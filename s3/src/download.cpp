// Downloads. Bytes go from the connection's buffer straight to the caller. A reply that breaks off is
// continued by asking for the rest of the same object (Range from the byte reached, If-Match with its ETag),
// so that the caller sees every byte once and in order or the call fails; a short object is never a success.
#include <libs3.h>

#include <algorithm>

#include "complete.h"
#include "options.h"
#include "text.h"

namespace s3 {
namespace {

std::string range_text(uint64_t first, std::optional<uint64_t> count) {
    std::string out = "bytes=" + std::to_string(first) + "-";
    if (count) out += std::to_string(first + *count - 1);
    return out;
}

class Download final : public ReplySink {
  public:
    Download(const S3GetObjectHandler& handler, void* callback_data, uint64_t start, uint64_t count)
        : handler_(handler), callback_data_(callback_data), start_(start), count_(count) {}

    void run(RequestPlan& plan, CallResult& call);

    S3Status begin(const ResponseHeaders& headers) override;
    S3Status data(std::string_view bytes) override;

  private:
    bool ranged() const { return start_ != 0 || count_ != 0; }
    std::optional<uint64_t> wanted() const { return count_ != 0 ? std::optional(count_) : std::nullopt; }
    bool complete() const { return begun_ && length_ && received_ == *length_; }
    S3Status begin_first(const ResponseHeaders& headers);
    S3Status refuse(S3Status status, const char* why);
    S3Status begin_rest(const ResponseHeaders& headers);
    NameValues headers_for_next_try(const NameValues& conditions) const;
    void fail_broken(const ExchangeResult& result, CallResult& call) const;

    const S3GetObjectHandler& handler_;
    void* callback_data_;
    uint64_t start_;
    uint64_t count_;
    bool begun_ = false;
    bool refused_rest_ = false;       // the store offered something else than the rest of the same object
    bool range_ignored_ = false;      // the store offered the whole object instead of the range
    const char* refusal_ = nullptr;   // why a reply was not taken
    std::optional<uint64_t> length_;  // bytes that the first reply promised
    std::optional<uint64_t> total_;   // the whole object's size, if told
    uint64_t received_ = 0;           // bytes that the caller has taken
    std::optional<std::string> etag_;
};

S3Status Download::begin(const ResponseHeaders& headers) {
    return begun_ ? begin_rest(headers) : begin_first(headers);
}

S3Status Download::begin_first(const ResponseHeaders& headers) {
    // Some stores answer a range they dislike with the whole object.
    range_ignored_ = ranged() && headers.http_status != 206;
    if (range_ignored_) return S3StatusErrorInvalidRange;
    if (headers.content_range && headers.content_range->first) {
        const ContentRange& range = *headers.content_range;
        if (*range.first != start_) return S3StatusErrorInvalidRange;
        if (range.last && *range.last >= *range.first) length_ = *range.last - *range.first + 1;
        total_ = range.total;
    }
    if (headers.content_length) {
        if (length_ && *length_ != *headers.content_length)
            return refuse(S3StatusInternalError, "the reply is not as long as its range");
        length_ = headers.content_length;
    }
    if (headers.http_status == 200 && length_) total_ = length_;
    if (count_ != 0 && length_ && *length_ > count_) return S3StatusErrorInvalidRange;
    // The end of such a reply cannot be told from a cut.
    if (!length_ && !headers.chunked && headers.http_status != 204)
        return refuse(S3StatusInternalError, "the reply does not say where it ends");
    etag_ = headers.etag;
    begun_ = true;
    return deliver_properties(handler_.responseHandler, callback_data_, headers);
}

S3Status Download::begin_rest(const ResponseHeaders& headers) {
    const bool right_place = headers.http_status == 206 && headers.content_range &&
                             headers.content_range->first == start_ + received_;
    const bool same_size = !total_ || !headers.content_range || !headers.content_range->total ||
                           headers.content_range->total == total_;
    const bool same_object = same_size && (!headers.etag || headers.etag == etag_);
    if (right_place && same_object) return S3StatusOK;
    refused_rest_ = true;
    return S3StatusInternalError;
}

S3Status Download::refuse(S3Status status, const char* why) {
    refusal_ = why;
    return status;
}

S3Status Download::data(std::string_view bytes) {
    if (length_ && bytes.size() > *length_ - received_) {
        refused_rest_ = true;
        return refuse(S3StatusInternalError, "more came than was announced");
    }
    if (handler_.getObjectDataCallback != nullptr) {
        const S3Status status =
            handler_.getObjectDataCallback(static_cast<int>(bytes.size()), bytes.data(), callback_data_);
        if (status != S3StatusOK) return status;
    }
    received_ += bytes.size();
    return S3StatusOK;
}

NameValues Download::headers_for_next_try(const NameValues& conditions) const {
    NameValues headers;
    if (!begun_) {
        headers = conditions;
        if (ranged()) headers.emplace_back("Range", range_text(start_, wanted()));
        return headers;
    }
    std::optional<uint64_t> rest;
    if (length_) {
        rest = *length_ - received_;
    } else if (count_ > received_) {
        rest = count_ - received_;
    }
    headers.emplace_back("Range", range_text(start_ + received_, rest));
    headers.emplace_back("If-Match", *etag_);
    return headers;
}

void Download::fail_broken(const ExchangeResult& result, CallResult& call) const {
    std::string message = "download broke off: received " + std::to_string(received_) + " of ";
    message += length_ ? std::to_string(*length_) : std::string("an unknown number of");
    message += " bytes; ";
    if (refusal_ != nullptr) {
        message += refusal_;
    } else if (refused_rest_ || result.status == S3StatusErrorPreconditionFailed) {
        message += "the object has changed";
    } else if (result.status != S3StatusOK) {
        message += std::string("last status ") + S3_get_status_name(result.status);
        if (result.error.message) message += ", " + *result.error.message;
    }
    fail(call, S3StatusInternalError, std::move(message));
}

// Callers tell the end of an object from an error by the range and the size, which some stores leave out.
void complete_range_details(const RequestPlan& get, const std::string& range, std::optional<uint64_t> size,
                            CallResult& call) {
    if (call.error.find_extra("RangeRequested") == nullptr)
        call.error.extra.emplace_back("RangeRequested", range);
    if (call.error.find_extra("ActualObjectSize") != nullptr) return;
    if (!size) {
        RequestPlan head = get;
        head.method = "HEAD";
        head.headers.clear();
        const ExchangeResult result = perform(head);
        if (result.status == S3StatusOK) size = result.headers.content_length;
    }
    if (size) call.error.extra.emplace_back("ActualObjectSize", std::to_string(*size));
}

void Download::run(RequestPlan& plan, CallResult& call) {
    const NameValues own_headers = std::move(plan.headers);
    const Address address = plan.address;
    const auto budget = static_cast<int>(option(S3OptionDownloadResumes));
    int fruitless = 0;
    for (;;) {
        const uint64_t before = received_;
        plan.headers = headers_for_next_try(own_headers);
        plan.address = address;
        plan.query.clear();
        ExchangeResult result = perform(plan, this);
        if (result.aborted && !refused_rest_) {
            const auto size = result.headers.content_length;
            set_result(call, std::move(result));
            if (refusal_ != nullptr) call.error.message = refusal_;
            if (range_ignored_) complete_range_details(plan, range_text(start_, wanted()), size, call);
            return;
        }
        if (result.status == S3StatusOK && (!length_ || complete()))
            return set_result(call, std::move(result));
        if (complete() && !refused_rest_) {
            // Every byte is there; only the end of the connection was not clean.
            call.status = S3StatusOK;
            return;
        }
        const long http = result.headers.http_status;
        const bool cut =
            (result.transport_failed && http >= 200 && http <= 299) || result.status == S3StatusOK;
        if (!begun_ && !cut) {
            const auto range = result.headers.content_range.value_or(ContentRange{});
            const bool unsatisfiable = http == 416 && ranged();
            set_result(call, std::move(result));
            if (unsatisfiable) complete_range_details(plan, range_text(start_, wanted()), range.total, call);
            return;
        }
        const bool may_mend = cut || (begun_ && (result.worth_repeating || result.transport_failed));
        fruitless = received_ > before ? 0 : fruitless + 1;
        const bool resumable = may_mend && !refused_rest_ && (!begun_ || etag_) && fruitless <= budget;
        if (!resumable || (fruitless > 0 && !pause_before_retry(fruitless - 1, plan.deadline))) {
            if (begun_) return fail_broken(result, call);
            return set_result(call, std::move(result));
        }
    }
}

void append_conditions(NameValues& headers, const S3GetConditions* conditions) {
    if (conditions == nullptr) return;
    if (conditions->ifModifiedSince >= 0)
        headers.emplace_back("If-Modified-Since", format_http_date(conditions->ifModifiedSince));
    if (conditions->ifNotModifiedSince >= 0)
        headers.emplace_back("If-Unmodified-Since", format_http_date(conditions->ifNotModifiedSince));
    append_checked(headers, "If-Match", conditions->ifMatchETag, S3StatusBadIfMatchETag);
    append_checked(headers, "If-None-Match", conditions->ifNotMatchETag, S3StatusBadIfNotMatchETag);
}

}  // namespace
}  // namespace s3

extern "C" void S3_get_object(const S3BucketContext* bucketContext, const char* key,
                              const S3GetConditions* getConditions, uint64_t startByte, uint64_t byteCount,
                              S3RequestContext*, int timeoutMs, const S3GetObjectHandler* handler,
                              void* callbackData) {
    s3::run_call(handler->responseHandler, callbackData, [&](s3::CallResult& call) {
        s3::check_key(key);
        // A range that leaves the numbers' range can only be a mistake; wrapped it would read other bytes.
        if (byteCount != 0 && startByte > UINT64_MAX - (byteCount - 1))
            throw s3::Refusal{S3StatusErrorInvalidRange};
        s3::RequestPlan plan = s3::make_plan("GET", *bucketContext, key, timeoutMs);
        s3::append_conditions(plan.headers, getConditions);
        s3::Download download(*handler, callbackData, startByte, byteCount);
        download.run(plan, call);
    });
}
