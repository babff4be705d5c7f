/*
 * What the sources of the storage back end share: records, settings, the trace log, the request core.
 *
 * Flow: the host calls an interface-table entry; the entry makes a state record and a worker thread; the
 * worker makes blocking S3 requests under one retry rule and ends the operation with the host's finished
 * call. Threads: settings, MIME table and region table are fixed after activation; a state record belongs to
 * its worker unless its own comment says otherwise. Ownership: char* members are malloc'd and freed with
 * their record unless marked borrowed.
 */
#ifndef ZORVAN_S3_H
#define ZORVAN_S3_H

#include <libs3.h>
#include <zorvan_common.h>
#include <zorvan_gridftp_server.h>

/* The MD5_* calls keep their state inside the record; the newer interface allocates it. */
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/md5.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "s3_error.h"
#include "s3_trace.h"

/* ------------------------------------------------------------------- settings */

/* Written by activation alone; defaults as initialised in config_parse.cpp. Strings live until the process
 * ends. */
extern char* zorvan_i_s3_default_hostname;
extern char* zorvan_i_s3_default_region;
extern char* zorvan_i_s3_mime_type_file;
extern bool zorvan_i_s3_https;
extern bool zorvan_i_s3_use_virtual_host;
extern bool zorvan_i_s3_verify_peer;
extern int zorvan_i_s3_max_retries;
extern int zorvan_i_s3_retry_delay_ms;  /* milliseconds */
extern long long zorvan_i_s3_part_size; /* bytes; 0 = unset */
extern int zorvan_i_s3_restore_days;
extern char* zorvan_i_s3_restore_tier;
extern char* zorvan_i_s3_rg_admin_bucket;
extern char* zorvan_i_s3_rg_admin_access_key_id;
extern char* zorvan_i_s3_rg_admin_secret_access_key;

/* -------------------------------------------------------------------- modules */

/** The only symbol that the shared object exports. */
extern "C" ZORVAN_API const zorvan_module_descriptor_t zorvan_gridftp_server_ceph_module;
/** Debug log, MIME table, checksum cache; the origin of every S3 error object. */
extern const zorvan_module_descriptor_t zorvan_i_s3_base_module;

/* -------------------------------------------------------------- configuration */

enum zorvan_i_s3_config_type_t : uint32_t {
    ZORVAN_S3_CONFIG_STRING = 0,
    ZORVAN_S3_CONFIG_BOOL = 1,
    ZORVAN_S3_CONFIG_INT = 2,
    ZORVAN_S3_CONFIG_LONG_LONG = 3,
};

/** One key of the configuration file and where its value goes; a null name ends a table. */
struct zorvan_i_s3_config_key_t {
    zorvan_i_s3_config_type_t value_type = ZORVAN_S3_CONFIG_STRING;
    const char* name = nullptr;
    char** string_value = nullptr;
    bool* bool_value = nullptr;
    int* int_value = nullptr;
    long long* long_long_value = nullptr;
    bool required = false;
};

/**
 * Find the configuration file (the host's option string, else the default path) and read it into the
 * settings. Called once, during activation. @return a generic or system error that names file, line and key
 */
zorvan_result_t zorvan_i_s3_config_parse() noexcept;

/**
 * Read a collection's storage policy. All outputs are owned by the caller (free; the list is a
 * null-terminated array of malloc'd strings, or null when every bucket is allowed); on failure all are null.
 */
zorvan_result_t zorvan_i_s3_config_parse_json(const char* json, char** endpoint, char*** allowed_buckets,
                                              char** admin_access_key_id,
                                              char** admin_secret_access_key) noexcept;

/* -------------------------------------------------------------------- sessions */

/** One pair of S3 credentials. */
struct zorvan_i_s3_credentials_t {
    char* access_key_id;
    char* secret_access_key;
};

/** Credentials for the keys under a prefix, of one bucket or of all. Malloc'd, as are its strings. */
struct zorvan_i_s3_key_pair_t : zorvan_i_s3_credentials_t {
    char* prefix;
    char* bucket;
    int32_t prefix_length; /**< characters of `prefix` that are compared */
    bool bucket_specific;  /**< false: serves every bucket */
};

