/*
 * What the namespace commands share.
 *
 * Flow: the command entry calls a command's handler on the host's thread; the handler logs, checks, makes a
 * state record and a worker; the worker makes the requests, reports to the host and frees the record.
 * Threads: a record belongs to its handler, then to its worker.
 */
#ifndef ZORVAN_S3_COMMAND_H
#define ZORVAN_S3_COMMAND_H

#include "s3_request.h"

#include <array>
#include <cerrno>
#include <cstdio>

/** The handlers, one per command; each ends the operation, at once or through its worker. */
void zorvan_i_s3_mkdir(zorvan_gridftp_server_operation_t op,
                       const zorvan_gridftp_server_command_info_t* cmd_info,
                       zorvan_i_s3_handle_t* s3_handle) noexcept;
void zorvan_i_s3_rmdir(zorvan_gridftp_server_operation_t op,
                       const zorvan_gridftp_server_command_info_t* cmd_info,
                       zorvan_i_s3_handle_t* s3_handle) noexcept;
void zorvan_i_s3_delete(zorvan_gridftp_server_operation_t op,
                        const zorvan_gridftp_server_command_info_t* cmd_info,
                        zorvan_i_s3_handle_t* s3_handle) noexcept;
void zorvan_i_s3_rename(zorvan_gridftp_server_operation_t op,
                        const zorvan_gridftp_server_command_info_t* cmd_info,
                        zorvan_i_s3_handle_t* s3_handle) noexcept;
void zorvan_i_s3_checksum(zorvan_gridftp_server_operation_t op,
                          const zorvan_gridftp_server_command_info_t* cmd_info,
                          zorvan_i_s3_handle_t* s3_handle) noexcept;
void zorvan_i_s3_stage(zorvan_gridftp_server_operation_t op,
                       const zorvan_gridftp_server_command_info_t* cmd_info,
                       zorvan_i_s3_handle_t* s3_handle) noexcept;

/** A path copy that was split in place. */
struct zorvan_i_s3_split_path_t {
    std::string text; /**< as a C text it ends at the bucket */
    const char* bucket = nullptr;
    const char* key = nullptr; /**< null when the path has none */

    zorvan_i_s3_split_path_t() = default;
    zorvan_i_s3_split_path_t(const zorvan_i_s3_split_path_t&) = delete;
    zorvan_i_s3_split_path_t& operator=(const zorvan_i_s3_split_path_t&) = delete;

    /** Copy and split a path. @param as_directory  append "/" to a key
     *  Throws std::bad_alloc. */
    void assign(const char* pathname, bool as_directory);
};

/** State of a command on one path. */
struct zorvan_i_s3_command_state_t : zorvan_i_s3_request_state_t {
    zorvan_i_s3_handle_t* s3_handle = nullptr;
    S3BucketContext bucket_context{};
    zorvan_i_s3_split_path_t path;
};

