/*
 * What the sources of the multipart upload share: its state, and the requests of its resume step.
 *
 * Flow: recv_multipart.cpp holds the worker; recv_multipart_resolve_id.cpp finds the upload in progress that
 * it continues or aborts, recv_multipart_list_parts.cpp the parts that a resumed upload keeps. Threads and
 * ownership: see receive.h; all functions here run on the worker, which holds the state's mutex.
 */
#ifndef ZORVAN_S3_RECV_MULTIPART_H
#define ZORVAN_S3_RECV_MULTIPART_H

#include "receive.h"

#include <span>

/** One part; its number is its place in the table, from 1. */
struct zorvan_i_s3_part_t {
    char etag[35];   /**< as the store gave it, with its quotes; empty = not stored */
    uint64_t offset; /**< in the file */
    uint64_t length; /**< bytes */
};

/** State of a multipart upload. `size_limit` is the size of the object to be. */
struct zorvan_i_s3_multipart_t : zorvan_i_s3_receive_t {
    zorvan_i_s3_text_t etag; /**< of the finished object */
    bool md5_checking = false;
    zorvan_i_s3_checksum_t* file_md5 = nullptr;
    zorvan_i_s3_checksum_t* part_md5 = nullptr;
    bool resume = false;
    uint64_t part_count = 0;
    uint64_t part_size = 0; /**< bytes, above 0 */
    zorvan_i_s3_text_t upload_id;
    std::unique_ptr<zorvan_i_s3_part_t[], zorvan_i_s3_free_t> part_table;
    zorvan_i_s3_text_t next_part_number_marker;
    size_t first_missing = 0; /**< no record before this one lacks its ETag while parts are sent */
    /* Progress of the commit body. */
    bool commit_opened = false;
    bool commit_closed = false;

    zorvan_i_s3_multipart_t() = default;
    ~zorvan_i_s3_multipart_t() override;

    std::span<zorvan_i_s3_part_t> parts() noexcept { return {part_table.get(), part_count}; }
};

/** The state behind a worker's argument or a handler's data; null stays null. */
inline zorvan_i_s3_multipart_t* zorvan_i_s3_multipart_of(void* argument) noexcept {
    return static_cast<zorvan_i_s3_multipart_t*>(static_cast<zorvan_i_s3_receive_t*>(argument));
}
/** What the worker and the handlers get as their argument. */
inline void* zorvan_i_s3_handler_data(zorvan_i_s3_multipart_t* transfer_state) noexcept {
    return static_cast<zorvan_i_s3_receive_t*>(transfer_state);
}

/**
 * Find the upload in progress of the transfer's key. Of several the latest is taken and the others are
 * aborted.
 * @param missing  whether the listings went well and there is none
 * @return success, and the state holds its id; the 553 MULTI_PART_UPLOAD_NOT_FOUND when there is none; or the
 *         failure of a listing
 */
zorvan_result_t zorvan_i_s3_recv_multipart_resolve_id(zorvan_i_s3_multipart_t* transfer_state,
                                                      bool* missing) noexcept;

/**
 * Read which parts the upload to be resumed has, and keep those before the current offset: their records have
 * an ETag afterwards, the others none.
 * @return a failed listing, or a 553 MULTI_PART_UPLOAD_NOT_FOUND that says what does not fit
 */
zorvan_result_t zorvan_i_s3_recv_multipart_list_parts(zorvan_i_s3_multipart_t* transfer_state) noexcept;

/**
 * Abort an upload, with one request.
 * @param what  what the log calls its id
 * @return the request's failure, which is the caller's
 */
zorvan_result_t zorvan_i_s3_recv_multipart_abort(const zorvan_i_s3_trace_t& trace,
                                                 zorvan_i_s3_multipart_t* transfer_state, const char* what,
                                                 const char* upload_id) noexcept;

/** The 553 MULTI_PART_UPLOAD_NOT_FOUND that a generic error causes. */
zorvan_result_t zorvan_i_s3_upload_not_found(zorvan_error_t* cause) noexcept;

#endif
