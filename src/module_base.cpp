/*
 * The two modules, the interface table, and the mapping of S3 failures to error objects.
 *
 * Flow: the host activates the exported descriptor; that reads the configuration, activates the base module
 * (debug log, MIME table, checksum cache) and registers the interface table. Threads: activation and
 * deactivation are the host's, one at a time; the mapping may be called from any thread.
 */
#include "s3_request.h"

#include <cerrno>
#include <cstring>

namespace {
constexpr const char* source_file = "module_base";
constexpr const char* dsi_name = "ceph";

zorvan_result_t zorvan_l_s3_base_activate() {
    zorvan_debug_init(&zorvan_i_ZORVAN_S3_debug_handle, "ZORVAN_S3_DEBUG", "TRACE INFO DEBUG WARNING ERROR");
    zorvan_i_s3_trace_t trace(__func__);

    int outcome = zorvan_i_s3_mime_types_init();
    if (outcome == 0 && zorvan_i_s3_mime_type_file)
        outcome = zorvan_i_s3_mime_types_parse(zorvan_i_s3_mime_type_file);
    if (outcome != 0) {
        zorvan_gfs_log_message(ZORVAN_GFS_LOG_ERROR, "There was an error parsing the mime.types file %s.",
                               zorvan_i_s3_printable(zorvan_i_s3_mime_type_file));
        return trace.exit_result(ZORVAN_FAILURE);
    }
    if (zorvan_i_s3_checksum_cache_init() != 0) {
        zorvan_i_s3_mime_types_destroy();
        return trace.exit_result(ZORVAN_FAILURE);
    }
    return trace.exit_result(ZORVAN_SUCCESS);
}

zorvan_result_t zorvan_l_s3_base_deactivate() {
    {
        zorvan_i_s3_trace_t trace(__func__);
        zorvan_i_s3_mime_types_destroy();
        zorvan_i_s3_checksum_cache_destroy();
        S3_deinitialize();
        trace.exit_result(ZORVAN_SUCCESS);
    }
    zorvan_debug_handle_t& debug = zorvan_i_ZORVAN_S3_debug_handle;
    if (debug.file && debug.using_file) std::fclose(debug.file);
    debug.file = nullptr;
    return ZORVAN_SUCCESS;
}

zorvan_gridftp_server_dsi_t zorvan_l_ceph_dsi_iface = {
    .descriptor = ZORVAN_GRIDFTP_SERVER_DSI_SENDER | ZORVAN_GRIDFTP_SERVER_DSI_OWN_THREADS |
                  ZORVAN_GRIDFTP_SERVER_DSI_DURABLE_RANGES,
    .session_start = zorvan_i_ceph_start,
    .session_destroy = zorvan_i_s3_destroy,
    .reserved_3 = nullptr,
    .send = zorvan_i_s3_send,
    .recv = zorvan_i_s3_recv,
    .reserved_6 = nullptr,
    .reserved_7 = nullptr,
    .reserved_8 = nullptr,
    .reserved_9 = nullptr,
    .command = zorvan_i_s3_command,
    .stat = zorvan_i_s3_stat,
    .reserved_12 = nullptr,
    .reserved_13 = nullptr,
    .reserved_14 = nullptr,
};

zorvan_result_t zorvan_l_ceph_activate() {
    zorvan_i_s3_trace_t trace(__func__);
    zorvan_result_t result = zorvan_i_s3_config_parse();
    if (result != ZORVAN_SUCCESS) return trace.exit_result(result);
    result = zorvan_module_activate(&zorvan_i_s3_base_module);
    if (result != ZORVAN_SUCCESS) return trace.exit_result(result);

    result = zorvan_extension_registry_add(&zorvan_i_gfs_dsi_registry, dsi_name,
                                           &zorvan_gridftp_server_ceph_module, &zorvan_l_ceph_dsi_iface);
    /* Before the base module takes the log with it. */
    trace.exit_result(result);
    if (result != ZORVAN_SUCCESS) zorvan_module_deactivate(&zorvan_i_s3_base_module);
    return result;
}

zorvan_result_t zorvan_l_ceph_deactivate() {
    zorvan_i_s3_trace_t trace(__func__);
    zorvan_extension_registry_remove(&zorvan_i_gfs_dsi_registry, dsi_name);
    return trace.exit_result(zorvan_module_deactivate(&zorvan_i_s3_base_module));
}

constexpr zorvan_version_t ceph_version = {.major = 0, .minor = 78};

/** The FTP response that a status stands for; a null word stands for none. */
struct ftp_response_t {
    int code;
    const char* error_type;
};

constexpr ftp_response_t ftp_response_of(S3Status status) noexcept {
    switch (status) {
        case S3StatusErrorAccessDenied:
        case S3StatusErrorNotSignedUp:
            return {550, "PERMISSION_DENIED"};
        case S3StatusErrorBadDigest:
            return {550, "INCORRECT_CHECKSUM"};
        case S3StatusErrorBucketAlreadyExists:
            return {553, "PATH_EXISTS"};
        case S3StatusErrorInvalidAccessKeyId:
        case S3StatusErrorSignatureDoesNotMatch:
            return {530, "LOGIN_DENIED"};
        case S3StatusErrorInvalidRange:
            return {553, "APPEND_NOT_SUPPORTED"};
        case S3StatusErrorNoSuchBucket:
        case S3StatusErrorNoSuchKey:
        case S3StatusHttpErrorNotFound:
            return {550, "PATH_NOT_FOUND"};
        case S3StatusErrorNoSuchUpload:
            return {553, "MULTI_PART_UPLOAD_NOT_FOUND"};
        case S3StatusErrorServiceUnavailable:
        case S3StatusErrorSlowDown:
            return {451, "TOO_BUSY"};
        default:
            return {0, nullptr};
    }
}

/** The value of the last extra detail of a name, "" when there is none. */
const char* extra_detail(const S3ErrorDetails* details, std::string_view name) noexcept {
    const char* value = "";
    for (int i = 0; details && i < details->extraDetailsCount; ++i) {
        const S3NameValue& extra = details->extraDetails[i];
        if (extra.name && extra.value && name == extra.name) value = extra.value;
    }
    return value;
}
}  // namespace

