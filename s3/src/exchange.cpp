// One exchange on the wire: sign, send, receive, and say what it was. Runs on the caller's thread; the
// caller's callbacks run inside curl's, so exceptions are caught there and no lock is held. Downloads go from
// curl's buffer to the sink, uploads from the body into curl's buffer: one copy each.
#include <curl/curl.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <new>

#include "checks.h"
#include "options.h"
#include "pool.h"
#include "request.h"
#include "status.h"
#include "text.h"
#include "upload_body.h"

namespace s3 {
namespace {

constexpr long kReceiveBuffer = 256 * 1024;
constexpr long kSmallestSendBuffer = 16 * 1024;
constexpr long kLargestSendBuffer = 1024 * 1024;
// Headers and error pages are read to this length, replies in memory to that one (a page of a thousand long
// names needs a third of it; parsed it takes many times its length).
constexpr size_t kHeaderLimit = 256 * 1024;
constexpr size_t kErrorBodyLimit = 1024 * 1024;
constexpr size_t kCollectedLimit = 16 * 1024 * 1024;

struct HeaderListDeleter {
    void operator()(curl_slist* list) const noexcept { curl_slist_free_all(list); }
};

class HeaderList {
  public:
    void add(std::string_view name, std::string_view value) {
        // An empty value must be written with a semicolon, or curl takes the line as "do not send".
        std::string line(name);
        if (value.empty()) {
            line += ';';
        } else {
            line.append(": ").append(value);
        }
        append(line);
    }
    void suppress(std::string_view name) { append(std::string(name) + ":"); }
    curl_slist* get() const { return list_.get(); }

  private:
    void append(const std::string& line) {
        curl_slist* longer = curl_slist_append(list_.get(), line.c_str());
        if (longer == nullptr) throw std::bad_alloc();
        static_cast<void>(list_.release());
        list_.reset(longer);
    }
    std::unique_ptr<curl_slist, HeaderListDeleter> list_;
};

bool is_signed(std::string_view name) {
    const std::string lower = to_lower(name);
    return lower.starts_with("x-amz-") || lower == "host" || lower == "content-type" ||
           lower == "content-md5" || lower == "range";
}

class Exchange {
  public:
    Exchange(const RequestPlan& plan, ReplySink* sink) : plan_(plan), sink_(sink) {}
    ExchangeResult run();

  private:
    using Clock = std::chrono::steady_clock;

    void add_headers(HeaderList& list);
    std::string url() const;
    void set_options(CURL* curl, const LibraryState& state);
    void set_upload_options(CURL* curl);
    void judge(CURLcode code);
    S3Status transport_status(CURLcode code) const;
    void abort_with(S3Status status);
    S3Status deliver(std::string_view bytes);
    S3Status begin_reply();

    // A caller's callback may block for as long as its own peer does: the clock of the stall guard starts
    // anew.
    void touch() { last_progress_ = Clock::now(); }

    static size_t on_header(char* data, size_t size, size_t count, void* self);
    static size_t on_body(char* data, size_t size, size_t count, void* self);
    static size_t on_read(char* out, size_t size, size_t count, void* self);
    static int on_seek(void* self, curl_off_t offset, int origin);
    static int on_progress(void* self, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up);

