// Keeps the index of a store in a directory: one small JSON file per bucket,
// object and upload, replaced atomically, beside the blob files they name.
// Called under the index's lock. After a restart load() brings everything back
// and removes blobs that nothing names.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "bucket_index.h"

namespace zorvan::devstore {

/// Defined in blob_directory.h.
class directory_blob_store;

/// The index on disk. All members throw std::system_error when the disk refuses.
class journal {
  public:
    /// Uses `root` (made when missing).
    explicit journal(std::filesystem::path root);
    ~journal();
    journal(const journal&) = delete;
    journal& operator=(const journal&) = delete;

    /// The blobs beside the index.
    [[nodiscard]] blob_store& blobs();

    /// Fills `index` with what earlier runs left.
    void load(bucket_index& index);

    void save_bucket(const bucket& entry);
    void remove_bucket(const std::string& name);
    void save_object(const std::string& bucket, const std::string& key, const object_record& object);
    void remove_object(const std::string& bucket, const std::string& key);
    void save_upload(const std::string& bucket, const upload_record& upload);
    void remove_upload(const std::string& bucket, const std::string& id);

  private:
    std::filesystem::path root_;
    std::unique_ptr<directory_blob_store> blobs_;
};

}  // namespace zorvan::devstore
