// What a failed request tells: the store's error document (XML or JSON), or words of the client's own.
#pragma once

#include <libs3.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace s3 {

struct ErrorInfo {
    std::optional<std::string> message, resource, further_details;
    /// Every other element but Code, in document order.
    std::vector<std::pair<std::string, std::string>> extra;

    bool empty() const { return !message && !resource && !further_details && extra.empty(); }
    /// The value of an extra detail, or null.
    const std::string* find_extra(std::string_view name) const;
};

/// What an error reply means.
struct ErrorReply {
    S3Status status = S3StatusInternalError;
    /// The document named a code, so the status is the store's word and not a guess from the HTTP status.
    bool has_code = false;
    ErrorInfo info;
};

/// Reads the body of a reply with the given HTTP status. Anything that is no error document (a proxy's page,
/// a cut document, nothing) falls back to the HTTP status.
ErrorReply read_error_body(std::string_view body, long http_status);

/// An error document inside a 2xx reply, or nothing.
std::optional<ErrorReply> error_inside_success(std::string_view body);

/// info in the form that callbacks get; info must outlive it.
class ErrorDetailsView {
  public:
    explicit ErrorDetailsView(const ErrorInfo& info);
    ErrorDetailsView(const ErrorDetailsView&) = delete;
    ErrorDetailsView& operator=(const ErrorDetailsView&) = delete;
    const S3ErrorDetails* get() const { return &details_; }

  private:
    std::vector<S3NameValue> extra_;
    S3ErrorDetails details_{};
};

}  // namespace s3
