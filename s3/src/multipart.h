// What the multipart calls share.
#pragma once

#include <libs3.h>

#include "complete.h"

namespace s3 {

/// S3 user guide, "Multipart upload limits".
inline constexpr int kHighestPartNumber = 10000;
/// 32 hex digits and two quotes.
inline constexpr size_t kLongestPartEtag = 34;

/// A plan for an object's upload; refuses a missing key.
RequestPlan upload_plan(std::string_view method, const S3BucketContext& context, const char* key,
                        int timeout_ms);

/// Refuses a null or empty id: without it the request would mean the object.
void check_upload_id(const char* upload_id);

bool is_usable_part_etag(std::string_view etag);

}  // namespace s3
