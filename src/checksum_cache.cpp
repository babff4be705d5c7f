/*
 * MD5 contexts and the process-wide cache of objects' MD5 sums.
 *
 * An entry matches only an object with the same ETag and size, so it need not be dropped when the object
 * changes. Threads: a context is used by one thread at a time; one mutex guards the cache, around each add
 * and each find. Ownership: the table owns its entries and their strings until it is destroyed.
 */
#include "md5_pair.h"
#include "s3_request.h"

#include <cstdio>
#include <cstring>
#include <mutex>

namespace {
constexpr const char* source_file = "checksum_cache";
constexpr int bucket_count = 1024;

struct checksum_entry_t {
    char* path;
    char* md5sum;
    char* etag;
    uint64_t size;
};

std::mutex cache_mutex;
zorvan_hashtable_t l_checksum_cache = nullptr;

void _checksum_entry_free(void* datum) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    auto* const entry = static_cast<checksum_entry_t*>(datum);
    if (!entry) return;
    std::free(entry->path);
    std::free(entry->md5sum);
    std::free(entry->etag);
    std::free(entry);
}

zorvan_i_s3_text_t path_of(const char* bucket, const char* key) noexcept {
    return zorvan_i_s3_text_t(zorvan_common_create_string("%s/%s", bucket, key ? key : ""));
}
}  // namespace

zorvan_result_t zorvan_i_s3_checksum_init(zorvan_i_s3_checksum_t** checksum) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    *checksum = static_cast<zorvan_i_s3_checksum_t*>(std::calloc(1, sizeof(zorvan_i_s3_checksum_t)));
    const bool ready = *checksum && MD5_Init(&(*checksum)->md5) == 1;
    return trace.exit_result(ready ? ZORVAN_SUCCESS : zorvan_i_s3_malloc_error());
}

zorvan_result_t zorvan_i_s3_checksum_update(zorvan_i_s3_checksum_t* checksum, const void* bytes,
                                            size_t length) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const bool updated = MD5_Update(&checksum->md5, bytes, length) == 1;
    checksum->nbytes += length;
    return trace.exit_result(
        updated ? ZORVAN_SUCCESS : ZORVAN_S3_GENERIC_ERROR(source_file, __func__, "checksum update error"));
}

zorvan_result_t zorvan_i_s3_checksum_update_both(zorvan_i_s3_checksum_t* first,
                                                 zorvan_i_s3_checksum_t* second, const void* bytes,
                                                 size_t length) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const bool updated = zorvan_i_s3_md5_update_both(&first->md5, &second->md5, bytes, length) == 1;
    first->nbytes += length;
    second->nbytes += length;
    return trace.exit_result(
        updated ? ZORVAN_SUCCESS : ZORVAN_S3_GENERIC_ERROR(source_file, __func__, "checksum update error"));
}

zorvan_result_t zorvan_i_s3_checksum_finalize(zorvan_i_s3_checksum_t* checksum) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    unsigned char digest[MD5_DIGEST_LENGTH];
    if (MD5_Final(digest, &checksum->md5) != 1) {
        return trace.exit_result(
            ZORVAN_S3_GENERIC_ERROR(source_file, __func__, "Can not finalize checksum."));
    }
    char* digits = checksum->md5sum;
    for (const unsigned char byte : digest) {
        std::snprintf(digits, 3, "%.2x", byte);
        digits += 2;
    }
    return trace.exit_result(ZORVAN_SUCCESS);
}

void zorvan_i_s3_checksum_free(zorvan_i_s3_checksum_t** checksum) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    std::free(*checksum);
    *checksum = nullptr;
}

int zorvan_i_s3_checksum_cache_init() noexcept {
    const std::lock_guard lock(cache_mutex);
    return zorvan_hashtable_init(&l_checksum_cache, bucket_count, zorvan_hashtable_string_hash,
                                 zorvan_hashtable_string_keyeq);
}

