/*
 * Which buckets a session may use, and with which credentials.
 *
 * Pure lookups in the session handle; any thread.
 */
#include "s3_request.h"

#include <cstring>

namespace {
constexpr const char* source_file = "bucket_allowed";

/** Whether a pair's prefix covers a key, compared with a "/" behind the key. */
bool prefix_matches(const zorvan_i_s3_key_pair_t& pair, std::string_view key) noexcept {
    for (int32_t i = 0; i < pair.prefix_length; ++i) {
        const auto at = static_cast<size_t>(i);
        /* The key as compared ends with "/" and a terminator, like the text that it stands for. */
        const char wanted = at < key.size() ? key[at] : at == key.size() ? '/' : '\0';
        if (pair.prefix[at] != wanted) return false;
        if (wanted == '\0') return true;
    }
    return true;
}
}  // namespace

bool zorvan_i_s3_bucket_allowed(const char* bucket, char* const* allowed_buckets,
                                zorvan_result_t* result) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    bool allowed = allowed_buckets == nullptr;
    for (char* const* entry = allowed_buckets; !allowed && *entry; ++entry)
        allowed = std::strcmp(*entry, bucket) == 0;
    if (result) {
        *result = ZORVAN_SUCCESS;
        if (!allowed) {
            zorvan_error_t* const cause =
                zorvan_error_construct_error(nullptr, nullptr, ZORVAN_ERROR_TYPE_GENERIC, source_file,
                                             __func__, __LINE__, "Zorvan-S3-Error: Bucket not allowed.");
            *result = zorvan_error_put(
                zorvan_gfs_ftp_response_error_construct(nullptr, cause, 550, "PERMISSION_DENIED", nullptr));
        }
    }
    trace.exit(allowed ? 1 : 0);
    return allowed;
}

int zorvan_i_s3_get_key_pair(zorvan_i_s3_handle_t* s3_handle, const char* bucket, const char* key,
                             const zorvan_i_s3_credentials_t** pair) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    for (const zorvan_list_t* cell = s3_handle->key_pairs; cell; cell = cell->next) {
        const auto& record = *static_cast<const zorvan_i_s3_key_pair_t*>(cell->data);
        ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "Checking keypair %s %s %d for bucket %s : %s\n",
                      zorvan_i_s3_printable(record.bucket), zorvan_i_s3_printable(record.prefix),
                      static_cast<int>(record.bucket_specific), bucket, zorvan_i_s3_printable(key));
        if (record.bucket_specific && std::strcmp(record.bucket, bucket) != 0) continue;
        if (!prefix_matches(record, key ? key : "")) continue;
        ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "Using the IAM key pair |%s| with prefix match %s\n",
                      zorvan_i_s3_printable(record.access_key_id), zorvan_i_s3_printable(record.prefix));
        *pair = &record;
        return trace.exit(0);
    }
    ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "Using the default IAM key pair %s\n",
                  zorvan_i_s3_printable(s3_handle->access_key_id));
    *pair = &s3_handle->default_key_pair;
    return trace.exit(0);
}