struct zorvan_i_s3_handle_t;

/** Renews a session's credentials before they are used. */
using zorvan_i_s3_refresh_t = zorvan_result_t (*)(zorvan_i_s3_handle_t* s3_handle);

/** A session. Made with `new` (zero-filled) by session start, destroyed by zorvan_i_s3_destroy. */
struct zorvan_i_s3_handle_t {
    int32_t first_field;
    S3Protocol protocol;
    S3UriStyle uri_style;
    char* host_name;
    char* access_key_id;
    char* secret_access_key;
    char* security_token;
    const char* region;     /**< borrowed, or null */
    char** allowed_buckets; /**< null-terminated; null = all */
    long put_option;
    char context_option;
    bool suppress_restart_markers;
    zorvan_i_s3_refresh_t refresh_credentials;
    std::atomic<zorvan_gridftp_server_operation_t> current_op; /**< the operation started last; no lock */
    bool restricted_endpoint;
    char* extra_string_1;
    char* extra_string_2;
    zorvan_list_t* key_pairs;                   /**< of zorvan_i_s3_key_pair_t */
    zorvan_i_s3_credentials_t default_key_pair; /**< borrows access_key_id and secret_access_key */
};

/* ------------------------------------------------------ interface table entries */

/** Session start: looks the user's keys up in the gateway. Ends with finished_session_start. */
void zorvan_i_ceph_start(zorvan_gridftp_server_operation_t op,
                         const zorvan_gridftp_server_session_info_t* session_info) noexcept;
/** Session destroy: frees a zorvan_i_s3_handle_t; null is ignored. */
void zorvan_i_s3_destroy(void* session_handle) noexcept;
/** Download. Ends with finished_transfer, or with finished_command when it fails before its worker runs. */
void zorvan_i_s3_send(zorvan_gridftp_server_operation_t op,
                      const zorvan_gridftp_server_transfer_info_t* transfer_info,
                      void* session_handle) noexcept;
/** Upload. Ends with finished_transfer (twice, with one result, when its set-up fails). */
void zorvan_i_s3_recv(zorvan_gridftp_server_operation_t op,
                      const zorvan_gridftp_server_transfer_info_t* transfer_info,
                      void* session_handle) noexcept;
/** Namespace commands. Ends with finished_command. */
void zorvan_i_s3_command(zorvan_gridftp_server_operation_t op,
                         const zorvan_gridftp_server_command_info_t* cmd_info, void* session_handle) noexcept;
/** Stat and listing. Ends with finished_stat, after finished_stat_partial for every 32 entries. */
void zorvan_i_s3_stat(zorvan_gridftp_server_operation_t op,
                      const zorvan_gridftp_server_stat_info_t* stat_info, void* session_handle) noexcept;

/* ------------------------------------------------------------------ upload paths */

/** The size of an upload that is not known when it begins. */
constexpr uint64_t zorvan_i_s3_unknown_size = ~uint64_t{0};

/** One PUT for the whole upload. @return a set-up failure, with which the transfer is already finished */
zorvan_result_t zorvan_i_s3_recv_single(zorvan_gridftp_server_operation_t op,
                                        const zorvan_gridftp_server_transfer_info_t* transfer_info,
                                        zorvan_i_s3_handle_t* s3_handle) noexcept;
/**
 * A multipart upload, fresh or resumed.
 * @param total_size  bytes of the finished object, or zorvan_i_s3_unknown_size
 * @param part_size   bytes
 * @return a set-up failure, with which the transfer is already finished
 */
zorvan_result_t zorvan_i_s3_recv_multipart(zorvan_gridftp_server_operation_t op,
                                           const zorvan_gridftp_server_transfer_info_t* transfer_info,
                                           uint64_t total_size, uint64_t part_size, bool resume,
                                           zorvan_i_s3_handle_t* s3_handle) noexcept;

/* ---------------------------------------------------------- buckets and regions */

/**
 * Whether a session with this allowed list may use the bucket.
 * @param result  optional; receives success or the refusal (550 PERMISSION_DENIED), owned by the caller
 */
