// Buckets and what is in them; see bucket_index.h.
#include "bucket_index.h"

#include <mutex>

#include "journal.h"

namespace zorvan::devstore {

object_ptr bucket::find(std::string_view key) const {
    const auto at = objects_.find(key);
    return at == objects_.end() ? nullptr : at->second;
}

const upload_record* bucket::find_upload(const std::string& key, const std::string& id) const {
    const auto at = uploads_.find({key, id});
    return at == uploads_.end() ? nullptr : &at->second;
}

const completed_upload* bucket::find_completed(const std::string& key, const std::string& id) const {
    const auto at = completed_.find(id);
    return at == completed_.end() || at->second.key != key ? nullptr : &at->second;
}

object_ptr bucket::store(const std::string& key, object_ptr object) {
    if (log) log->save_object(name, key, *object);
    auto& slot = objects_[key];
    slot.swap(object);
    return object;
}

object_ptr bucket::erase(const std::string& key) {
    const auto at = objects_.find(key);
    if (at == objects_.end()) return nullptr;
    if (log) log->remove_object(name, key);
    auto old = std::move(at->second);
    objects_.erase(at);
    return old;
}

void bucket::begin_upload(upload_record upload) {
    if (log) log->save_upload(name, upload);
    auto id = std::make_pair(upload.key, upload.id);
    uploads_.insert_or_assign(std::move(id), std::move(upload));
}

content bucket::store_part(const std::string& key, const std::string& id, unsigned number, part_record part) {
    auto& upload = uploads_.at({key, id});
    auto& slot = upload.parts[number];
    std::swap(slot, part);
    if (log) log->save_upload(name, upload);
    return std::move(part.body);
}

upload_record bucket::end_upload(const std::string& key, const std::string& id) {
    auto node = uploads_.extract(std::make_pair(key, id));
    if (log) log->remove_upload(name, id);
    return std::move(node.mapped());
}

void bucket::remember_completed(const std::string& id, completed_upload what) {
    completed_.insert_or_assign(id, std::move(what));
}

const bucket& bucket_index::require(std::string_view name, std::string_view uid) const {
    const auto at = buckets_.find(name);
    if (at == buckets_.end()) throw s3_failure("NoSuchBucket");
    if (at->second.owner != uid) throw s3_failure("AccessDenied");
    return at->second;
}

bucket& bucket_index::restore_bucket(const std::string& name, const std::string& owner,
                                     const std::string& region, std::int64_t created) {
    auto& entry = buckets_[name];
    entry.name = name;
    entry.owner = owner;
    entry.region = region;
    entry.created = created;
    return entry;
}

void bucket_index::create(const std::string& name, const std::string& uid, const std::string& region,
                          std::int64_t now) {
    const std::unique_lock lock(mutex_);
    const auto at = buckets_.find(name);
    if (at != buckets_.end()) {
        if (at->second.owner != uid) throw s3_failure("BucketAlreadyExists");
        return;
    }
    auto& entry = restore_bucket(name, uid, region, now);
    entry.log = log_;
    if (log_) log_->save_bucket(entry);
}

void bucket_index::remove(const std::string& name, const std::string& uid) {
    const std::unique_lock lock(mutex_);
    const auto& entry = require(name, uid);
    if (!entry.objects().empty()) throw s3_failure("BucketNotEmpty");
    if (log_) {
        for (const auto& [id, upload] : entry.uploads())
            log_->remove_upload(name, upload.id);
        log_->remove_bucket(name);
    }
    buckets_.erase(name);
}

std::vector<std::pair<std::string, std::int64_t>> bucket_index::owned_by(std::string_view uid) const {
    const std::shared_lock lock(mutex_);
    std::vector<std::pair<std::string, std::int64_t>> out;
    for (const auto& [name, entry] : buckets_)
        if (entry.owner == uid) out.emplace_back(name, entry.created);
    return out;
}

std::optional<std::string> bucket_index::region_of(std::string_view name) const {
    const std::shared_lock lock(mutex_);
    const auto at = buckets_.find(name);
    if (at == buckets_.end()) return std::nullopt;
    return at->second.region;
}

void bucket_index::attach(journal& log) {
    const std::unique_lock lock(mutex_);
    log.load(*this);
    log_ = &log;
    for (auto& [name, entry] : buckets_)
        entry.log = &log;
}

}  // namespace zorvan::devstore
