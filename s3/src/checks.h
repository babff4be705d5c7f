// What is refused before anything is sent, and the headers that describe a new object.
#pragma once

#include <libs3.h>

#include <string_view>

#include "signature_v4.h"

namespace s3 {

/// Thrown where a request is refused locally; run_call() turns it into the request's status.
struct Refusal {
    S3Status status;
};

/// Refuses hosts that could not stand in a URL or a header.
void check_host(std::string_view host);

/// Bucket naming rules (S3 user guide, "Bucket naming rules"); in path style also "_", upper case and a
/// tenant's ":".
void check_bucket(std::string_view bucket, bool virtual_host);

/// Refuses a null or empty key (the request would address the bucket) and one that is too long.
void check_key(const char* key);

/// Only the length; for keys that may be absent.
void check_key_length(const char* key);

/// Appends the headers for properties (null adds none); refuses values that cannot stand in a header.
void append_put_headers(NameValues& headers, const S3PutProperties* properties);

/// Appends x-amz-acl unless private.
void append_acl(NameValues& headers, S3CannedAcl acl);

/// Appends one header if the value is neither null nor empty; a blank or unprintable one is refused with bad.
void append_checked(NameValues& headers, std::string_view name, const char* value, S3Status bad);

}  // namespace s3