bool zorvan_i_s3_bucket_allowed(const char* bucket, char* const* allowed_buckets,
                                zorvan_result_t* result) noexcept;

/** Choose the credentials for a key (may be null) of a bucket. @return 0; `pair` borrows from the session */
int zorvan_i_s3_get_key_pair(zorvan_i_s3_handle_t* s3_handle, const char* bucket, const char* key,
                             const zorvan_i_s3_credentials_t** pair) noexcept;

/**
 * Say where and how requests on a bucket go. May block on a probe of the bucket's region. The context borrows
 * from its arguments, the session and the region table.
 * @return the bucket's refusal, or the failure of the session's credential hook
 */
zorvan_result_t zorvan_i_s3_bucket_context(zorvan_i_s3_handle_t* s3_handle, const char* key,
                                           const char* bucket, S3BucketContext* bucket_context) noexcept;

/** The context of a session's own endpoint, without permission check and region. Borrows like the above. */
S3BucketContext zorvan_i_s3_session_context(const zorvan_i_s3_handle_t& s3_handle, const char* bucket,
                                            const zorvan_i_s3_credentials_t& pair) noexcept;

/** The region code of an Amazon endpoint host, null for any other host. Static text. */
const char* zorvan_i_host_to_region(const char* host_name) noexcept;

/** State of the region probe. */
struct zorvan_i_s3_region_probe_t {
    S3Status status;
    zorvan_result_t result;
    const char* name; /**< the bucket, borrowed, for error texts */
    char* region;     /**< 64 bytes, borrowed; empty when none was reported */
};

/** The probe's handlers; `callback_data` is a zorvan_i_s3_region_probe_t. */
S3Status responsePropertiesCallback(const S3ResponseProperties* properties, void* callback_data) noexcept;
void responseCompleteCallback(S3Status status, const S3ErrorDetails* error_details,
                              void* callback_data) noexcept;

/* ------------------------------------------------------------------ buffer pool */

/** A transfer buffer: one allocation, the data area directly behind this header. */
struct zorvan_i_s3_buffer_t {
    uint64_t capacity;    /**< bytes in the data area */
    uint64_t buffer_used; /**< bytes of it that are valid */
    int64_t offset;       /**< file offset of the data, -1 = none */
    zorvan_i_s3_buffer_t* next;

    unsigned char* data() noexcept { return reinterpret_cast<unsigned char*>(this + 1); }
};
static_assert(sizeof(zorvan_i_s3_buffer_t) == 32);

/** The buffers of one transfer; guarded by the transfer's mutex. */
struct zorvan_i_s3_buffer_pool_t {
    zorvan_i_s3_buffer_t* current = nullptr;
    zorvan_i_s3_buffer_t* free_list = nullptr;
    zorvan_gridftp_server_operation_t op = nullptr;
};

/** The buffer being filled; a free or a new one (of at least the host's block size) becomes it when there is
 * none. @return null when memory is exhausted */
zorvan_i_s3_buffer_t* zorvan_i_s3_buffer_get(zorvan_i_s3_buffer_pool_t* pool,
                                             uint64_t requested_size) noexcept;
/** Empty a buffer and put it in front of the free list. */
void zorvan_i_s3_buffer_release(zorvan_i_s3_buffer_pool_t* pool, zorvan_i_s3_buffer_t* s3_buffer) noexcept;
/** Free the buffers of a list; `*list` becomes null. */
void zorvan_i_s3_buffer_free_list(zorvan_i_s3_buffer_t** list) noexcept;

/* -------------------------------------------------------------------- checksums */

/** Characters of an MD5 in hexadecimal, with the terminator. */
constexpr size_t zorvan_i_s3_md5sum_size = 33;
/** Characters of a Content-MD5 value, with the terminator. */
constexpr size_t zorvan_i_s3_md5sum_encoded_size = 25;

/** An MD5 in the making. Used by one thread at a time. */
struct zorvan_i_s3_checksum_t {
    MD5_CTX md5;
    char md5sum[zorvan_i_s3_md5sum_size]; /**< lower-case digits; empty until finalised */
    uint64_t nbytes;                      /**< bytes fed, also by failed updates */
};