const zorvan_module_descriptor_t zorvan_i_s3_base_module = {
    .name = "zorvan_gridftp_server_s3_base",
    .activate = zorvan_l_s3_base_activate,
    .deactivate = zorvan_l_s3_base_deactivate,
    .reserved_1 = nullptr,
    .reserved_2 = nullptr,
    .version = nullptr,
};

extern "C" ZORVAN_API const zorvan_module_descriptor_t zorvan_gridftp_server_ceph_module = {
    .name = "zorvan_gridftp_server_ceph",
    .activate = zorvan_l_ceph_activate,
    .deactivate = zorvan_l_ceph_deactivate,
    .reserved_1 = nullptr,
    .reserved_2 = nullptr,
    .version = &ceph_version,
};

zorvan_result_t zorvan_i_s3_system_error(int errno_value, const char* call) noexcept {
    return zorvan_error_put(
        zorvan_i_gfs_error_system(nullptr, errno_value, "System error%s%s", " in ", call));
}

zorvan_result_t zorvan_i_s3_malloc_error() noexcept {
    return zorvan_i_s3_system_error(ENOMEM, "malloc");
}

zorvan_result_t zorvan_i_s3_ftp_error(int code, const char* error_type) noexcept {
    return zorvan_error_put(
        zorvan_gfs_ftp_response_error_construct(nullptr, nullptr, code, error_type, nullptr));
}

void zorvan_i_s3_result_clear(zorvan_result_t* result) noexcept {
    if (*result != ZORVAN_SUCCESS) zorvan_error_free(zorvan_error_get(*result));
    *result = ZORVAN_SUCCESS;
}

zorvan_error_t* zorvan_i_S3Error_to_error(S3Status status, const char* path,
                                          const S3ErrorDetails* error_details) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const char* const name = S3_get_status_name(status);
    const char* const message = error_details && error_details->message ? error_details->message : name;
    const char* resource = path ? path : "";
    if (error_details && error_details->resource) resource = error_details->resource;
    const char* const further =
        error_details && error_details->furtherDetails ? error_details->furtherDetails : "";

    zorvan_error_t* const cause = zorvan_error_construct_error(
        &zorvan_i_s3_base_module, nullptr, ZORVAN_ERROR_TYPE_S3, source_file, __func__, __LINE__,
        "S3 Error accessing \"%s\": %s: %s: %s", resource, name, message, further);

    const ftp_response_t response = ftp_response_of(status);
    if (!response.error_type) return cause;
    switch (status) {
        case S3StatusErrorBadDigest:
            return zorvan_gfs_ftp_response_error_construct(
                nullptr, cause, response.code, response.error_type,
                "GridFTP-Computed-Checksum: %s\nGridFTP-Expected-Checksum: %s",
                extra_detail(error_details, "CalculatedDigest"),
                extra_detail(error_details, "ExpectedDigest"));
        case S3StatusErrorBucketAlreadyExists:
            return zorvan_gfs_ftp_response_error_construct(nullptr, cause, response.code, response.error_type,
                                                           "GridFTP-Path: %s", path ? path : "");
        case S3StatusErrorNoSuchBucket:
        case S3StatusErrorNoSuchKey:
        case S3StatusHttpErrorNotFound:
            return zorvan_gfs_ftp_response_error_construct(nullptr, cause, response.code, response.error_type,
                                                           "%s%s%s", "GridFTP-Path: \"", path ? path : "",
                                                           "\"");
        default:
            return zorvan_gfs_ftp_response_error_construct(nullptr, cause, response.code, response.error_type,
                                                           nullptr);
    }
}

void zorvan_i_s3_record_failure(zorvan_i_s3_request_state_t* state, S3Status status, const char* path,
                                const S3ErrorDetails* error_details, zorvan_i_s3_keep_t keep) noexcept {
    if (status == S3StatusOK) return;
    if (state->result != ZORVAN_SUCCESS && keep == zorvan_i_s3_keep_t::first) return;
    zorvan_i_s3_result_clear(&state->result);
    state->status = status;
    state->result = zorvan_error_put(zorvan_i_S3Error_to_error(status, path, error_details));
}

S3Status zorvan_i_s3_accept_properties(const char* function) noexcept {
    zorvan_i_s3_trace_t trace(function);
    return trace.exit_status(S3StatusOK);
}

int32_t zorvan_i_s3_retry_pause(int try_count) noexcept {
    const auto shift = static_cast<uint32_t>(try_count - 1) & 31U;
    return static_cast<int32_t>((static_cast<uint32_t>(zorvan_i_s3_retry_delay_ms) << shift) * 1000U);
}

zorvan_i_s3_path_t zorvan_i_s3_path_split(char* path) noexcept {
    char* const bucket = *path == '/' ? path + 1 : path;
    char* const slash = std::strchr(bucket, '/');
    if (!slash) return {.bucket = bucket, .key = nullptr};
    *slash = '\0';
    return {.bucket = bucket, .key = slash + 1};
}