void zorvan_i_s3_checksum_cache_destroy() noexcept {
    const std::lock_guard lock(cache_mutex);
    if (l_checksum_cache) zorvan_hashtable_destroy_all(&l_checksum_cache, _checksum_entry_free);
    l_checksum_cache = nullptr;
}

void zorvan_i_s3_checksum_add(const char* bucket, const char* key, const char* etag, uint64_t size,
                              const char* md5sum) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    zorvan_i_s3_text_t path = path_of(bucket, key);
    if (!path) return;
    if (!etag || !*etag || !*md5sum) {
        zorvan_gfs_log_message(ZORVAN_GFS_LOG_WARNING,
                               "Can not cache invalid checksum:  path: '%s', checksum: '%s', etag: '%s'\n",
                               path.get(), md5sum, zorvan_i_s3_printable(etag));
        return;
    }
    zorvan_i_s3_text_t sum_copy(zorvan_libc_strdup(md5sum));
    zorvan_i_s3_text_t etag_copy(zorvan_libc_strdup(etag));

    const std::lock_guard lock(cache_mutex);
    if (!l_checksum_cache) return;
    auto* entry = static_cast<checksum_entry_t*>(zorvan_hashtable_remove(&l_checksum_cache, path.get()));
    if (!entry) entry = static_cast<checksum_entry_t*>(std::calloc(1, sizeof(checksum_entry_t)));
    if (!entry) return;
    std::free(entry->path);
    std::free(entry->md5sum);
    std::free(entry->etag);
    *entry = {
        .path = path.release(), .md5sum = sum_copy.release(), .etag = etag_copy.release(), .size = size};
    /* Without its texts an entry could never match; then the path is simply unknown. */
    if (!entry->md5sum || !entry->etag || zorvan_hashtable_insert(&l_checksum_cache, entry->path, entry) != 0)
        _checksum_entry_free(entry);
}

bool zorvan_i_s3_checksum_find(const char* bucket, const char* key, const char* etag, uint64_t content_length,
                               char (&md5sum)[zorvan_i_s3_md5sum_size]) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const zorvan_i_s3_text_t path = path_of(bucket, key);
    const std::lock_guard lock(cache_mutex);
    const auto* const entry =
        path && l_checksum_cache
            ? static_cast<const checksum_entry_t*>(zorvan_hashtable_lookup(&l_checksum_cache, path.get()))
            : nullptr;
    const bool found = entry && entry->size == content_length && etag && std::strcmp(entry->etag, etag) == 0;
    if (found) std::snprintf(md5sum, sizeof md5sum, "%s", entry->md5sum);
    trace.exit(found ? 1 : 0);
    return found;
}

bool zorvan_i_s3_md5sum_scan(const char* text, char (&md5sum)[zorvan_i_s3_md5sum_size]) noexcept {
    md5sum[0] = '\0';
    const bool complete = std::sscanf(text, "%32[a-fA-F0-9]", md5sum) == 1 &&
                          std::strlen(md5sum) == zorvan_i_s3_md5sum_size - 1;
    if (!complete) md5sum[0] = '\0';
    return complete;
}

bool zorvan_i_s3_etag_may_be_md5(const S3ResponseProperties& properties) noexcept {
    constexpr size_t quoted_length = zorvan_i_s3_md5sum_size + 1;
    constexpr char etag_is_no_md5 = 2;
    return properties.eTag && std::strlen(properties.eTag) == quoted_length &&
           properties.usesServerSideEncryption != etag_is_no_md5;
}

bool zorvan_i_s3_metadata_has_checksum(const S3ResponseProperties* properties,
                                       char (&md5sum)[zorvan_i_s3_md5sum_size]) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    md5sum[0] = '\0';
    const bool found = properties && zorvan_i_s3_etag_may_be_md5(*properties) && properties->eTag[0] == '"' &&
                       zorvan_i_s3_md5sum_scan(properties->eTag + 1, md5sum);
    trace.exit(found ? 1 : 0);
    return found;
}
