// What an object consists of: immutable blobs, and contents that string
// slices of blobs together. Copies and finished multipart uploads share blobs
// instead of moving bytes. Blobs are kept alive by shared ownership, so a
// download outlives a delete. All reads are thread-safe; a writer belongs to
// one coroutine.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zorvan::devstore {

/// Blocks of this size are the unit of sparseness: one that is all zero is not stored.
inline constexpr std::size_t block_size = 1U << 20U;

/// True when every byte is zero.
bool all_zero(std::string_view data);

/// Immutable bytes.
class blob {
  public:
    blob() = default;
    blob(const blob&) = delete;
    blob& operator=(const blob&) = delete;
    virtual ~blob() = default;

    [[nodiscard]] virtual std::uint64_t size() const = 0;
    /// A non-empty view of bytes from `offset` (< size) on, at most block_size of them. The view points
    /// either into the blob or into `scratch` (at least block_size long). Throws std::system_error on a read
    /// error.
    virtual std::string_view read(std::uint64_t offset, std::span<char> scratch) const = 0;
    /// A name under which the blob is found again after a restart; empty for blobs in memory.
    [[nodiscard]] virtual std::string name() const { return {}; }
};

using blob_ptr = std::shared_ptr<const blob>;

/// Takes the bytes of a new blob. Abandoning it without finish() leaves nothing behind.
class blob_writer {
  public:
    blob_writer() = default;
    blob_writer(const blob_writer&) = delete;
    blob_writer& operator=(const blob_writer&) = delete;
    virtual ~blob_writer() = default;

    /// Room for at least one byte, valid until commit().
    virtual std::span<char> prepare() = 0;
    /// Takes `count` bytes just written to the start of prepare()'s room.
    virtual void commit(std::size_t count) = 0;
    /// Ends the blob.
    virtual blob_ptr finish() = 0;
};

/// Where blobs live. Thread-safe.
class blob_store {
  public:
    blob_store() = default;
    blob_store(const blob_store&) = delete;
    blob_store& operator=(const blob_store&) = delete;
    virtual ~blob_store() = default;

    /// A writer; `expected` is a hint of the final size in bytes.
    virtual std::unique_ptr<blob_writer> create(std::optional<std::uint64_t> expected) = 0;
    /// A blob of `size` zero bytes that takes no space.
    virtual blob_ptr create_zero(std::uint64_t size) = 0;
};

/// Blobs in memory.
std::unique_ptr<blob_store> make_memory_blob_store();

/// A slice of a blob.
struct segment {
    blob_ptr source;
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
};

/// A sequence of slices, read as one run of bytes.
class content {
  public:
    content() = default;
    /// The whole of one blob.
    explicit content(blob_ptr whole);

    [[nodiscard]] std::uint64_t size() const { return size_; }
    [[nodiscard]] const std::vector<segment>& segments() const { return segments_; }
    /// Adds a slice at the end; empty ones are dropped.
    void append(segment piece);
    /// Adds all of another content.
    void append(const content& other);
    /// The bytes [offset, offset + length), which must lie inside.
    [[nodiscard]] content slice(std::uint64_t offset, std::uint64_t length) const;
    /// As blob::read, across all slices; `offset` must be below size().
    std::string_view read(std::uint64_t offset, std::span<char> scratch) const;

  private:
    std::vector<segment> segments_;
    std::vector<std::uint64_t> starts_;
    std::uint64_t size_ = 0;
};

}  // namespace zorvan::devstore
