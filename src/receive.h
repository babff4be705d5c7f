/*
 * The receive core: what a single and a multipart upload share.
 *
 * Flow: reads are registered with the host up to its concurrency; their completions put the data into a queue
 * ordered by offset; the S3 client's data handlers take it out in order. Threads: the worker holds the mutex
 * for its whole life except inside condition waits, so completions (on the host's threads) are applied while
 * it waits. Ownership: the worker frees the state after the host has called every read back.
 */
#ifndef ZORVAN_S3_RECEIVE_H
#define ZORVAN_S3_RECEIVE_H

#include "buffer_queue.h"
#include "s3_request.h"

#include <condition_variable>
#include <mutex>

/** Where the two kinds of upload differ. Constant data. */
struct zorvan_i_s3_receive_rules_t {
    const char* source_file;
    /** Its argument is the state, as a zorvan_i_s3_receive_t*. */
    void* (*worker)(void* transfer_state);
    /** The debug line of a read completion; one of them lacks its newline. */
    const char* read_line_end;
    /** Name of the functions in trace lines. */
    const char* register_function;
    const char* read_function;
    zorvan_gridftp_server_read_callback_t read_callback;
    /** Whether a registration tells its result in the trace. */
    bool registration_has_result;
    /** Whether a read that completes after a failure still counts as bytes received. */
    bool counts_bytes_after_failure;
    /** Whether a failed read's own result becomes the transfer's. */
    bool keeps_read_results;
};

/** An upload has at most so many parts (a limit of S3 stores). */
constexpr int64_t zorvan_i_s3_maximum_part_count = 10'000;
/** Bytes that an object may have when it is written in parts of a configured size (bytes, above 0). */
constexpr int64_t zorvan_i_s3_maximum_object_size(int64_t part_size) noexcept {
    constexpr int64_t limit = 0x50000000000; /* 5 TiB */
    return part_size > limit / zorvan_i_s3_maximum_part_count ? limit
                                                              : part_size * zorvan_i_s3_maximum_part_count;
}

/** State of one upload; the worker's kind of upload derives its own. */
struct zorvan_i_s3_receive_t : zorvan_i_s3_request_state_t {
    const zorvan_i_s3_receive_rules_t* rules = nullptr;
    zorvan_i_s3_handle_t* s3_handle = nullptr;
    const zorvan_gridftp_server_transfer_info_t* transfer_info = nullptr;
    uint64_t size_limit = 0;     /**< size of the file; no byte may be received at or behind this offset */
    uint64_t current_offset = 0; /**< of the next byte that a body needs */
    bool eof = false;            /**< the client's data has ended, or the transfer has failed */
    zorvan_i_s3_registered_list_t registered;
    zorvan_i_s3_buffer_queue_t pending;
    zorvan_i_s3_buffer_pool_t pool;
    S3BucketContext bucket_context{};
    const char* bucket = nullptr;
    const char* key = nullptr; /**< null for a bucket path */
    std::mutex mutex;
    std::condition_variable condition;
    std::string path; /**< split in place */

    zorvan_i_s3_receive_t() = default;
    zorvan_i_s3_receive_t(const zorvan_i_s3_receive_t&) = delete;
    zorvan_i_s3_receive_t& operator=(const zorvan_i_s3_receive_t&) = delete;
    virtual ~zorvan_i_s3_receive_t();

    /** Wait for a signal; the calling thread holds the mutex. */
    void wait() noexcept;
    /** Keep an error unless there is one; a later one is released. The transfer's data ends here. */
    void fail(zorvan_result_t error) noexcept;
};

/**
 * The set-up of an upload: fill the state (records, path, bucket context) and start its worker.
 * @param trace           of the interface function, whose result this is
 * @param transfer_state  null when there was no memory for it; the worker's after success
 * @return a failure, with which the transfer is finished already
 */
zorvan_result_t zorvan_i_s3_receive_start(zorvan_i_s3_trace_t& trace,
                                          std::unique_ptr<zorvan_i_s3_receive_t> transfer_state,
                                          const zorvan_i_s3_receive_rules_t* rules,
                                          zorvan_gridftp_server_operation_t op,
                                          const zorvan_gridftp_server_transfer_info_t* transfer_info,
                                          zorvan_i_s3_handle_t* s3_handle) noexcept;

/** Top up the outstanding reads. The mutex is held. @return the failure of a registration or of memory */
zorvan_result_t zorvan_i_s3_receive_register_reads(zorvan_i_s3_receive_t* transfer_state) noexcept;

/** Top up the outstanding reads; a failure with no read outstanding fails the transfer, any other is dropped:
 * the outstanding reads carry on. The mutex is held. */
void zorvan_i_s3_receive_keep_reading(zorvan_i_s3_receive_t* transfer_state) noexcept;

/** The end of a read; called without the mutex. */
void zorvan_i_s3_receive_read_completed(zorvan_i_s3_receive_t* transfer_state, zorvan_result_t result,
                                        unsigned char* buffer, size_t nbytes, zorvan_off_t offset,
                                        int eof) noexcept;

/**
 * The work of a put-data handler: wait for bytes at the current offset and take them. The mutex is held.
 * @param room  take at most so many bytes, however large the buffer is
 * @return how many, 0 at the end of the data, -1 when the transfer has failed
 */
int zorvan_i_s3_receive_data(const zorvan_i_s3_trace_t& trace, zorvan_i_s3_receive_t* transfer_state,
                             int buffer_size, char* buffer, uint64_t room) noexcept;

/** Wait until no read is outstanding. The mutex is held. */
void zorvan_i_s3_receive_wait_for_reads(zorvan_i_s3_receive_t* transfer_state) noexcept;

/** Hand the outcome to the host. The mutex is held; the result is the host's from here on. */
void zorvan_i_s3_receive_finish(const zorvan_i_s3_trace_t& trace,
                                zorvan_i_s3_receive_t* transfer_state) noexcept;

/** The properties handler of the single upload's request. */
S3Status zorvan_i_s3_receive_properties(const char* function, zorvan_i_s3_receive_t* transfer_state) noexcept;
/** The completion handler of an upload's requests. @param tells_result  whether the result so far is logged
 */
void zorvan_i_s3_receive_complete(const char* function, const char* source_file, S3Status status,
                                  const S3ErrorDetails* error_details, zorvan_i_s3_receive_t* transfer_state,
                                  bool tells_result = false) noexcept;

#endif
