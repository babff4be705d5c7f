/*
 * The command entry, and what its commands share.
 *
 * Runs on the host's thread, the helpers also on the commands' workers.
 */
#include "command.h"

void zorvan_i_s3_split_path_t::assign(const char* pathname, bool as_directory) {
    const std::string_view given = pathname;
    text.clear();
    /* Room for the "/" first: the parts point into the text. */
    text.reserve(given.size() + 1);
    text = given;
    const auto parts = zorvan_i_s3_path_split(text.data());
    bucket = parts.bucket;
    key = parts.key;
    if (key && as_directory) text.push_back('/');
}

zorvan_result_t zorvan_i_s3_command_context(zorvan_i_s3_command_state_t* state,
                                            const char* pathname) noexcept {
    return zorvan_i_s3_bucket_context(state->s3_handle, pathname, state->path.bucket, &state->bucket_context);
}

void zorvan_i_s3_finish_command(const zorvan_i_s3_trace_t& trace, zorvan_gridftp_server_operation_t op,
                                zorvan_result_t result, const char* path, const char* text) noexcept {
    if (path) {
        ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "finished_command: op=%p result=%#x path=%s\n",
                      zorvan_i_s3_pointer(op), result, path);
    } else {
        ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "finished_command: op=%p result=%#x\n", zorvan_i_s3_pointer(op),
                      result);
    }
    zorvan_gridftp_server_finished_command(op, result, text);
}

void zorvan_i_s3_log_outcome(const zorvan_i_s3_trace_t& trace, zorvan_result_t result) noexcept {
    zorvan_i_s3_log_result(trace.function(), result, ZORVAN_S3_INFO, ZORVAN_S3_INFO);
}

void zorvan_i_s3_record_object_failure(zorvan_i_s3_command_state_t* state, S3Status status,
                                       const S3ErrorDetails* error_details,
                                       zorvan_i_s3_keep_t keep) noexcept {
    if (status == S3StatusOK) return;
    const zorvan_i_s3_text_t path(
        zorvan_common_create_string("%s/%s", state->path.bucket, state->path.key ? state->path.key : ""));
    zorvan_i_s3_record_failure(state, status, path.get(), error_details, keep);
}

void zorvan_i_s3_command(zorvan_gridftp_server_operation_t op,
                         const zorvan_gridftp_server_command_info_t* cmd_info,
                         void* session_handle) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    auto* const s3_handle = static_cast<zorvan_i_s3_handle_t*>(session_handle);
    switch (cmd_info->command) {
        case ZORVAN_GRIDFTP_SERVER_COMMAND_MKD:
            return zorvan_i_s3_mkdir(op, cmd_info, s3_handle);
        case ZORVAN_GRIDFTP_SERVER_COMMAND_RMD:
            return zorvan_i_s3_rmdir(op, cmd_info, s3_handle);
        case ZORVAN_GRIDFTP_SERVER_COMMAND_DELE:
            return zorvan_i_s3_delete(op, cmd_info, s3_handle);
        case ZORVAN_GRIDFTP_SERVER_COMMAND_RNTO:
            return zorvan_i_s3_rename(op, cmd_info, s3_handle);
        case ZORVAN_GRIDFTP_SERVER_COMMAND_CKSM:
            return zorvan_i_s3_checksum(op, cmd_info, s3_handle);
        case ZORVAN_GRIDFTP_SERVER_COMMAND_CUSTOM:
            return zorvan_i_s3_stage(op, cmd_info, s3_handle);
        default:
            zorvan_gridftp_server_finished_command(op, ZORVAN_FAILURE, nullptr);
    }
}