/** A record for a command, null when memory is exhausted. */
template <class State>
std::unique_ptr<State> zorvan_i_s3_make_command(zorvan_gridftp_server_operation_t op, const char* pathname,
                                                bool as_directory, zorvan_i_s3_handle_t* s3_handle) noexcept {
    try {
        auto state = std::make_unique<State>();
        state->op = op;
        state->s3_handle = s3_handle;
        state->path.assign(pathname, as_directory);
        return state;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

/** Hand a record to its worker. @return success (the record is the worker's), or the generic error */
template <class State>
zorvan_result_t zorvan_i_s3_start_command(const char* source_file, const zorvan_i_s3_trace_t& trace,
                                          void* (*worker)(void*), std::unique_ptr<State>& state) noexcept {
    if (zorvan_i_s3_start_worker(worker, state.get()) != 0)
        return ZORVAN_S3_GENERIC_ERROR(source_file, trace.function(), "%s", "zorvan_thread_create");
    static_cast<void>(state.release());
    return ZORVAN_SUCCESS;
}

/** How a command on one path begins. Constant data. */
struct zorvan_i_s3_command_rules_t {
    const char* source_file;
    void* (*worker)(void*);
    /** Whether the path names a directory, whose key ends in "/". */
    bool as_directory;
    /** What the error of a path without a key calls the command; null where a bucket will do. */
    const char* needs_key;
    /** Whether the line of a failed set-up tells the path. */
    bool line_has_path;
    /** Fills the bucket context. */
    zorvan_result_t (*resolve)(zorvan_i_s3_command_state_t* state, const char* pathname);
};

/** The usual bucket context of a command's path. */
zorvan_result_t zorvan_i_s3_command_context(zorvan_i_s3_command_state_t* state,
                                            const char* pathname) noexcept;

/**
 * Report a command's end to the host, with its log line.
 * @param path  for the line; null for the commands whose line has none
 * @param text  the checksum or a reply, or null
 */
void zorvan_i_s3_finish_command(const zorvan_i_s3_trace_t& trace, zorvan_gridftp_server_operation_t op,
                                zorvan_result_t result, const char* path, const char* text) noexcept;

/** The outcome line of a worker. */
void zorvan_i_s3_log_outcome(const zorvan_i_s3_trace_t& trace, zorvan_result_t result) noexcept;

/** Make a command's record and start its worker; a failure of that ends the operation. */
template <class State>
void zorvan_i_s3_run_command(const zorvan_i_s3_trace_t& trace, const zorvan_i_s3_command_rules_t& rules,
                             zorvan_gridftp_server_operation_t op, const char* pathname,
                             zorvan_i_s3_handle_t* s3_handle) noexcept {
    auto state = zorvan_i_s3_make_command<State>(op, pathname, rules.as_directory, s3_handle);
    zorvan_result_t result = ZORVAN_SUCCESS;
    if (!state) {
        result = zorvan_i_s3_malloc_error();
    } else if (rules.needs_key && !state->path.key) {
        result = zorvan_i_s3_system_error(EINVAL, rules.needs_key);
    } else {
        s3_handle->current_op = op;
        result = rules.resolve(state.get(), pathname);
        if (result == ZORVAN_SUCCESS)
            result = zorvan_i_s3_start_command(rules.source_file, trace, rules.worker, state);
    }
    if (result == ZORVAN_SUCCESS) return;
    state.reset();
    zorvan_i_s3_log_result(trace.function(), result);
    zorvan_i_s3_finish_command(trace, op, result, rules.line_has_path ? pathname : nullptr, nullptr);
}

/** Record a failure with the path "bucket/key" in its texts. */
void zorvan_i_s3_record_object_failure(zorvan_i_s3_command_state_t* state, S3Status status,
                                       const S3ErrorDetails* error_details, zorvan_i_s3_keep_t keep) noexcept;

/** DELETE an object under the retry rule; `state` is the handler's data. */
template <class State>
void zorvan_i_s3_delete_object(const zorvan_i_s3_trace_t& trace, State& state, const char* bucket,
                               const char* key, const S3ResponseHandler& handler) noexcept {
    state.try_count = 0;
    zorvan_i_s3_with_retries(
        trace, state, "S3_delete_object",
        [&] {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "REST: op=%p S3_delete_object(bucket=%s, key=%s) try=%d\n",
                          zorvan_i_s3_pointer(state.op), bucket, key, state.try_count);
        },
        [&] { S3_delete_object(&state.bucket_context, key, nullptr, 0, &handler, &state); });
}

/** HEAD the command's object under the retry rule; `state` is the handler's data. */
template <class State>
void zorvan_i_s3_head_object(const zorvan_i_s3_trace_t& trace, State& state,
                             const S3ResponseHandler& handler) noexcept {
    state.try_count = 0;
    zorvan_i_s3_with_retries(
        trace, state, "S3_head_object",
        [&] {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "REST: op=%p S3_head_object(bucket=%s, key=%s) try=%d\n",
                          zorvan_i_s3_pointer(state.op), state.path.bucket,
                          zorvan_i_s3_printable(state.path.key), state.try_count);
        },
        [&] { S3_head_object(&state.bucket_context, state.path.key, nullptr, 0, &handler, &state); });
}

#endif
