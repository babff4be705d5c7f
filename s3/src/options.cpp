// Settings and the library's life. One mutex guards the process-wide record; it is held for copying only,
// never while a request or a callback runs. The pool is shared with running requests: S3_deinitialize retires
// it and drops the library's reference, the last request's reference tears it down.
#include "options.h"

#include <array>
#include <atomic>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <new>
#include <optional>

#include "pool.h"
#include "text.h"

namespace s3 {
namespace {

constexpr const char* kDefaultUserAgent = "zorvan-s3/1";

struct OptionRange {
    const char* variable;  // of the environment
    int64_t initial;
    int64_t minimum;
    int64_t maximum;
};

// Indexed by S3Option.
constexpr std::array<OptionRange, 10> kOptions{{
    {"ZORVAN_S3_STALL_SECONDS", 120, 1, 86400},
    {"ZORVAN_S3_SLOW_STALL_SECONDS", 600, 1, 86400},
    {"ZORVAN_S3_CONNECT_TIMEOUT_MS", 60000, 1, 3600000},
    {"ZORVAN_S3_MAX_IDLE_CONNECTIONS", 256, 0, 65536},
    {"ZORVAN_S3_IDLE_CONNECTION_SECONDS", 50, 0, 86400},
    {"ZORVAN_S3_EXPECT_TIMEOUT_MS", 1000, 0, 600000},
    {"ZORVAN_S3_DOWNLOAD_RESUMES", 5, 0, 1000},
    {"ZORVAN_S3_UPLOAD_RESENDS", 3, 0, 1000},
    {"ZORVAN_S3_RETRY_PAUSE_MS", 200, 0, 600000},
    {"ZORVAN_S3_BUCKET_PROBE_SECONDS", 30, 0, 86400},
}};
static_assert(S3OptionBucketProbeSeconds + 1 == kOptions.size());

bool in_range(const OptionRange& range, int64_t value) {
    return value >= range.minimum && value <= range.maximum;
}

// The environment's value, or the default; a value that cannot be one is said once and left out.
int64_t initial_value(const OptionRange& range) {
    const char* text = std::getenv(range.variable);
    if (text == nullptr || *text == '\0') return range.initial;
    const std::string_view digits(text);
    int64_t value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error == std::errc() && end == digits.data() + digits.size() && in_range(range, value)) return value;
    std::fprintf(stderr, "%s: not a number from %lld to %lld, left out\n", range.variable,
                 static_cast<long long>(range.minimum), static_cast<long long>(range.maximum));
    return range.initial;
}

struct Process {
    std::array<std::atomic<int64_t>, kOptions.size()> options;
    std::mutex mutex;
    // Below: guarded by mutex.
    std::shared_ptr<ConnectionPool> pool;
    std::string user_agent = kDefaultUserAgent;
    std::string host = S3_DEFAULT_HOSTNAME;
    std::map<std::string, bool, std::less<>> verify_by_host;

    Process() {
        for (size_t i = 0; i < kOptions.size(); ++i)
            options[i] = initial_value(kOptions[i]);
    }
};

// Never destroyed: threads may still run requests while the process exits.
Process& process() {
    static Process& instance = *new Process;
    return instance;
}

std::optional<std::string>& thread_host() {
    thread_local std::optional<std::string> host;
    return host;
}

// A peer that closes its connection must not kill the process; a program that wants the signal keeps it.
void ignore_sigpipe_if_default() {
    struct sigaction present{};
    if (sigaction(SIGPIPE, nullptr, &present) != 0) return;
    if ((present.sa_flags & SA_SIGINFO) != 0 || present.sa_handler != SIG_DFL) return;
    struct sigaction ignore{};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, nullptr);
}

S3Status initialize(const char* user_agent, int flags, const char* default_host) {
    const std::string host =
        default_host != nullptr && *default_host != '\0' ? default_host : S3_DEFAULT_HOSTNAME;
    if (host.size() > S3_MAX_HOSTNAME_SIZE) return S3StatusUriTooLong;
    const std::string bare = host_without_port(host);
    Process& p = process();
    const std::lock_guard lock(p.mutex);
    if (p.pool == nullptr) {
        p.pool = ConnectionPool::create();
        if (p.pool == nullptr) return S3StatusInternalError;
        ignore_sigpipe_if_default();
    }
    p.user_agent = user_agent != nullptr && *user_agent != '\0' ? user_agent : kDefaultUserAgent;
    // Never weakened: a session without TLS has no say in the checks of one with TLS on the same host.
    bool& verify = p.verify_by_host[bare];
    verify = verify || (flags & S3_INIT_VERIFY_PEER) != 0;
    p.host = host;
    return S3StatusOK;
}

}  // namespace

int64_t option(S3Option which) {
    return process().options[static_cast<size_t>(which)].load(std::memory_order_relaxed);
}

LibraryState library_state(std::string_view host) {
    const std::string bare = host_without_port(host);
    Process& p = process();
    const std::lock_guard lock(p.mutex);
    const auto found = p.verify_by_host.find(bare);
    return {p.pool, p.user_agent, found == p.verify_by_host.end() || found->second};
}

std::string default_host() {
    if (thread_host()) return *thread_host();
    Process& p = process();
    const std::lock_guard lock(p.mutex);
    return p.host;
}

std::string host_without_port(std::string_view host) {
    const size_t bracket = host.rfind(']');
    const size_t colon = host.rfind(':');
    if (colon != std::string_view::npos && (bracket == std::string_view::npos || colon > bracket))
        host = host.substr(0, colon);
    return to_lower(host);
}

}  // namespace s3

extern "C" S3Status S3_initialize(const char* userAgentInfo, int flags, const char* defaultS3HostName) {
    try {
        return s3::initialize(userAgentInfo, flags, defaultS3HostName);
    } catch (const std::bad_alloc&) {
        return S3StatusOutOfMemory;
    } catch (...) {
        return S3StatusInternalError;
    }
}

extern "C" void S3_deinitialize(void) {
    s3::Process& p = s3::process();
    std::shared_ptr<s3::ConnectionPool> pool;
    {
        const std::lock_guard lock(p.mutex);
        pool = std::move(p.pool);
        p.pool = nullptr;
        p.verify_by_host.clear();
    }
    // Outside the lock: closing a TLS connection talks to the network.
    if (pool != nullptr) pool->retire();
}

extern "C" S3Status S3_set_option(S3Option option, int64_t value) {
    const auto index = static_cast<size_t>(option);
    if (index >= s3::kOptions.size()) return S3StatusErrorInvalidArgument;
    if (!s3::in_range(s3::kOptions[index], value)) return S3StatusErrorInvalidArgument;
    s3::process().options[index].store(value, std::memory_order_relaxed);
    return S3StatusOK;
}

extern "C" S3Status S3_set_thread_default_host(const char* hostName) {
    try {
        if (hostName == nullptr || *hostName == '\0') {
            s3::thread_host().reset();
            return S3StatusOK;
        }
        std::string host = hostName;
        if (host.size() > S3_MAX_HOSTNAME_SIZE) return S3StatusUriTooLong;
        s3::thread_host() = std::move(host);
        return S3StatusOK;
    } catch (...) {
        return S3StatusOutOfMemory;
    }
}
