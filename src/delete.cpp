/*
 * Delete an object.
 *
 * Flow and threads: see command.h.
 */
#include "command.h"

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

constexpr zorvan_i_s3_command_rules_t delete_rules = {
    .source_file = source_file,
    .worker = zorvan_l_s3_delete_thread,
    .as_directory = false,
    .needs_key = "delete",
    .line_has_path = true,
    .resolve = zorvan_i_s3_command_context,
};
}  // namespace

void zorvan_i_s3_delete(zorvan_gridftp_server_operation_t op,
                        const zorvan_gridftp_server_command_info_t* cmd_info,
                        zorvan_i_s3_handle_t* s3_handle) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const char* const pathname = cmd_info->pathname;
    ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "delete: op=%p pathname=%s\n", zorvan_i_s3_pointer(op), pathname);
    zorvan_assert_at(s3_handle != nullptr, "s3_handle != NULL", source_file, __LINE__);
    zorvan_i_s3_run_command<delete_state_t>(trace, delete_rules, op, pathname, s3_handle);
}
