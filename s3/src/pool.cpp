// Idle connections, kept for the next request to the same place. Handles are always closed outside the lock:
// the end of a TLS connection may write to the network.
#include "pool.h"

#include <algorithm>
#include <new>

#include "options.h"

namespace s3 {

std::shared_ptr<ConnectionPool> ConnectionPool::create() {
    std::shared_ptr<ConnectionPool> pool(new ConnectionPool);
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) return nullptr;
    pool->curl_ready_ = true;
    pool->share_ = curl_share_init();
    if (pool->share_ == nullptr) return nullptr;
    curl_share_setopt(pool->share_, CURLSHOPT_LOCKFUNC, &ConnectionPool::lock_share);
    curl_share_setopt(pool->share_, CURLSHOPT_UNLOCKFUNC, &ConnectionPool::unlock_share);
    curl_share_setopt(pool->share_, CURLSHOPT_USERDATA, pool.get());
    curl_share_setopt(pool->share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    curl_share_setopt(pool->share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    return pool;
}

ConnectionPool::~ConnectionPool() {
    idle_.clear();
    if (share_ != nullptr) curl_share_cleanup(share_);
    if (curl_ready_) curl_global_cleanup();
}

void ConnectionPool::lock_share(CURL*, curl_lock_data data, curl_lock_access, void* pool) {
    static_cast<ConnectionPool*>(pool)->share_locks_[data].lock();
}

void ConnectionPool::unlock_share(CURL*, curl_lock_data data, void* pool) {
    static_cast<ConnectionPool*>(pool)->share_locks_[data].unlock();
}

CurlHandle ConnectionPool::take(const std::string& key) {
    const auto oldest_allowed =
        std::chrono::steady_clock::now() - std::chrono::seconds(option(S3OptionIdleConnectionSeconds));
    std::vector<Idle> expired;
    CurlHandle handle;
    {
        const std::lock_guard lock(mutex_);
        const auto first_young = std::find_if(idle_.begin(), idle_.end(),
                                              [&](const Idle& idle) { return idle.since > oldest_allowed; });
        if (first_young != idle_.begin()) {
            expired.assign(std::make_move_iterator(idle_.begin()), std::make_move_iterator(first_young));
            idle_.erase(idle_.begin(), first_young);
        }
        for (auto it = idle_.end(); it != idle_.begin();) {
            --it;
            if (it->key == key) {
                handle = std::move(it->handle);
                idle_.erase(it);
                break;
            }
        }
    }
    if (handle == nullptr) {
        handle.reset(curl_easy_init());
        if (handle == nullptr) throw std::bad_alloc();
    }
    curl_easy_setopt(handle.get(), CURLOPT_SHARE, share_);
    return handle;
}

void ConnectionPool::give_back(const std::string& key, CurlHandle handle) noexcept {
    const auto limit = static_cast<size_t>(option(S3OptionMaxIdleConnections));
    CurlHandle surplus;
    try {
        const std::lock_guard lock(mutex_);
        if (retired_ || limit == 0) {
            surplus = std::move(handle);
        } else {
            idle_.push_back({key, std::move(handle), std::chrono::steady_clock::now()});
            if (idle_.size() > limit) {
                surplus = std::move(idle_.front().handle);
                idle_.erase(idle_.begin());
            }
        }
    } catch (...) {
        // No memory for the list: the handle is closed by its owner here.
    }
}

void ConnectionPool::retire() noexcept {
    std::vector<Idle> closing;
    {
        const std::lock_guard lock(mutex_);
        retired_ = true;
        closing.swap(idle_);
    }
    closing.clear();
}

size_t ConnectionPool::idle_count() {
    const std::lock_guard lock(mutex_);
    return idle_.size();
}

}  // namespace s3