/** Make a context; `*checksum` is stored in every case and freed with zorvan_i_s3_checksum_free. */
zorvan_result_t zorvan_i_s3_checksum_init(zorvan_i_s3_checksum_t** checksum) noexcept;
zorvan_result_t zorvan_i_s3_checksum_update(zorvan_i_s3_checksum_t* checksum, const void* bytes,
                                            size_t length) noexcept;
/** Feed the same bytes to two contexts, for little more than the time of one. */
zorvan_result_t zorvan_i_s3_checksum_update_both(zorvan_i_s3_checksum_t* first,
                                                 zorvan_i_s3_checksum_t* second, const void* bytes,
                                                 size_t length) noexcept;
zorvan_result_t zorvan_i_s3_checksum_finalize(zorvan_i_s3_checksum_t* checksum) noexcept;
void zorvan_i_s3_checksum_free(zorvan_i_s3_checksum_t** checksum) noexcept;

/** Make or destroy the process-wide cache (activation, deactivation). @return 0 or -1 */
int zorvan_i_s3_checksum_cache_init() noexcept;
void zorvan_i_s3_checksum_cache_destroy() noexcept;
/** Remember an object's MD5; replaces what was known of that path. Any thread. */
void zorvan_i_s3_checksum_add(const char* bucket, const char* key, const char* etag, uint64_t size,
                              const char* md5sum) noexcept;
/** Look an object's MD5 up. Any thread. @return whether an entry has this ETag and size */
bool zorvan_i_s3_checksum_find(const char* bucket, const char* key, const char* etag, uint64_t content_length,
                               char (&md5sum)[zorvan_i_s3_md5sum_size]) noexcept;
/** Whether a reply's ETag is the object's MD5; then the 32 digits are copied as found, else `md5sum` is
 * empty. */
bool zorvan_i_s3_metadata_has_checksum(const S3ResponseProperties* properties,
                                       char (&md5sum)[zorvan_i_s3_md5sum_size]) noexcept;

/** Whether a reply's ETag has the form and the protection of an MD5. Its digits are not looked at. */
bool zorvan_i_s3_etag_may_be_md5(const S3ResponseProperties& properties) noexcept;
/** Copy what "%32[a-fA-F0-9]" takes of a text when that are 32 digits, else empty `md5sum`. */
bool zorvan_i_s3_md5sum_scan(const char* text, char (&md5sum)[zorvan_i_s3_md5sum_size]) noexcept;

/** Turn 32 hexadecimal digits into the base64 text of Content-MD5 (RFC 1864).
 *  @param encoded  at least 25 characters */
zorvan_result_t zorvan_i_s3_md5sum_encode(const char* md5sum, char* encoded) noexcept;

/* -------------------------------------------------------------------- MIME types */

/** Make or destroy the table (activation, deactivation). @return 0 or -1 */
int zorvan_i_s3_mime_types_init() noexcept;
void zorvan_i_s3_mime_types_destroy() noexcept;
/** Fill the table from a mime.types file. @return 0, or -1 (the table is gone then) */
int zorvan_i_s3_mime_types_parse(const char* path) noexcept;
/** The type of an extension, compared as it stands; null when unknown. Borrowed from the table. */
const char* zorvan_i_s3_mime_type_of_extension(const char* extension) noexcept;
/** The type of a key by the text after its last "."; null when there is none. `key` may be null. */
const char* zorvan_i_s3_mime_type_of_key(const char* key) noexcept;

/* ------------------------------------------------------------------------- paths */

/** Bucket and key of a path; both point into the text that was split. */
struct zorvan_i_s3_path_t {
    const char* bucket;
    const char* key; /**< null when no "/" follows the bucket */
};

/** Split a path in place: one leading "/" is skipped, the next one ends the bucket. */
zorvan_i_s3_path_t zorvan_i_s3_path_split(char* path) noexcept;

/** Texts for log lines: null is printed as "(null)". */
inline const char* zorvan_i_s3_printable(const char* text) noexcept {
    return text ? text : "(null)";
}

#endif
