// Blobs in memory: a table of blocks, null for a block of zeros, so that a
// large empty object costs a pointer per MiB. The socket writes straight into
// the blocks. Immutable once finished, hence readable from any thread.
#include <algorithm>
#include <array>

#include "content.h"

namespace zorvan::devstore {
namespace {

constexpr std::array<char, block_size> zeros{};

class memory_blob final : public blob {
  public:
    std::uint64_t size() const override { return size_; }

    std::string_view read(std::uint64_t offset, std::span<char>) const override {
        const auto index = static_cast<std::size_t>(offset / block_size);
        const auto inside = static_cast<std::size_t>(offset % block_size);
        const auto length = static_cast<std::size_t>(
            std::min<std::uint64_t>(block_size, size_ - index * std::uint64_t{block_size}));
        const char* data = blocks_[index] ? blocks_[index].get() : zeros.data();
        return {data + inside, length - inside};
    }

    std::uint64_t size_ = 0;
    std::vector<std::unique_ptr<char[]>> blocks_;
};

class memory_writer final : public blob_writer {
  public:
    explicit memory_writer(std::optional<std::uint64_t> expected)
        : blob_(std::make_shared<memory_blob>()), expected_(expected) {}

    std::span<char> prepare() override {
        if (!block_) {
            capacity_ = block_size;
            if (expected_ && *expected_ > blob_->size_)
                capacity_ =
                    static_cast<std::size_t>(std::min<std::uint64_t>(block_size, *expected_ - blob_->size_));
            block_ = std::make_unique_for_overwrite<char[]>(capacity_);
            used_ = 0;
        } else if (used_ == capacity_) {
            // Only a body longer than announced comes here: give the block its full size.
            auto larger = std::make_unique_for_overwrite<char[]>(block_size);
            std::copy_n(block_.get(), used_, larger.get());
            block_ = std::move(larger);
            capacity_ = block_size;
        }
        return {block_.get() + used_, capacity_ - used_};
    }

    void commit(std::size_t count) override {
        used_ += count;
        blob_->size_ += count;
        if (used_ == block_size) store_block();
    }

    blob_ptr finish() override {
        if (block_ && used_ > 0) store_block();
        return std::move(blob_);
    }

  private:
    void store_block() {
        if (all_zero({block_.get(), used_})) {
            blob_->blocks_.emplace_back();
            used_ = 0;
            if (capacity_ != block_size) block_.reset();
            return;
        }
        if (used_ < capacity_) {
            auto exact = std::make_unique_for_overwrite<char[]>(used_);
            std::copy_n(block_.get(), used_, exact.get());
            block_ = std::move(exact);
        }
        blob_->blocks_.push_back(std::move(block_));
        used_ = 0;
    }

    std::shared_ptr<memory_blob> blob_;
    std::optional<std::uint64_t> expected_;
    std::unique_ptr<char[]> block_;
    std::size_t capacity_ = 0;
    std::size_t used_ = 0;
};

class memory_store final : public blob_store {
  public:
    std::unique_ptr<blob_writer> create(std::optional<std::uint64_t> expected) override {
        return std::make_unique<memory_writer>(expected);
    }

    blob_ptr create_zero(std::uint64_t size) override {
        auto out = std::make_shared<memory_blob>();
        out->size_ = size;
        out->blocks_.resize(static_cast<std::size_t>((size + block_size - 1) / block_size));
        return out;
    }
};

}  // namespace

std::unique_ptr<blob_store> make_memory_blob_store() {
    return std::make_unique<memory_store>();
}

}  // namespace zorvan::devstore
