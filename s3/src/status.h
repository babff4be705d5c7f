// Statuses: their names, what maps onto them, and which of them are worth another try. The one piece of state
// is per thread: how the thread's last request ended and whether it had taken a caller's bytes.
#pragma once

#include <libs3.h>

#include <optional>
#include <string_view>

namespace s3 {

/// The status named "Error" + code, for the codes that S3 documents; nothing for others.
std::optional<S3Status> status_from_error_code(std::string_view code);

/// The status for an HTTP status whose reply held no usable error document; 0 means no reply at all.
S3Status status_from_http(long http_status);

/// Whether the status itself is of the repeatable kind, whatever the thread did before.
bool is_retryable_kind(S3Status status);

/// Notes, for S3_status_is_retryable on this thread, how its latest request ended.
void note_request_end(S3Status status, bool took_body_bytes);
/// Forgets that note: a new request begins on this thread.
void note_request_begin();

}  // namespace s3
