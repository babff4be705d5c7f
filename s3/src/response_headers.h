// The headers of a reply: collected line by line while they arrive, then shown to the caller as
// S3ResponseProperties. One object per exchange, used on one thread.
#pragma once

#include <libs3.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace s3 {

/// "bytes 5-10/11" or "bytes */11"; absent parts are nothing.
struct ContentRange {
    std::optional<uint64_t> first;
    std::optional<uint64_t> last;
    std::optional<uint64_t> total;
};

struct ResponseHeaders {
    /// HTTP status of the final reply so far; 0 before any.
    long http_status = 0;
    /// The empty line after them was seen.
    bool complete = false;
    /// The body marks its own end (RFC 9112, 7.1).
    bool chunked = false;
    std::optional<std::string> request_id, request_id2, content_type, server, etag, bucket_region, location;
    std::optional<std::string> storage_class, archive_status;
    std::optional<uint64_t> content_length;
    std::optional<ContentRange> content_range;
    int64_t last_modified = -1;
    std::vector<std::pair<std::string, std::string>> metadata;
    char encryption = 0;
    int restore_status = 0;
    int64_t restore_expiry = 0;

    /// Takes one line, with or without its line end; a status line begins a new reply and forgets the old
    /// one.
    void add_line(std::string_view line);
};

/// A view of headers in the form that callbacks get; headers must outlive it.
class PropertiesView {
  public:
    explicit PropertiesView(const ResponseHeaders& headers);
    PropertiesView(const PropertiesView&) = delete;
    PropertiesView& operator=(const PropertiesView&) = delete;
    const S3ResponseProperties* get() const { return &properties_; }

  private:
    std::string storage_class_;
    std::vector<S3NameValue> metadata_;
    S3ResponseProperties properties_{};
};

}  // namespace s3