    const RequestPlan& plan_;
    ReplySink* sink_;
    ExchangeResult result_;
    std::string error_body_;
    HeaderList header_list_;
    bool begun_ = false;
    bool stalled_ = false;
    bool body_sent_ = true;
    std::chrono::seconds stall_limit_{0};
    Clock::time_point last_progress_;
    curl_off_t seen_down_ = 0;
    curl_off_t seen_up_ = 0;
    bool header_seen_ = false;
    size_t header_bytes_ = 0;
};

std::string Exchange::url() const {
    std::string url = plan_.store.https ? "https://" : "http://";
    url += plan_.address.authority;
    url += plan_.address.encoded_path;
    char separator = '?';
    for (const auto& [name, value] : plan_.query) {
        url += separator;
        url += encode_query(name);
        if (!value.empty()) url += "=" + encode_query(value);
        separator = '&';
    }
    return url;
}

void Exchange::add_headers(HeaderList& list) {
    NameValues headers = plan_.headers;
    headers.emplace_back("Host", plan_.address.host_header);
    if (!plan_.store.anonymous()) {
        const std::string timestamp = format_basic_iso8601(static_cast<int64_t>(std::time(nullptr)));
        headers.emplace_back("x-amz-content-sha256", plan_.payload_hash);
        headers.emplace_back("x-amz-date", timestamp);
        if (!plan_.store.token.empty()) headers.emplace_back("x-amz-security-token", plan_.store.token);
        NameValues signed_headers;
        std::copy_if(headers.begin(), headers.end(), std::back_inserter(signed_headers),
                     [](const auto& header) { return is_signed(header.first); });
        NameValues query;
        for (const auto& [name, value] : plan_.query)
            query.emplace_back(encode_query(name), encode_query(value));
        SigningInput input;
        input.method = plan_.method;
        input.encoded_path = plan_.address.encoded_path;
        input.encoded_query = &query;
        input.headers = &signed_headers;
        input.payload_hash = plan_.payload_hash;
        input.timestamp = timestamp;
        input.access_key = plan_.store.access_key;
        input.secret_key = plan_.store.secret_key;
        input.region = plan_.store.region;
        headers.emplace_back("Authorization", authorization(input));
    }
    for (const auto& [name, value] : headers)
        list.add(name, value);
    if (plan_.body != nullptr && plan_.body->wants_expect()) {
        list.add("Expect", "100-continue");
    } else {
        list.suppress("Expect");
    }
}

void Exchange::set_options(CURL* curl, const LibraryState& state) {
    curl_easy_setopt(curl, CURLOPT_URL, url().c_str());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, plan_.store.https ? "https" : "http");
    curl_easy_setopt(curl, CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(curl, CURLOPT_USERAGENT, state.user_agent.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, header_list_.get());
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(curl, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXCONNECTS, 1L);
    curl_easy_setopt(curl, CURLOPT_TCP_NODELAY, 1L);
    curl_easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, kReceiveBuffer);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, state.verify_peer ? 1L : 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, state.verify_peer ? 2L : 0L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(option(S3OptionConnectTimeoutMs)));
    if (const auto left = plan_.deadline.milliseconds_left())
        curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, std::max(1L, *left));
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &Exchange::on_header);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Exchange::on_body);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &Exchange::on_progress);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, this);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    if (plan_.body != nullptr) {
        set_upload_options(curl);
    } else if (plan_.method == "HEAD") {
        curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
    } else {
        curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
        if (plan_.method != "GET")
            curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, std::string(plan_.method).c_str());
    }
}

void Exchange::set_upload_options(CURL* curl) {
    const auto length = static_cast<curl_off_t>(plan_.body->length());
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    // When a reused connection is dead, curl repeats a request by itself; between two commits the object must
    // be asked for, so a commit (slow, with a body of the caller's) gets a connection of its own.
    if (plan_.slow && plan_.body->length() > 0) curl_easy_setopt(curl, CURLOPT_FRESH_CONNECT, 1L);
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, std::string(plan_.method).c_str());
    curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, length);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, &Exchange::on_read);
    curl_easy_setopt(curl, CURLOPT_READDATA, this);
    curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, &Exchange::on_seek);
    curl_easy_setopt(curl, CURLOPT_SEEKDATA, this);
    curl_easy_setopt(curl, CURLOPT_EXPECT_100_TIMEOUT_MS, static_cast<long>(option(S3OptionExpectTimeoutMs)));
    curl_easy_setopt(
        curl, CURLOPT_UPLOAD_BUFFERSIZE,
        static_cast<long>(std::clamp<curl_off_t>(length, kSmallestSendBuffer, kLargestSendBuffer)));
}

