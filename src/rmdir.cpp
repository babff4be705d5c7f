/*
 * Remove a directory: its placeholder object, or the bucket for a path of one component.
 *
 * What lies below a placeholder is not looked at; a bucket that is not empty is refused by the store. Flow
 * and threads: see command.h.
 */
#include "command.h"

namespace {
constexpr const char* source_file = "rmdir";

using rmdir_state_t = zorvan_i_s3_command_state_t;

S3Status zorvan_l_s3_rmdir_properties(const S3ResponseProperties*, void*) noexcept {
    return zorvan_i_s3_accept_properties(__func__);
}

void zorvan_l_s3_rmdir_complete(S3Status status, const S3ErrorDetails* error_details,
                                void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    auto* const state = static_cast<rmdir_state_t*>(callback_data);
    zorvan_i_s3_record_failure(state, status, state->path.text.c_str(), error_details,
                               zorvan_i_s3_keep_t::last);
    trace.exit_status(status);
}

constexpr S3ResponseHandler response_handler = {.propertiesCallback = zorvan_l_s3_rmdir_properties,
                                                .completeCallback = zorvan_l_s3_rmdir_complete};

void delete_bucket(const zorvan_i_s3_trace_t& trace, rmdir_state_t* state) noexcept {
    const S3BucketContext& context = state->bucket_context;
    zorvan_i_s3_with_retries(
        trace, *state, "S3_delete_bucket",
        [&] {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "REST: op=%p S3_delete_bucket(bucket=%s) try=%d\n",
                          zorvan_i_s3_pointer(state->op), state->path.bucket, state->try_count);
        },
        [&] {
            S3_delete_bucket(context.protocol, context.uriStyle, context.accessKeyId, context.secretAccessKey,
                             context.securityToken, context.hostName, context.bucketName, context.authRegion,
                             nullptr, 0, &response_handler, state);
        });
}

void* zorvan_l_s3_rmdir_thread(void* argument) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const std::unique_ptr<rmdir_state_t> state(static_cast<rmdir_state_t*>(argument));
    if (state->path.key)
        zorvan_i_s3_delete_object(trace, *state, state->path.bucket, state->path.key, response_handler);
    else
        delete_bucket(trace, state.get());
    zorvan_i_s3_log_outcome(trace, state->result);
    zorvan_i_s3_finish_command(trace, state->op, state->result, nullptr, nullptr);
    return nullptr;
}

constexpr zorvan_i_s3_command_rules_t rmdir_rules = {
    .source_file = source_file,
    .worker = zorvan_l_s3_rmdir_thread,
    .as_directory = true,
    .needs_key = nullptr,
    .line_has_path = false,
    .resolve = zorvan_i_s3_command_context,
};
}  // namespace

void zorvan_i_s3_rmdir(zorvan_gridftp_server_operation_t op,
                       const zorvan_gridftp_server_command_info_t* cmd_info,
                       zorvan_i_s3_handle_t* s3_handle) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const char* const pathname = cmd_info->pathname;
    ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "rmdir op=%p pathname=%s\n", zorvan_i_s3_pointer(op), pathname);
    zorvan_assert_at(s3_handle != nullptr, "s3_handle != NULL", source_file, __LINE__);
    zorvan_i_s3_run_command<rmdir_state_t>(trace, rmdir_rules, op, pathname, s3_handle);
}
