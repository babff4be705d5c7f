// The body of a request: a text of the library's own, or bytes from a caller's put-data callback. Bodies of
// up to the size of the private buffer are kept whole, so they can be sent again. One object per request,
// used on the request's thread.
#pragma once

#include <libs3.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace s3 {

inline constexpr uint64_t kUploadBufferSize = 1024 * 1024;
/// From this length on the store is asked first (Expect: 100-continue).
inline constexpr uint64_t kExpectThreshold = 1024 * 1024;

class UploadBody {
  public:
    /// No body at all, or one that the library wrote.
    explicit UploadBody(std::string text = {});
    /// When a caller's bytes are read.
    enum class Reading {
        kAsSent,   ///< short bodies ahead, long ones when the store wants them
        kAllAhead  ///< whole before anything is sent, whatever the length
    };
    /// length bytes from callback; null is allowed for length 0.
    UploadBody(S3PutObjectDataCallback* callback, void* callback_data, uint64_t length,
               Reading reading = Reading::kAsSent);

    uint64_t length() const { return length_; }
    bool wants_expect() const { return !all_ahead_ && length_ >= kExpectThreshold; }

    /// Reads a body whole that is not announced with Expect. Returns S3StatusOK or why that failed.
    S3Status read_ahead();

    /// Puts the next bytes at out; returns how many, or -1 (see failure()). Asks for at most what is left.
    long read(char* out, size_t capacity);

    /// Begins again from the first byte; false when the bytes are gone.
    bool rewind();
    /// Whether rewind() would succeed.
    bool can_rewind() const { return kept_whole_ || sent_ == 0; }

    /// Why read() failed.
    S3Status failure() const { return failure_; }
    /// Whether any byte came from the caller's callback.
    bool took_caller_bytes() const { return taken_ > 0 && callback_ != nullptr; }
    /// The whole body, once it was read ahead.
    std::string_view text() const { return buffer_; }

  private:
    S3Status fill_whole();
    long read_through(char* out, size_t capacity);
    long ask_callback(char* out, uint64_t capacity);

    S3PutObjectDataCallback* callback_ = nullptr;
    void* callback_data_ = nullptr;
    uint64_t length_ = 0;
    uint64_t taken_ = 0;  // bytes that came from the callback
    uint64_t sent_ = 0;   // bytes given to the connection since the last rewind
    bool all_ahead_ = false;
    bool kept_whole_ = false;
    bool filled_ = false;
    size_t buffered_from_ = 0;  // first byte of buffer_ not yet sent (large bodies)
    std::string buffer_;
    S3Status failure_ = S3StatusOK;
};

}  // namespace s3