void Exchange::abort_with(S3Status status) {
    if (result_.aborted) return;
    result_.aborted = true;
    result_.status = status;
}

S3Status Exchange::begin_reply() {
    begun_ = true;
    if (sink_ == nullptr) return S3StatusOK;
    const S3Status status = sink_->begin(result_.headers);
    touch();
    return status;
}

S3Status Exchange::deliver(std::string_view bytes) {
    const long http = result_.headers.http_status;
    if (http < 200 || http > 299) {
        const size_t room = kErrorBodyLimit - std::min(kErrorBodyLimit, error_body_.size());
        error_body_.append(bytes.substr(0, room));
        return S3StatusOK;
    }
    if (!begun_) {
        const S3Status status = begin_reply();
        if (status != S3StatusOK) return status;
    }
    if (sink_ == nullptr) {
        if (result_.body.size() + bytes.size() > kCollectedLimit) return S3StatusXmlDocumentTooLarge;
        result_.body.append(bytes);
        return S3StatusOK;
    }
    const S3Status status = sink_->data(bytes);
    touch();
    return status;
}

size_t Exchange::on_header(char* data, size_t size, size_t count, void* self) {
    auto& exchange = *static_cast<Exchange*>(self);
    try {
        exchange.header_seen_ = true;
        exchange.header_bytes_ += size * count;
        if (exchange.header_bytes_ > kHeaderLimit) {
            exchange.abort_with(S3StatusHeadersTooLong);
            return 0;
        }
        exchange.result_.headers.add_line({data, size * count});
        return size * count;
    } catch (...) {
        exchange.abort_with(S3StatusOutOfMemory);
        return 0;
    }
}

size_t Exchange::on_body(char* data, size_t size, size_t count, void* self) {
    auto& exchange = *static_cast<Exchange*>(self);
    // Enough of an error page: the outcome is known, and an endless one must end.
    if (exchange.error_body_.size() >= kErrorBodyLimit) return 0;
    S3Status status = S3StatusOK;
    try {
        status = exchange.deliver({data, size * count});
    } catch (...) {
        status = S3StatusOutOfMemory;
    }
    if (status == S3StatusOK) return size * count;
    exchange.abort_with(status);
    return 0;
}

size_t Exchange::on_read(char* out, size_t size, size_t count, void* self) {
    auto& exchange = *static_cast<Exchange*>(self);
    try {
        const long got = exchange.plan_.body->read(out, size * count);
        exchange.touch();
        if (got >= 0) return static_cast<size_t>(got);
        exchange.abort_with(exchange.plan_.body->failure());
    } catch (...) {
        exchange.abort_with(S3StatusOutOfMemory);
    }
    return CURL_READFUNC_ABORT;
}

int Exchange::on_seek(void* self, curl_off_t offset, int origin) {
    auto& exchange = *static_cast<Exchange*>(self);
    if (offset != 0 || origin != SEEK_SET) return CURL_SEEKFUNC_FAIL;
    return exchange.plan_.body->rewind() ? CURL_SEEKFUNC_OK : CURL_SEEKFUNC_FAIL;
}

int Exchange::on_progress(void* self, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up) {
    auto& exchange = *static_cast<Exchange*>(self);
    if (down != exchange.seen_down_ || up != exchange.seen_up_ || exchange.header_seen_) {
        exchange.seen_down_ = down;
        exchange.seen_up_ = up;
        exchange.header_seen_ = false;
        exchange.touch();
        return 0;
    }
    if (Clock::now() - exchange.last_progress_ < exchange.stall_limit_) return 0;
    exchange.stalled_ = true;
    return 1;
}

