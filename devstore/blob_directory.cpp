// Sparse files: blocks that are all zero become holes. See blob_directory.h.
#include "blob_directory.h"

#include <fcntl.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "text.h"

namespace zorvan::devstore {
namespace {

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

class descriptor {
  public:
    explicit descriptor(int value) : value_(value) {}
    ~descriptor() {
        if (value_ >= 0) ::close(value_);
    }
    descriptor(const descriptor&) = delete;
    descriptor& operator=(const descriptor&) = delete;
    [[nodiscard]] int get() const { return value_; }

  private:
    int value_;
};

class file_blob final : public blob {
  public:
    file_blob(std::filesystem::path path, std::uint64_t size, std::shared_ptr<std::atomic<bool>> closing)
        : path_(std::move(path)),
          size_(size),
          closing_(std::move(closing)),
          file_(::open(path_.c_str(), O_RDONLY | O_CLOEXEC)) {
        if (file_.get() < 0) fail("open blob");
    }
    ~file_blob() override {
        if (!*closing_) ::unlink(path_.c_str());
    }
    file_blob(const file_blob&) = delete;
    file_blob& operator=(const file_blob&) = delete;

    std::uint64_t size() const override { return size_; }
    std::string name() const override { return path_.filename().string(); }

    std::string_view read(std::uint64_t offset, std::span<char> scratch) const override {
        const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(scratch.size(), size_ - offset));
        const auto n = ::pread(file_.get(), scratch.data(), wanted, static_cast<off_t>(offset));
        if (n < 0) fail("read blob");
        if (n == 0) throw std::system_error(EIO, std::generic_category(), "blob file is too short");
        return {scratch.data(), static_cast<std::size_t>(n)};
    }

  private:
    std::filesystem::path path_;
    std::uint64_t size_;
    std::shared_ptr<std::atomic<bool>> closing_;
    descriptor file_;
};

class file_writer final : public blob_writer {
  public:
    file_writer(std::filesystem::path path, std::size_t capacity, std::shared_ptr<std::atomic<bool>> closing)
        : path_(std::move(path)),
          closing_(std::move(closing)),
          file_(::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)),
          buffer_(capacity) {
        if (file_.get() < 0) fail("create blob");
    }
    ~file_writer() override {
        if (!finished_) ::unlink(path_.c_str());
    }
    file_writer(const file_writer&) = delete;
    file_writer& operator=(const file_writer&) = delete;

    std::span<char> prepare() override {
        if (used_ == buffer_.size()) flush();
        return std::span<char>(buffer_).subspan(used_);
    }
    void commit(std::size_t count) override { used_ += count; }

    blob_ptr finish() override {
        flush();
        if (::ftruncate(file_.get(), static_cast<off_t>(written_)) != 0) fail("set size of blob");
        auto out = std::make_shared<const file_blob>(path_, written_, closing_);
        finished_ = true;
        return out;
    }

  private:
    void flush() {
        const std::string_view data(buffer_.data(), used_);
        // A block of zeros stays a hole.
        if (!all_zero(data)) {
            for (std::size_t done = 0; done < used_;) {
                const auto n = ::pwrite(file_.get(), data.data() + done, used_ - done,
                                        static_cast<off_t>(written_ + done));
                if (n < 0) fail("write blob");
                done += static_cast<std::size_t>(n);
            }
        }
        written_ += used_;
        used_ = 0;
    }

    std::filesystem::path path_;
    std::shared_ptr<std::atomic<bool>> closing_;
    descriptor file_;
    std::vector<char> buffer_;
    std::size_t used_ = 0;
    std::uint64_t written_ = 0;
    bool finished_ = false;
};

}  // namespace

directory_blob_store::directory_blob_store(std::filesystem::path root) : root_(std::move(root)) {
    std::filesystem::create_directories(root_);
}

directory_blob_store::~directory_blob_store() {
    *closing_ = true;
}

std::string directory_blob_store::new_name() {
    std::array<unsigned char, 16> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1)
        throw std::runtime_error("no random bytes");
    return to_hex(bytes);
}

std::unique_ptr<blob_writer> directory_blob_store::create(std::optional<std::uint64_t> expected) {
    const auto capacity = static_cast<std::size_t>(
        std::clamp<std::uint64_t>(expected.value_or(block_size), 1, std::uint64_t{block_size}));
    return std::make_unique<file_writer>(root_ / new_name(), capacity, closing_);
}

blob_ptr directory_blob_store::create_zero(std::uint64_t size) {
    const auto path = root_ / new_name();
    {
        const descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (file.get() < 0) fail("create blob");
        if (::ftruncate(file.get(), static_cast<off_t>(size)) != 0) fail("set size of blob");
    }
    return std::make_shared<const file_blob>(path, size, closing_);
}

blob_ptr directory_blob_store::open(const std::string& name) {
    const auto path = root_ / name;
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    if (error) return nullptr;
    return std::make_shared<const file_blob>(path, size, closing_);
}

void directory_blob_store::remove_others(const std::set<std::string>& names) {
    std::vector<std::filesystem::path> unknown;
    for (const auto& entry : std::filesystem::directory_iterator(root_))
        if (!names.contains(entry.path().filename().string())) unknown.push_back(entry.path());
    for (const auto& path : unknown)
        std::filesystem::remove(path);
}

}  // namespace zorvan::devstore
