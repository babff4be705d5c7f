// The store's errors: S3's error codes with their HTTP statuses, and the one
// exception that carries them from wherever a rule is broken to the router,
// which turns it into the reply. Stateless; any thread.
#pragma once

#include <exception>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zorvan::devstore {

/// What is known about one S3 error code.
struct error_entry {
    std::string_view code;
    unsigned status;
    std::string_view message;
};

/// The entry of a code (S3 API, "Error responses"); an unknown code gives InternalError's.
const error_entry& error_for(std::string_view code);

/// A refusal of the current request.
class s3_failure : public std::exception {
  public:
    using elements = std::vector<std::pair<std::string, std::string>>;

    /// `code` must be one of the table; `details` become further elements of the error document and
    /// `headers` further headers of the reply.
    explicit s3_failure(std::string_view code, elements details = {}, elements headers = {});

    [[nodiscard]] const error_entry& entry() const { return *entry_; }
    [[nodiscard]] const elements& details() const { return details_; }
    [[nodiscard]] const elements& headers() const { return headers_; }
    [[nodiscard]] const char* what() const noexcept override { return entry_->code.data(); }

  private:
    const error_entry* entry_;
    elements details_;
    elements headers_;
};

/// The peer went away, or a scripted fault cut the connection: there is nobody to answer.
class connection_lost : public std::exception {
  public:
    [[nodiscard]] const char* what() const noexcept override { return "connection lost"; }
};

}  // namespace zorvan::devstore
