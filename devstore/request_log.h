// The requests a store has seen, for tests to look at through the control
// port. Bounded: the oldest entries go first. Thread-safe.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "http_message.h"

namespace zorvan::devstore {

/// One request. `status` 0: no reply was begun.
struct logged_request {
    std::uint64_t id = 0;
    std::uint64_t connection = 0;
    std::string method;
    std::string path;
    std::string query;
    std::vector<name_value> headers;
    unsigned status = 0;
    std::uint64_t bytes_in = 0;   ///< body bytes read
    std::uint64_t bytes_out = 0;  ///< body bytes sent
    bool sent_continue = false;
    std::string outcome = "running";  ///< running, done, cut (by the store), lost (by the peer)
};

/// The log.
class request_log {
  public:
    /// Notes the head of a request; returns the entry's id.
    std::uint64_t begin(std::uint64_t connection, const http_request& request);
    /// Replaces what is known of the exchange's course; ignored for an entry that is gone.
    void update(const logged_request& state);
    void clear();
    /// {"requests":[{...}, ...]} in order of arrival.
    [[nodiscard]] std::string json() const;

    /// Counts a request on a bucket itself, HEAD excepted. Kept for good: a request that was meant for an
    /// object and came without its key looks like one of these, and tests tell so at their end.
    void count_on_bucket(const std::string& bucket, const http_request& request);
    /// {"requests":[{method, bucket, parameters, agent, count}, ...]}, sorted.
    [[nodiscard]] std::string on_buckets_json() const;

  private:
    struct bucket_request {
        std::string method, bucket, agent;
        std::set<std::string> parameters;
        auto operator<=>(const bucket_request&) const = default;
    };
    static constexpr std::size_t limit = 20000;
    mutable std::mutex mutex_;
    std::deque<logged_request> entries_;
    std::uint64_t next_ = 1;
    std::map<bucket_request, std::uint64_t> on_buckets_;
};

}  // namespace zorvan::devstore
