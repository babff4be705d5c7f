// Idle connections, kept for the next request to the same place. A connection lives inside a curl easy
// handle; the pool hands out handles last-in-first-out per key (scheme, host, verification) and limits only
// the idle ones. Threads: all functions may be called from any thread; the pool's lock is held for list work
// only, never while a handle is used or closed.
#pragma once

#include <curl/curl.h>

#include <array>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace s3 {

struct CurlCloser {
    void operator()(CURL* handle) const noexcept { curl_easy_cleanup(handle); }
};
using CurlHandle = std::unique_ptr<CURL, CurlCloser>;

class ConnectionPool {
  public:
    /// A new pool with its own DNS and TLS session caches; null when curl cannot be made ready.
    static std::shared_ptr<ConnectionPool> create();
    ~ConnectionPool();
    ConnectionPool(const ConnectionPool&) = delete;
    ConnectionPool& operator=(const ConnectionPool&) = delete;

    /// A handle for key: the one used last and still young enough, else a new one. Options are at their
    /// defaults but for the shared caches. Throws std::bad_alloc.
    CurlHandle take(const std::string& key);

    /// Gives a handle back whose connection may be used again. Closes it instead when the pool is retired,
    /// and the oldest idle one when there are too many. Never throws.
    void give_back(const std::string& key, CurlHandle handle) noexcept;

    /// Closes what is idle; handles given back later are closed at once.
    void retire() noexcept;

    /// Number of idle handles.
    size_t idle_count();

  private:
    ConnectionPool() = default;
    static void lock_share(CURL* handle, curl_lock_data data, curl_lock_access access, void* pool);
    static void unlock_share(CURL* handle, curl_lock_data data, void* pool);

    struct Idle {
        std::string key;
        CurlHandle handle;
        std::chrono::steady_clock::time_point since;
    };

    std::mutex mutex_;
    std::vector<Idle> idle_;  // oldest first; guarded by mutex_
    bool retired_ = false;    // guarded by mutex_
    bool curl_ready_ = false;
    CURLSH* share_ = nullptr;
    std::array<std::mutex, CURL_LOCK_DATA_LAST> share_locks_;
};

/// One handle for the time of one exchange: goes back to the pool if keep() was called, is closed otherwise.
class ConnectionLease {
  public:
    ConnectionLease(std::shared_ptr<ConnectionPool> pool, std::string key)
        : pool_(std::move(pool)), key_(std::move(key)), handle_(pool_->take(key_)) {}
    ~ConnectionLease() {
        // The handle must not keep pointers into the exchange that ends here; its connection survives this.
        curl_easy_reset(handle_.get());
        if (keep_) pool_->give_back(key_, std::move(handle_));
    }
    ConnectionLease(const ConnectionLease&) = delete;
    ConnectionLease& operator=(const ConnectionLease&) = delete;

    CURL* get() const { return handle_.get(); }
    void keep() { keep_ = true; }

  private:
    std::shared_ptr<ConnectionPool> pool_;  // outlives handle_, which uses the pool's caches
    std::string key_;
    CurlHandle handle_;
    bool keep_ = false;
};

}  // namespace s3
