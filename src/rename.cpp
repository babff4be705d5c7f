/*
 * Rename an object: a copy inside the store, then a delete of the source.
 *
 * Not atomic, and in this order on purpose: a failure leaves the source, never nothing. Flow and threads: see
 * command.h.
 */
#include "command.h"

#include <cstring>

namespace {
constexpr const char* source_file = "rename";

struct rename_state_t : zorvan_i_s3_request_state_t {
    S3BucketContext bucket_context{};    /* of the source bucket */
    const char* from_pathname = nullptr; /* the host's */
    zorvan_i_s3_split_path_t from;
    zorvan_i_s3_split_path_t to;
};

S3Status zorvan_l_s3_rename_properties(const S3ResponseProperties*, void*) noexcept {
    return zorvan_i_s3_accept_properties(__func__);
}

void zorvan_l_s3_rename_complete(S3Status status, const S3ErrorDetails* error_details,
                                 void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    auto* const state = static_cast<rename_state_t*>(callback_data);
    zorvan_i_s3_record_failure(state, status, state->from_pathname, error_details, zorvan_i_s3_keep_t::last);
    trace.exit_status(status);
}

void* zorvan_l_s3_rename_thread(void* argument) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const std::unique_ptr<rename_state_t> rename_state(static_cast<rename_state_t*>(argument));
    zorvan_assert_at(rename_state != nullptr, "rename_state != NULL", source_file, __LINE__);
    const zorvan_i_s3_split_path_t& from = rename_state->from;
    const zorvan_i_s3_split_path_t& to = rename_state->to;
    const S3ResponseHandler handler{.propertiesCallback = zorvan_l_s3_rename_properties,
                                    .completeCallback = zorvan_l_s3_rename_complete};
    rename_state->try_count = 0;
    zorvan_i_s3_with_retries(
        trace, *rename_state, "S3_copy_object",
        [&] {
            ZORVAN_S3_LOG(
                trace, ZORVAN_S3_INFO,
                "REST: op=%p S3_copy_object(from_bucket=%s, from_key=%s, to_bucket=%s, to_key=%s) try=%d\n",
                zorvan_i_s3_pointer(rename_state->op), from.bucket, from.key, to.bucket, to.key,
                rename_state->try_count);
        },
        [&] {
            S3_copy_object(&rename_state->bucket_context, from.key, to.bucket, to.key, nullptr, nullptr, 0,
                           nullptr, nullptr, 0, &handler, rename_state.get());
        });
    if (rename_state->result == ZORVAN_SUCCESS)
        zorvan_i_s3_delete_object(trace, *rename_state, from.bucket, from.key, handler);
    zorvan_i_s3_log_outcome(trace, rename_state->result);
    zorvan_i_s3_finish_command(trace, rename_state->op, rename_state->result, nullptr, nullptr);
    return nullptr;
}

/** A record with both paths, null when memory is exhausted. */
std::unique_ptr<rename_state_t> make_state(zorvan_gridftp_server_operation_t op,
                                           const zorvan_gridftp_server_command_info_t& cmd_info) noexcept {
    try {
        auto state = std::make_unique<rename_state_t>();
        state->op = op;
        state->from_pathname = cmd_info.from_pathname;
        state->from.assign(cmd_info.from_pathname, false);
        state->to.assign(cmd_info.pathname, false);
        return state;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

/** Check both paths and fill the bucket context of the source. */
zorvan_result_t resolve_context(const zorvan_i_s3_trace_t& trace, rename_state_t* state,
                                zorvan_i_s3_handle_t* s3_handle) noexcept {
    if (!state->from.key)
        return ZORVAN_S3_GENERIC_ERROR(source_file, trace.function(), "%s", "Invalid source filename");
    if (!state->to.key)
        return ZORVAN_S3_GENERIC_ERROR(source_file, trace.function(), "%s", "Invalid destination filename");
    zorvan_result_t result = ZORVAN_SUCCESS;
    if (!zorvan_i_s3_bucket_allowed(state->to.bucket, s3_handle->allowed_buckets, &result)) return result;
    return zorvan_i_s3_bucket_context(s3_handle, state->from_pathname, state->from.bucket,
                                      &state->bucket_context);
}

/** Check and start a rename. @return success when a worker has it */
zorvan_result_t start(const zorvan_i_s3_trace_t& trace, zorvan_gridftp_server_operation_t op,
                      const zorvan_gridftp_server_command_info_t& cmd_info,
                      zorvan_i_s3_handle_t* s3_handle) noexcept {
    if (!cmd_info.from_pathname)
        return ZORVAN_S3_GENERIC_ERROR(source_file, trace.function(), "%s", "Invalid source filename");
    if (std::strcmp(cmd_info.from_pathname, cmd_info.pathname) == 0) {
        return zorvan_error_put(zorvan_gfs_ftp_response_error_construct(
            nullptr, nullptr, 553, "PATH_EXISTS", "GridFTP-Path: %s", cmd_info.pathname));
    }
    zorvan_assert_at(s3_handle != nullptr, "s3_handle != NULL", source_file, __LINE__);
    auto state = make_state(op, cmd_info);
    if (!state) return zorvan_i_s3_malloc_error();
    s3_handle->current_op = op;
    const zorvan_result_t result = resolve_context(trace, state.get(), s3_handle);
    if (result != ZORVAN_SUCCESS) return result;
    return zorvan_i_s3_start_command(source_file, trace, zorvan_l_s3_rename_thread, state);
}
}  // namespace

void zorvan_i_s3_rename(zorvan_gridftp_server_operation_t op,
                        const zorvan_gridftp_server_command_info_t* cmd_info,
                        zorvan_i_s3_handle_t* s3_handle) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "rename: op=%p from_pathname=%s pathname=%s\n",
                  zorvan_i_s3_pointer(op), zorvan_i_s3_printable(cmd_info->from_pathname),
                  cmd_info->pathname);
    const zorvan_result_t result = start(trace, op, *cmd_info, s3_handle);
    if (result == ZORVAN_SUCCESS) return;
    zorvan_i_s3_log_result(trace.function(), result);
    zorvan_i_s3_finish_command(trace, op, result, nullptr, nullptr);
}
