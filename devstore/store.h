// Everything one running store consists of, handed by reference to whoever
// serves a request. Lives from start to end of the process; each member is
// thread-safe on its own.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bucket_index.h"
#include "content.h"
#include "faults.h"
#include "request_log.h"
#include "users.h"

namespace zorvan::devstore {

/// How the store behaves; fixed after start.
struct settings {
    bool aws = false;  ///< like Amazon S3 where it and the RADOS Gateway differ
    std::string region =
        "us-east-1";       ///< of buckets made without a location constraint, in the AWS-like mode
    std::string dns_name;  ///< suffix of virtual-host style addresses; empty: path style only
    std::string admin_entry = "admin";  ///< first path element(s) of the user administration
    std::uint64_t min_part_size = 5U << 20U;
    std::uint64_t max_put_size = std::uint64_t{5} << 30U;
    bool complete_etag = false;  ///< CompleteMultipartUpload names the ETag on first completion
    std::optional<std::uint64_t>
        restore_seconds;  ///< a restore takes this long; nothing: restore is not implemented
    std::vector<std::string> storage_classes;
    std::chrono::seconds idle_timeout{65};
    int socket_buffer = 0;  ///< bytes; 0 leaves the kernel's automatic sizes
};

/// The store's two clocks, which tests may set forward or back.
class store_clock {
  public:
    /// Milliseconds since the epoch: modification times and restores.
    [[nodiscard]] std::int64_t now() const { return system_milliseconds() + offset_seconds * 1000; }
    /// Seconds since the epoch: against what a request's date is judged.
    [[nodiscard]] std::int64_t request_time() const {
        return system_milliseconds() / 1000 + request_offset_seconds;
    }

    std::atomic<std::int64_t> offset_seconds{0};
    std::atomic<std::int64_t> request_offset_seconds{0};

  private:
    static std::int64_t system_milliseconds() {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
            .count();
    }
};

/// The running store.
struct store {
    settings config;
    user_registry users;
    bucket_index index;
    blob_store* blobs = nullptr;  ///< never null once started; owned by main
    store_clock clock;
    fault_plan faults;
    request_log log;
    std::atomic<std::uint64_t> request_counter{0};
};

}  // namespace zorvan::devstore
