/*
 * The stat request, shared by the sources of stat and listing.
 *
 * Flow: the dispatcher makes a request and a worker; the worker adds entries, which go to the host 32 at a
 * time, and ends the operation. Threads: a request belongs to its worker.
 */
#ifndef ZORVAN_S3_STAT_H
#define ZORVAN_S3_STAT_H

#include "s3_request.h"

#include <array>

/** What a stat shall do. */
enum class zorvan_i_s3_stat_case_t {
    root = 0,
    bucket = 1,
    object = 2,
    list_buckets = 3,
    list_allowed = 4,
    list_objects = 5,
};

constexpr size_t zorvan_i_s3_stat_batch_size = 32;
constexpr uint32_t zorvan_i_s3_stat_directory_mode = 0040700;
constexpr uint32_t zorvan_i_s3_stat_file_mode = 0100700;

/** One stat call. */
struct zorvan_i_s3_stat_request_t : zorvan_i_s3_request_state_t {
    zorvan_i_s3_handle_t* s3_handle = nullptr;
    S3BucketContext bucket_context{};
    const char* bucket = nullptr; /**< in `path` */
    const char* key = nullptr;    /**< in `path`; null for a bucket */
    bool found = false;           /**< the listing's "." is out */
    zorvan_i_s3_stat_case_t stat_case = zorvan_i_s3_stat_case_t::root;
    zorvan_hashtable_t bucket_names = nullptr; /**< names already listed, malloc'd */
    std::array<zorvan_gridftp_server_stat_t, zorvan_i_s3_stat_batch_size> stats{};
    size_t stat_count = 0;                                        /**< entries in the batch */
    const zorvan_gridftp_server_stat_info_t* stat_info = nullptr; /**< the host's */
    zorvan_i_s3_text_t next_marker;                               /**< where the next page begins */
    std::string directory_key;                                    /**< key and "/", empty without a key */
    std::string path;                                             /**< split in place */
};

/** The numbers that stand for a text in dev and ino. */
uint32_t zorvan_i_s3_stat_hash(const char* text) noexcept;

/** A directory's entry; unknown times. `name` is borrowed. */
zorvan_gridftp_server_stat_t zorvan_i_s3_stat_directory(const char* name, uint32_t dev,
                                                        uint32_t ino) noexcept;
/** A file's entry. */
zorvan_gridftp_server_stat_t zorvan_i_s3_stat_file(const char* name, uint64_t size, int64_t mtime,
                                                   uint32_t dev, uint32_t ino) noexcept;

/** Add a copy of an entry to the batch; a full batch goes to the host. Without memory for the name the
 * request fails with "malloc". */
void zorvan_i_s3_stat_add(zorvan_i_s3_stat_request_t* request,
                          const zorvan_gridftp_server_stat_t& stat) noexcept;

/** The work of the cases, on the worker; the outcome is the request's result and its entries. */
void zorvan_i_s3_stat_root(zorvan_i_s3_stat_request_t* request) noexcept;
void zorvan_i_s3_stat_bucket(zorvan_i_s3_stat_request_t* request) noexcept;
void zorvan_i_s3_stat_object(zorvan_i_s3_stat_request_t* request) noexcept;
void zorvan_i_s3_stat_list_objects(zorvan_i_s3_stat_request_t* request) noexcept;
void zorvan_i_s3_stat_list_buckets(zorvan_i_s3_stat_request_t* request) noexcept;
void zorvan_i_s3_stat_list_allowed(zorvan_i_s3_stat_request_t* request) noexcept;

#endif