S3Status Exchange::transport_status(CURLcode code) const {
    if (stalled_) return S3StatusErrorRequestTimeout;
    switch (code) {
        case CURLE_OUT_OF_MEMORY:
            return S3StatusOutOfMemory;
        case CURLE_COULDNT_RESOLVE_PROXY:
        case CURLE_COULDNT_RESOLVE_HOST:
            return S3StatusNameLookupError;
        case CURLE_COULDNT_CONNECT:
            return S3StatusFailedToConnect;
        case CURLE_WRITE_ERROR:
        case CURLE_OPERATION_TIMEDOUT:
            return S3StatusErrorRequestTimeout;
        case CURLE_PEER_FAILED_VERIFICATION:
            return S3StatusServerFailedVerification;
        case CURLE_OK:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
        case CURLE_SEND_FAIL_REWIND:
        case CURLE_SSL_CONNECT_ERROR:
            return S3StatusConnectionFailed;
        default:
            return S3StatusInternalError;
    }
}

void Exchange::judge(CURLcode code) {
    if (result_.aborted) return;
    // Curl takes headers that break off for a reply without a body.
    const bool replied = result_.headers.complete;
    const long http = result_.headers.http_status;
    if (replied && http >= 300) {
        // The store has spoken; how the connection fared afterwards does not matter.
        ErrorReply reply = read_error_body(error_body_, http);
        result_.status = reply.status;
        result_.has_code = reply.has_code;
        result_.error = std::move(reply.info);
        result_.worth_repeating = is_retryable_kind(result_.status);
        return;
    }
    if (code == CURLE_OK && replied && http >= 200 && !body_sent_) {
        result_.status = S3StatusInternalError;
        result_.error.message = "the store answered before it had the whole body";
        return;
    }
    if (code == CURLE_OK && replied && http >= 200) {
        const S3Status status = begun_ ? S3StatusOK : begin_reply();
        if (status != S3StatusOK) {
            abort_with(status);
        } else {
            result_.status = S3StatusOK;
        }
        return;
    }
    result_.transport_failed = true;
    result_.status = transport_status(code);
    result_.worth_repeating = is_retryable_kind(result_.status);
    if (stalled_) {
        result_.error.message = "no progress on the connection";
    } else if (code == CURLE_OK) {
        result_.error.message = "the reply broke off inside its headers";
    } else {
        result_.error.message = curl_easy_strerror(code);
    }
    const bool took = plan_.body != nullptr && plan_.body->took_caller_bytes();
    if (took && result_.status == S3StatusConnectionFailed) result_.status = S3StatusInternalError;
}

ExchangeResult Exchange::run() {
    const LibraryState state = library_state(plan_.store.host);
    if (state.pool == nullptr) throw Refusal{S3StatusFailedToInitializeRequest};
    if (plan_.body != nullptr) {
        const S3Status status = plan_.body->read_ahead();
        if (status != S3StatusOK) {
            abort_with(status);
            return std::move(result_);
        }
    }
    if (plan_.deadline.milliseconds_left() == 0) {
        result_.transport_failed = true;
        result_.status = S3StatusErrorRequestTimeout;
        return std::move(result_);
    }
    add_headers(header_list_);
    std::string key = plan_.store.https ? "https://" : "http://";
    key += to_lower(plan_.address.authority) + (state.verify_peer ? " verified" : "");
    // A host name that TLS checks differently must not share connections made for another Host header.
    if (plan_.store.https) key += " " + to_lower(plan_.store.host);
    ConnectionLease lease(state.pool, std::move(key));
    set_options(lease.get(), state);
    stall_limit_ = std::chrono::seconds(option(plan_.slow ? S3OptionSlowStallSeconds : S3OptionStallSeconds));
    touch();
    const CURLcode code = curl_easy_perform(lease.get());
    if (plan_.body != nullptr) {
        curl_off_t sent = 0;
        curl_easy_getinfo(lease.get(), CURLINFO_SIZE_UPLOAD_T, &sent);
        body_sent_ = static_cast<uint64_t>(sent) >= plan_.body->length();
    }
    // What is missing of a body would be read as the next request.
    if (code == CURLE_OK && body_sent_) lease.keep();
    judge(code);
    return std::move(result_);
}

}  // namespace

ExchangeResult exchange(const RequestPlan& plan, ReplySink* sink) {
    return Exchange(plan, sink).run();
}

}  // namespace s3
