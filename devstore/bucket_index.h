// The index of the store: buckets, their objects and their multipart uploads.
// One lock guards it; object records are immutable and shared, so a reader
// keeps what it found after the lock is gone. Changes go through the bucket's
// members, which also tell the journal when the store lives in a directory.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

#include "content.h"
#include "errors.h"
#include "http_message.h"

namespace zorvan::devstore {

class journal;

/// What a client says about an object when it stores it.
struct object_attributes {
    std::string content_type;          ///< empty: none was given
    std::vector<name_value> headers;   ///< Cache-Control and its kind, names in their usual spelling
    std::vector<name_value> metadata;  ///< without "x-amz-meta-", names in lower case
    std::string storage_class;         ///< empty: none was given
};

/// State of a restore from an archive class; times in milliseconds on the store's clock.
struct restore_state {
    std::int64_t ready_at = 0;
    std::int64_t expires_at = 0;
};

/// A stored object.
struct object_record {
    std::string etag;  ///< without quotes
    std::int64_t modified = 0;
    object_attributes attributes;
    content body;
    std::optional<restore_state> restore;
    std::string archive_status;  ///< of INTELLIGENT_TIERING: ARCHIVE_ACCESS, DEEP_ARCHIVE_ACCESS or empty
};

using object_ptr = std::shared_ptr<const object_record>;

/// An uploaded part.
struct part_record {
    std::string etag;  ///< hex MD5
    std::int64_t modified = 0;
    content body;
};

/// A multipart upload in progress.
struct upload_record {
    std::string key;
    std::string id;
    std::string owner;
    std::int64_t initiated = 0;
    object_attributes attributes;
    std::map<unsigned, part_record> parts;
};

/// What is remembered of a finished upload, for a commit that is repeated.
struct completed_upload {
    std::string key;
    std::string etag;
};

/// One bucket. Its members are to be called under the index's lock only.
class bucket {
  public:
    using object_map = std::map<std::string, object_ptr, std::less<>>;
    using upload_map = std::map<std::pair<std::string, std::string>, upload_record>;

    std::string name;
    std::string owner;
    std::string region;
    std::int64_t created = 0;

    [[nodiscard]] const object_map& objects() const { return objects_; }
    [[nodiscard]] const upload_map& uploads() const { return uploads_; }
    /// Null when there is none.
    [[nodiscard]] object_ptr find(std::string_view key) const;
    /// Null when there is none.
    [[nodiscard]] const upload_record* find_upload(const std::string& key, const std::string& id) const;
    [[nodiscard]] const completed_upload* find_completed(const std::string& key, const std::string& id) const;

    /// Stores an object and returns the one it replaced, for the caller to drop outside the lock.
    object_ptr store(const std::string& key, object_ptr object);
    /// Removes an object and returns it (null when there was none).
    object_ptr erase(const std::string& key);
    void begin_upload(upload_record upload);
    /// Stores a part; the upload must exist. Returns the content it replaced.
    content store_part(const std::string& key, const std::string& id, unsigned number, part_record part);
    /// Removes an upload and returns it.
    upload_record end_upload(const std::string& key, const std::string& id);
    void remember_completed(const std::string& id, completed_upload what);

    journal* log = nullptr;  ///< null for a store in memory

  private:
    object_map objects_;
    upload_map uploads_;
    std::map<std::string, completed_upload> completed_;
};

/// All buckets.
class bucket_index {
  public:
    /// Runs `f(const bucket&)` under the shared lock. Throws NoSuchBucket, or AccessDenied when `uid` does
    /// not own it.
    template <class F>
    auto read(std::string_view name, std::string_view uid, F&& f) const {
        const std::shared_lock lock(mutex_);
        return std::forward<F>(f)(require(name, uid));
    }

    /// Runs `f(bucket&)` under the exclusive lock; otherwise as read().
    template <class F>
    auto write(std::string_view name, std::string_view uid, F&& f) {
        const std::unique_lock lock(mutex_);
        return std::forward<F>(f)(const_cast<bucket&>(require(name, uid)));
    }

    /// Makes a bucket, or does nothing when `uid` owns it already. Throws BucketAlreadyExists when another
    /// does.
    void create(const std::string& name, const std::string& uid, const std::string& region, std::int64_t now);
    /// Removes an empty bucket. Throws NoSuchBucket, AccessDenied, BucketNotEmpty.
    void remove(const std::string& name, const std::string& uid);
    /// Name and creation time of a user's buckets, by name.
    [[nodiscard]] std::vector<std::pair<std::string, std::int64_t>> owned_by(std::string_view uid) const;
    /// The region of a bucket, whoever owns it; nothing when there is no such bucket.
    [[nodiscard]] std::optional<std::string> region_of(std::string_view name) const;

    /// Writes every later change to `log` as well, and takes over what it found at start.
    void attach(journal& log);
    /// For the journal while it loads: a bucket without any check.
    bucket& restore_bucket(const std::string& name, const std::string& owner, const std::string& region,
                           std::int64_t created);

  private:
    const bucket& require(std::string_view name, std::string_view uid) const;

    mutable std::shared_mutex mutex_;
    std::map<std::string, bucket, std::less<>> buckets_;
    journal* log_ = nullptr;
};

}  // namespace zorvan::devstore
