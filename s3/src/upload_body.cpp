// The body of a request. A large body goes from the caller's callback straight into the connection's buffer,
// one copy per byte; only when that buffer is oddly small does it pass through the private one, because
// callbacks may need room for a whole element of their own.
#include "upload_body.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace s3 {
namespace {

// Callbacks get at least this much room (or all that is left), and a piece goes out no smaller where
// possible.
constexpr uint64_t kSmallestRoom = 64 * 1024;

}  // namespace

UploadBody::UploadBody(std::string text)
    : length_(text.size()), kept_whole_(true), filled_(true), buffer_(std::move(text)) {}

UploadBody::UploadBody(S3PutObjectDataCallback* callback, void* callback_data, uint64_t length,
                       Reading reading)
    : callback_(callback),
      callback_data_(callback_data),
      length_(length),
      all_ahead_(reading == Reading::kAllAhead),
      kept_whole_(all_ahead_ || length <= kUploadBufferSize),
      filled_(length == 0) {}

S3Status UploadBody::read_ahead() {
    if (!kept_whole_ || wants_expect()) return S3StatusOK;
    return fill_whole();
}

S3Status UploadBody::fill_whole() {
    if (filled_) return S3StatusOK;
    if (failure_ != S3StatusOK) return failure_;
    buffer_.resize(static_cast<size_t>(length_));
    while (taken_ < length_) {
        const auto at = static_cast<size_t>(taken_);
        if (ask_callback(buffer_.data() + at, length_ - at) < 0) return failure_;
    }
    filled_ = true;
    return S3StatusOK;
}

long UploadBody::read(char* out, size_t capacity) {
    if (sent_ >= length_) return 0;
    if (!kept_whole_) return read_through(out, capacity);
    if (fill_whole() != S3StatusOK) return -1;
    const uint64_t size = std::min<uint64_t>(capacity, length_ - sent_);
    std::memcpy(out, buffer_.data() + sent_, static_cast<size_t>(size));
    sent_ += size;
    return static_cast<long>(size);
}

long UploadBody::read_through(char* out, size_t capacity) {
    if (failure_ != S3StatusOK) return -1;
    if (buffered_from_ < buffer_.size()) {
        const size_t size = std::min(capacity, buffer_.size() - buffered_from_);
        std::memcpy(out, buffer_.data() + buffered_from_, size);
        buffered_from_ += size;
        sent_ += size;
        return static_cast<long>(size);
    }
    const uint64_t left = length_ - taken_;
    if (capacity < std::min(left, kSmallestRoom)) {
        buffer_.resize(static_cast<size_t>(std::min(left, kUploadBufferSize)));
        const long size = ask_callback(buffer_.data(), buffer_.size());
        if (size < 0) return -1;
        buffer_.resize(static_cast<size_t>(size));
        buffered_from_ = 0;
        return read_through(out, capacity);
    }
    // Small pieces are gathered: each one sent alone would cost a system call and a packet.
    const uint64_t room = std::min<uint64_t>(left, capacity);
    uint64_t got = 0;
    do {
        const long size = ask_callback(out + got, room - got);
        if (size < 0) return -1;
        got += static_cast<uint64_t>(size);
    } while (got < room && room - got >= std::min(left - got, kSmallestRoom) && got < kSmallestRoom);
    sent_ += got;
    return static_cast<long>(got);
}

long UploadBody::ask_callback(char* out, uint64_t capacity) {
    const uint64_t room = std::min({capacity, length_ - taken_, kUploadBufferSize});
    const int size = callback_ == nullptr ? 0 : callback_(static_cast<int>(room), out, callback_data_);
    if (size == 0) {
        failure_ = S3StatusErrorIncompleteBody;
        return -1;
    }
    if (size < 0 || static_cast<uint64_t>(size) > room) {
        failure_ = S3StatusAbortedByCallback;
        return -1;
    }
    taken_ += static_cast<uint64_t>(size);
    return size;
}

bool UploadBody::rewind() {
    if (!can_rewind()) return false;
    sent_ = 0;
    return true;
}

}  // namespace s3
