/*
 * Make a directory: an empty placeholder object, or a bucket for a path of one component.
 *
 * Flow and threads: see command.h.
 */
#include "command.h"
#include "upload_properties.h"

#include <cstring>

namespace {
constexpr const char* source_file = "mkdir";
constexpr const char* placeholder_type = "application/x-zorvan-dir-placeholder";
/** The region whose buckets are made without saying so, and which some stores refuse when said. */
constexpr std::string_view default_location = "us-east-1";

using mkdir_state_t = zorvan_i_s3_command_state_t;

S3Status zorvan_l_s3_mkdir_properties(const S3ResponseProperties*, void*) noexcept {
    return zorvan_i_s3_accept_properties(__func__);
}

int zorvan_l_s3_mkdir_data_callback(int, char*, void*) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    return trace.exit(0);
}

void zorvan_l_s3_mkdir_complete(S3Status status, const S3ErrorDetails* error_details,
                                void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    auto* const state = static_cast<mkdir_state_t*>(callback_data);
    zorvan_i_s3_record_failure(state, status, state->path.key, error_details, zorvan_i_s3_keep_t::first);
    trace.exit_status(status);
}

constexpr S3ResponseHandler response_handler = {.propertiesCallback = zorvan_l_s3_mkdir_properties,
                                                .completeCallback = zorvan_l_s3_mkdir_complete};

void put_placeholder(const zorvan_i_s3_trace_t& trace, mkdir_state_t* state) noexcept {
    const S3PutProperties properties = zorvan_i_s3_object_properties(placeholder_type, *state->s3_handle);
    const S3PutObjectHandler handler{.responseHandler = response_handler,
                                     .putObjectDataCallback = zorvan_l_s3_mkdir_data_callback};
    zorvan_i_s3_with_retries(
        trace, *state, "S3_put_object",
        [&] {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "REST: op=%p S3_put_object(bucket=%s, key=%s) try=%d\n",
                          zorvan_i_s3_pointer(state->op), state->path.bucket, state->path.key,
                          state->try_count);
        },
        [&] {
            S3_put_object(&state->bucket_context, state->path.key, 0, &properties, nullptr, 0, &handler,
                          state);
        });
}

void create_bucket(const zorvan_i_s3_trace_t& trace, mkdir_state_t* state) noexcept {
    const S3BucketContext& context = state->bucket_context;
    const char* location_constraint = context.authRegion;
    if (location_constraint && location_constraint == default_location &&
        !state->s3_handle->restricted_endpoint)
        location_constraint = nullptr;

    /* The request names no host: without this the bucket would be made where the last log-in went. */
    S3_set_thread_default_host(context.hostName);
    zorvan_i_s3_with_retries(
        trace, *state, "S3_create_bucket",
        [&] {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "REST: op=%p S3_create_bucket(bucket=%s) try=%d\n",
                          zorvan_i_s3_pointer(state->op), state->path.bucket, state->try_count);
        },
        [&] {
            S3_create_bucket(context.protocol, context.accessKeyId, context.secretAccessKey,
                             context.securityToken, nullptr, state->path.bucket, context.authRegion,
                             S3CannedAclPrivate, location_constraint, nullptr, 0, &response_handler, state);
        });
    S3_set_thread_default_host(nullptr);
}

void* zorvan_l_s3_mkdir_thread(void* argument) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const std::unique_ptr<mkdir_state_t> state(static_cast<mkdir_state_t*>(argument));
    if (state->path.key)
        put_placeholder(trace, state.get());
    else
        create_bucket(trace, state.get());
    zorvan_i_s3_log_outcome(trace, state->result);
    zorvan_i_s3_finish_command(trace, state->op, state->result, state->path.text.c_str(), nullptr);
    return nullptr;
}

/** Fill the bucket context. A bucket that does not exist yet has no region to look up. */
zorvan_result_t resolve_context(mkdir_state_t* state, const char* pathname) noexcept {
    zorvan_i_s3_handle_t* const s3_handle = state->s3_handle;
    const char* const bucket = state->path.bucket;
    if (state->path.key)
        return zorvan_i_s3_bucket_context(s3_handle, pathname, bucket, &state->bucket_context);
    zorvan_result_t result = ZORVAN_SUCCESS;
    if (!zorvan_i_s3_bucket_allowed(bucket, s3_handle->allowed_buckets, &result)) return result;
    const zorvan_i_s3_credentials_t* pair = nullptr;
    zorvan_i_s3_get_key_pair(s3_handle, bucket, pathname, &pair);
    state->bucket_context = zorvan_i_s3_session_context(*s3_handle, bucket, *pair);
    return ZORVAN_SUCCESS;
}

/** A handle as text. */
std::array<char, 24> handle_text(zorvan_gridftp_server_operation_t op) noexcept {
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "%p", zorvan_i_s3_pointer(op));
    return text;
}

constexpr zorvan_i_s3_command_rules_t mkdir_rules = {
    .source_file = source_file,
    .worker = zorvan_l_s3_mkdir_thread,
    .as_directory = true,
    .needs_key = nullptr,
    .line_has_path = true,
    .resolve = resolve_context,
};
}  // namespace

void zorvan_i_s3_mkdir(zorvan_gridftp_server_operation_t op,
                       const zorvan_gridftp_server_command_info_t* cmd_info,
                       zorvan_i_s3_handle_t* s3_handle) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const char* const pathname = cmd_info->pathname;
    ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "mkdir: op=%s pathname=%s\n", handle_text(op).data(), pathname);
    zorvan_assert_at(s3_handle != nullptr, "s3_handle != NULL", source_file, __LINE__);
    zorvan_i_s3_run_command<mkdir_state_t>(trace, mkdir_rules, op, pathname, s3_handle);
}
