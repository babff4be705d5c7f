// A request as the operations describe it, and what came of it. request.cpp turns a plan into one or more
// exchanges (redirects inside the store, bodies sent again); exchange.cpp makes one exchange on the wire.
// A plan and its result belong to one thread.
#pragma once

#include <libs3.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "error_body.h"
#include "response_headers.h"
#include "signature_v4.h"

namespace s3 {

class UploadBody;

/// Where the request goes and who signs it; every text is resolved and owned.
struct Store {
    bool https = true;
    std::string host;
    std::string bucket;
    bool virtual_host = false;
    std::string access_key, secret_key, token;
    std::string region = S3_DEFAULT_REGION;

    bool anonymous() const { return access_key.empty() || secret_key.empty(); }
};

/// The parts of a URL.
struct Address {
    /// "host" or "host:port" to connect to.
    std::string authority;
    /// Host header; differs from authority for bucket names with dots, whose TLS names would not match.
    std::string host_header;
    std::string encoded_path;
};

/// The end of the time that a call may take.
class Deadline {
  public:
    using Clock = std::chrono::steady_clock;
    Deadline() = default;
    /// No limit for timeout_ms <= 0.
    explicit Deadline(int timeout_ms) {
        if (timeout_ms > 0) end_ = Clock::now() + std::chrono::milliseconds(timeout_ms);
    }
    /// Milliseconds left, at least 0; nothing without a limit.
    std::optional<long> milliseconds_left() const;
    /// Moves the end forward to that of other, if that one is earlier.
    void limit(const Deadline& other) {
        if (other.end_ && (!end_ || *other.end_ < *end_)) end_ = other.end_;
    }

  private:
    std::optional<Clock::time_point> end_;
};

struct RequestPlan {
    std::string_view method = "GET";
    Store store;
    Address address;
    /// Raw names and values; an empty value is sent as the name alone.
    NameValues query;
    /// All but host, date and signature.
    NameValues headers;
    /// Null for GET, HEAD and DELETE.
    UploadBody* body = nullptr;
    std::string_view payload_hash = kEmptyPayloadHash;
    /// The store works long before it answers: the longer stall limit applies.
    bool slow = false;
    Deadline deadline;
};

/// Takes a successful reply while it arrives. A returned status other than OK ends the request with it.
class ReplySink {
  public:
    virtual ~ReplySink() = default;
    /// Once per exchange, before the first byte or, without any, at the end.
    virtual S3Status begin(const ResponseHeaders& headers) = 0;
    virtual S3Status data(std::string_view bytes) = 0;
};

struct ExchangeResult {
    S3Status status = S3StatusInternalError;
    ResponseHeaders headers;
    /// The reply of a success that had no sink.
    std::string body;
    ErrorInfo error;
    /// The store named an error code (status is not derived from the HTTP status).
    bool has_code = false;
    /// A callback, the sink or the body decided the status.
    bool aborted = false;
    /// No complete reply: not connected, cut, timed out or stalled.
    bool transport_failed = false;
    /// The failure is of the kind that another try may mend, whatever was taken or delivered.
    bool worth_repeating = false;
};

/// The store of a context. Throws Refusal for a host that is too long.
Store make_store(const S3BucketContext& context);
/// The same from the arguments of calls that have no context.
Store make_store(S3Protocol protocol, S3UriStyle style, const char* access_key, const char* secret_key,
                 const char* token, const char* host, const char* bucket, const char* region);

/// The beginning of every request on an object or, with a null or empty key, on a bucket: where it goes and
/// how long it may take. Throws Refusal for names that cannot be.
RequestPlan make_plan(std::string_view method, const S3BucketContext& context, const char* key,
                      int timeout_ms);

/// Adds a parameter unless it is null or empty.
void add_query(RequestPlan& plan, std::string_view name, const char* value);

/// Address of an object, or with an empty key of the bucket.
Address object_address(const Store& store, std::string_view key);
/// Address beside all buckets; path is raw and begins with "/".
Address service_address(const Store& store, std::string_view path);

/// One exchange on the wire. sink may be null: the reply is then collected.
ExchangeResult exchange(const RequestPlan& plan, ReplySink* sink);

/// The request with the redirects that stay inside the store.
ExchangeResult perform_once(RequestPlan& plan, ReplySink* sink = nullptr);

/// The request with everything that may be repeated without asking anybody: redirects that stay inside the
/// store and bodies that are still held whole.
ExchangeResult perform(RequestPlan& plan, ReplySink* sink = nullptr);

/// Waits before repetition number attempt (0 is the first), longer each time. False when the deadline is
/// nearer.
bool pause_before_retry(int attempt, const Deadline& deadline);

}  // namespace s3
