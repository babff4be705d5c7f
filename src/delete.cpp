/*
 * Delete an object.
 *
 * Flow and threads: see command.h.
 */
#include "command.h"

#include <cerrno>

namespace {
constexpr const char* source_file = "delete";

using delete_state_t = zorvan_i_s3_command_state_t;

S3Status zorvan_l_s3_delete_properties(const S3ResponseProperties*, void*) noexcept {
    return zorvan_i_s3_accept_properties(__func__);
}

void zorvan_l_s3_delete_complete(S3Status status, const S3ErrorDetails* error_details,
                                 void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    zorvan_i_s3_record_object_failure(static_cast<delete_state_t*>(callback_data), status, error_details,
                                      zorvan_i_s3_keep_t::last);
    trace.exit_status(status);
}

void* zorvan_l_s3_delete_thread(void* argument) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const std::unique_ptr<delete_state_t> delete_state(static_cast<delete_state_t*>(argument));
    const zorvan_i_s3_split_path_t& path = delete_state->path;
    zorvan_assert_at(path.key != nullptr, "delete_state->key != NULL", source_file, __LINE__);
    zorvan_i_s3_delete_object(trace, *delete_state, path.bucket, path.key,
                              {.propertiesCallback = zorvan_l_s3_delete_properties,
                               .completeCallback = zorvan_l_s3_delete_complete});
    zorvan_i_s3_log_outcome(trace, delete_state->result);
    zorvan_i_s3_finish_command(trace, delete_state->op, delete_state->result, path.text.c_str(), nullptr);
    return nullptr;
}
}  // namespace

void zorvan_i_s3_delete(zorvan_gridftp_server_operation_t op,
                        const zorvan_gridftp_server_command_info_t* cmd_info,
                        zorvan_i_s3_handle_t* s3_handle) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const char* const pathname = cmd_info->pathname;
    ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "delete: op=%p pathname=%s\n", zorvan_i_s3_pointer(op), pathname);
    zorvan_assert_at(s3_handle != nullptr, "s3_handle != NULL", source_file, __LINE__);

    auto state = zorvan_i_s3_make_command<delete_state_t>(op, pathname, false, s3_handle);
    zorvan_result_t result = ZORVAN_SUCCESS;
    if (!state) {
        result = zorvan_i_s3_malloc_error();
    } else if (!state->path.key) {
        result = zorvan_i_s3_system_error(EINVAL, "delete");
    } else {
        s3_handle->current_op = op;
        result = zorvan_i_s3_bucket_context(s3_handle, pathname, state->path.bucket, &state->bucket_context);
        if (result == ZORVAN_SUCCESS)
            result = zorvan_i_s3_start_command(source_file, trace, zorvan_l_s3_delete_thread, state);
    }
    if (result == ZORVAN_SUCCESS) return;
    state.reset();
    zorvan_i_s3_log_result(trace.function(), result);
    zorvan_i_s3_finish_command(trace, op, result, pathname, nullptr);
}
