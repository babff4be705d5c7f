// Blobs as sparse files of one directory. A file is removed with the last
// owner of its blob, unless the store is closing: then it is kept for the next
// run. Thread-safe.
#pragma once

#include <atomic>
#include <filesystem>
#include <memory>
#include <set>
#include <string>

#include "content.h"

namespace zorvan::devstore {

/// The files.
class directory_blob_store final : public blob_store {
  public:
    /// Uses `root` (made when missing). Throws std::system_error.
    explicit directory_blob_store(std::filesystem::path root);
    /// From here on no file is removed.
    ~directory_blob_store() override;

    std::unique_ptr<blob_writer> create(std::optional<std::uint64_t> expected) override;
    blob_ptr create_zero(std::uint64_t size) override;
    /// A blob of an earlier run; null when its file is gone.
    blob_ptr open(const std::string& name);
    /// Removes files that are not in `names`.
    void remove_others(const std::set<std::string>& names);

  private:
    std::string new_name();

    std::filesystem::path root_;
    std::shared_ptr<std::atomic<bool>> closing_ = std::make_shared<std::atomic<bool>>(false);
};

}  // namespace zorvan::devstore
