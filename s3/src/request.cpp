// From contexts to addresses, and the repetitions that need nobody's leave: a redirect inside the same store
// is signed anew, a body that is still held whole is sent again. A redirect to any other host is reported,
// never followed: it would hand a signature to whoever sent it.
#include "request.h"

#include <algorithm>
#include <thread>

#include "checks.h"
#include "options.h"
#include "status.h"
#include "text.h"
#include "upload_body.h"

namespace s3 {
namespace {

constexpr int kMaxRedirects = 5;
constexpr std::chrono::milliseconds kLongestPause{10000};

std::string text_or(const char* text, std::string_view fallback) {
    return text != nullptr && *text != '\0' ? std::string(text) : std::string(fallback);
}

struct RedirectTarget {
    std::string authority;
    std::string host_header;
    std::string path;
    NameValues query;
};

NameValues parse_query(std::string_view text) {
    NameValues out;
    while (!text.empty()) {
        const size_t end = text.find('&');
        const std::string_view field = text.substr(0, end);
        const size_t equals = field.find('=');
        if (!field.empty()) {
            const std::string_view value =
                equals == std::string_view::npos ? std::string_view() : field.substr(equals + 1);
            out.emplace_back(decode_percent(field.substr(0, equals), false), decode_percent(value, false));
        }
        if (end == std::string_view::npos) break;
        text.remove_prefix(end + 1);
    }
    return out;
}

// Where to connect for "bucket.host": the certificate of a host does not cover names with further dots.
std::string bucket_authority(const Store& store) {
    return store.bucket.find('.') == std::string::npos ? store.bucket + "." + store.host : store.host;
}

std::optional<RedirectTarget> same_store_target(const RequestPlan& plan, std::string_view location) {
    RedirectTarget target;
    const std::string scheme = plan.store.https ? "https://" : "http://";
    if (location.starts_with('/') && !location.starts_with("//")) {
        target.authority = plan.address.authority;
        target.host_header = plan.address.host_header;
    } else if (location.size() > scheme.size() &&
               equals_ignore_case(location.substr(0, scheme.size()), scheme)) {
        location.remove_prefix(scheme.size());
        const size_t end = std::min(location.find_first_of("/?#"), location.size());
        target.authority = location.substr(0, end);
        target.host_header = target.authority;
        location.remove_prefix(end);
    } else {
        return std::nullopt;
    }
    const Store& store = plan.store;
    const bool buckets_own =
        !store.bucket.empty() && equals_ignore_case(target.authority, store.bucket + "." + store.host);
    const bool same = buckets_own || equals_ignore_case(target.authority, plan.address.authority) ||
                      equals_ignore_case(target.authority, store.host);
    if (!same) return std::nullopt;
    if (buckets_own) target.authority = bucket_authority(store);
    location = location.substr(0, location.find('#'));
    const size_t mark = location.find('?');
    target.path = decode_percent(location.substr(0, mark), false);
    if (target.path.empty()) target.path = "/";
    if (mark != std::string_view::npos) target.query = parse_query(location.substr(mark + 1));
    return target;
}

bool may_redirect(const RequestPlan& plan, const ExchangeResult& result) {
    const long http = result.headers.http_status;
    if (result.aborted || (http != 307 && http != 308) || !result.headers.location) return false;
    return plan.body == nullptr || plan.body->can_rewind();
}

}  // namespace

std::optional<long> Deadline::milliseconds_left() const {
    if (!end_) return std::nullopt;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*end_ - Clock::now()).count();
    return std::max<long>(0, static_cast<long>(left));
}

Store make_store(S3Protocol protocol, S3UriStyle style, const char* access_key, const char* secret_key,
                 const char* token, const char* host, const char* bucket, const char* region) {
    Store store;
    store.https = protocol == S3ProtocolHTTPS;
    store.host = host != nullptr && *host != '\0' ? std::string(host) : default_host();
    if (store.host.size() > S3_MAX_HOSTNAME_SIZE) throw Refusal{S3StatusUriTooLong};
    check_host(store.host);
    store.bucket = text_or(bucket, "");
    store.virtual_host = style == S3UriStyleVirtualHost;
    store.access_key = text_or(access_key, "");
    store.secret_key = text_or(secret_key, "");
    store.token = text_or(token, "");
    store.region = text_or(region, S3_DEFAULT_REGION);
    return store;
}

Store make_store(const S3BucketContext& context) {
    return make_store(context.protocol, context.uriStyle, context.accessKeyId, context.secretAccessKey,
                      context.securityToken, context.hostName, context.bucketName, context.authRegion);
}

RequestPlan make_plan(std::string_view method, const S3BucketContext& context, const char* key,
                      int timeout_ms) {
    RequestPlan plan;
    plan.method = method;
    plan.deadline = Deadline(timeout_ms);
    plan.store = make_store(context);
    check_bucket(plan.store.bucket, plan.store.virtual_host);
    check_key_length(key);
    plan.address = object_address(plan.store, key != nullptr ? key : "");
    return plan;
}

void add_query(RequestPlan& plan, std::string_view name, const char* value) {
    if (value != nullptr && *value != '\0') plan.query.emplace_back(name, value);
}

Address object_address(const Store& store, std::string_view key) {
    Address address;
    const std::string path = "/" + encode_path(key);
    if (!store.virtual_host) {
        // A tenant's colon belongs to the bucket's name and is encoded like any other byte.
        address.authority = store.host;
        address.host_header = store.host;
        address.encoded_path = "/" + encode_path(store.bucket) + path;
        return address;
    }
    address.host_header = store.bucket + "." + store.host;
    address.authority = bucket_authority(store);
    address.encoded_path = path;
    return address;
}

Address service_address(const Store& store, std::string_view path) {
    return {store.host, store.host, encode_path(path)};
}

bool pause_before_retry(int attempt, const Deadline& deadline) {
    std::chrono::milliseconds pause(option(S3OptionRetryPauseMs));
    for (int i = 0; i < attempt && pause < kLongestPause; ++i)
        pause *= 2;
    pause = std::min(pause, kLongestPause);
    const std::optional<long> left = deadline.milliseconds_left();
    if (left && pause.count() >= *left) return false;
    std::this_thread::sleep_for(pause);
    return true;
}

ExchangeResult perform_once(RequestPlan& plan, ReplySink* sink) {
    for (int redirects = 0;; ++redirects) {
        ExchangeResult result = exchange(plan, sink);
        if (!may_redirect(plan, result) || redirects == kMaxRedirects) return result;
        auto target = same_store_target(plan, *result.headers.location);
        if (!target) return result;
        plan.address = {std::move(target->authority), std::move(target->host_header),
                        encode_path(target->path)};
        plan.query = std::move(target->query);
        if (plan.body != nullptr) plan.body->rewind();
    }
}

ExchangeResult perform(RequestPlan& plan, ReplySink* sink) {
    for (int resends = 0;; ++resends) {
        ExchangeResult result = perform_once(plan, sink);
        const bool resend = result.worth_repeating && plan.body != nullptr &&
                            plan.body->took_caller_bytes() && plan.body->can_rewind() &&
                            resends < option(S3OptionUploadResends);
        if (!resend || !pause_before_retry(resends, plan.deadline)) return result;
        plan.body->rewind();
    }
}

}  // namespace s3
