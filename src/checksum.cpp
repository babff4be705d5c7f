/*
 * The MD5 of an object or of a range of it.
 *
 * Flow: a HEAD request answers from metadata, ETag or the checksum cache; only when none of them knows is the
 * range downloaded and hashed, with progress replies. Threads: see command.h.
 */
#include "command.h"

#include <strings.h>
#include <cstring>
#include <ctime>

namespace {
constexpr const char* source_file = "checksum";

struct checksum_state_t : zorvan_i_s3_command_state_t {
    zorvan_i_s3_text_t etag; /* of the HEAD reply */
    int64_t offset = 0;
    int64_t length = -1;     /* -1 = to the end */
    uint64_t nbytes = 0;     /* hashed so far */
    int update_interval = 0; /* seconds; 0 = no progress replies */
    time_t next_update = 0;
    MD5_CTX md5{};
    char md5sum[zorvan_i_s3_md5sum_size] = ""; /* empty = not known */
};

const char* or_empty(const char* text) noexcept {
    return text ? text : "";
}

/** Learn the sum from the object's metadata. @return whether it held one */
bool take_from_metadata(const zorvan_i_s3_trace_t& trace, checksum_state_t* state,
                        const S3ResponseProperties& properties) noexcept {
    for (int i = 0; i < properties.metaDataCount; ++i) {
        const S3NameValue& pair = properties.metaData[i];
        if (std::strcmp(pair.name, "md5") != 0 || std::strlen(pair.value) != zorvan_i_s3_md5sum_size - 1)
            continue;
        ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "Setting md5sum=%s from metadata\n", pair.value);
        /* A bad value also takes away what the ETag had given. */
        return zorvan_i_s3_md5sum_scan(pair.value, state->md5sum);
    }
    return state->md5sum[0] != '\0';
}

S3Status zorvan_l_s3_checksum_properties(const S3ResponseProperties* properties,
                                         void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    auto* const state = static_cast<checksum_state_t*>(callback_data);
    if (!properties) return trace.exit_status(S3StatusOK);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG,
                  "requestId=%s requestId2=%s contentType=%s contentLength=%lu server=%s eTag=%s "
                  "lastModified=%ld\n",
                  or_empty(properties->requestId), or_empty(properties->requestId2),
                  or_empty(properties->contentType), properties->contentLength, or_empty(properties->server),
                  or_empty(properties->eTag), properties->lastModified);
    state->md5sum[0] = '\0';
    const bool whole_object =
        state->offset == 0 &&
        (state->length == -1 || static_cast<uint64_t>(state->length) == properties->contentLength);
    if (!whole_object) return trace.exit_status(S3StatusOK);

    if (zorvan_i_s3_etag_may_be_md5(*properties)) {
        ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "Setting md5sum=%.32s from etag\n", properties->eTag + 1);
        if (properties->eTag[0] == '"') zorvan_i_s3_md5sum_scan(properties->eTag + 1, state->md5sum);
    }
    if (!take_from_metadata(trace, state, *properties)) {
        zorvan_i_s3_checksum_find(state->path.bucket, state->path.key, properties->eTag,
                                  properties->contentLength, state->md5sum);
    }
    state->etag.reset(zorvan_libc_strdup(properties->eTag));
    return trace.exit_status(S3StatusOK);
}

S3Status zorvan_l_s3_checksum_compute_properties(const S3ResponseProperties*, void*) noexcept {
    return zorvan_i_s3_accept_properties(__func__);
}

void zorvan_l_s3_checksum_complete(S3Status status, const S3ErrorDetails* error_details,
                                   void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    auto* const state = static_cast<checksum_state_t*>(callback_data);
    zorvan_i_s3_record_object_failure(state, status, error_details, zorvan_i_s3_keep_t::first);
    /* Also of an attempt whose failure the data handler has recorded. */
    state->status = status;
    trace.exit_status(status);
}

S3Status zorvan_l_s3_checksum_data(int buffer_size, const char* buffer, void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    auto* const state = static_cast<checksum_state_t*>(callback_data);
    const auto size = static_cast<size_t>(buffer_size);
    if (MD5_Update(&state->md5, buffer, size) != 1) {
        zorvan_i_s3_result_clear(&state->result);
        state->result = ZORVAN_S3_GENERIC_ERROR(source_file, __func__, "%s", "MD5_Update error");
        return trace.exit_status(S3StatusInternalError);
    }
    state->nbytes += size;
    if (state->update_interval != 0) {
        const time_t now = std::time(nullptr);
        if (now >= state->next_update) {
            char text[24];
            std::snprintf(text, sizeof text, "%ld", static_cast<long>(state->nbytes));
            zorvan_gridftp_server_intermediate_command(state->op, ZORVAN_SUCCESS, text);
            state->next_update = now + state->update_interval;
        }
    }
    return trace.exit_status(S3StatusOK);
}

/** Download the range and hash it. A further try goes on with the same sum. */
void hash_range(const zorvan_i_s3_trace_t& trace, checksum_state_t* state) noexcept {
    const S3GetObjectHandler handler{
        .responseHandler = {.propertiesCallback = zorvan_l_s3_checksum_compute_properties,
                            .completeCallback = zorvan_l_s3_checksum_complete},
        .getObjectDataCallback = zorvan_l_s3_checksum_data,
    };
    const uint64_t byte_count = state->length == -1 ? 0 : static_cast<uint64_t>(state->length);
    state->next_update = std::time(nullptr) + state->update_interval;
    state->try_count = 0;
    zorvan_i_s3_with_retries(
        trace, *state, "S3_get_object",
        [&] {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "REST: op=%p S3_get_object(bucket=%s, key=%s) try=%d\n",
                          zorvan_i_s3_pointer(state->op), state->path.bucket,
                          zorvan_i_s3_printable(state->path.key), state->try_count);
        },
        [&] {
            S3_get_object(&state->bucket_context, state->path.key, nullptr,
                          static_cast<uint64_t>(state->offset), byte_count, nullptr, 0, &handler, state);
        });
}

/** Turn the finished hash into text, and remember it when it is the whole object's. */
void take_hash(checksum_state_t* state) noexcept {
    unsigned char digest[MD5_DIGEST_LENGTH];
    if (MD5_Final(digest, &state->md5) != 1) {
        state->result = ZORVAN_S3_GENERIC_ERROR(source_file, __func__, "%s", "Can not finalize checksum.");
        return;
    }
    char* digits = state->md5sum;
    for (const unsigned char byte : digest) {
        std::snprintf(digits, 3, "%.2x", byte);
        digits += 2;
    }
    if (state->offset == 0 && state->length == -1) {
        zorvan_i_s3_checksum_add(state->path.bucket, state->path.key, state->etag.get(), state->nbytes,
                                 state->md5sum);
    }
}

void* zorvan_l_s3_checksum_thread(void* argument) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const std::unique_ptr<checksum_state_t> state(static_cast<checksum_state_t*>(argument));
    zorvan_i_s3_head_object(trace, *state,
                            {.propertiesCallback = zorvan_l_s3_checksum_properties,
                             .completeCallback = zorvan_l_s3_checksum_complete});
    if (state->result == ZORVAN_SUCCESS && !state->md5sum[0]) {
        ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "op=%p no_md5_metadata_available\n",
                      zorvan_i_s3_pointer(state->op));
        if (MD5_Init(&state->md5) == 1) {
            hash_range(trace, state.get());
            if (state->result == ZORVAN_SUCCESS) take_hash(state.get());
        } else {
            state->result = zorvan_i_s3_malloc_error();
        }
    }
    if (state->result != ZORVAN_SUCCESS) state->md5sum[0] = '\0';
    zorvan_i_s3_log_outcome(trace, state->result);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "finished_command: op=%p result=%#x checksum=%.*s\n",
                  zorvan_i_s3_pointer(state->op), state->result,
                  static_cast<int>(zorvan_i_s3_md5sum_size - 1), state->md5sum);
    zorvan_gridftp_server_finished_command(state->op, state->result,
                                           state->md5sum[0] ? state->md5sum : nullptr);
    return nullptr;
}

/** Check and start a checksum command. @return success when a worker has it */
zorvan_result_t start(const zorvan_i_s3_trace_t& trace, zorvan_gridftp_server_operation_t op,
                      const zorvan_gridftp_server_command_info_t* cmd_info,
                      zorvan_i_s3_handle_t* s3_handle) noexcept {
    if (strcasecmp(cmd_info->cksm_alg, "md5") != 0) {
        return ZORVAN_S3_GENERIC_ERROR(source_file, trace.function(), "Unknown checksum algorithm \"%s\"",
                                       cmd_info->cksm_alg);
    }
    auto state = zorvan_i_s3_make_command<checksum_state_t>(op, cmd_info->pathname, false, s3_handle);
    if (!state) return zorvan_i_s3_malloc_error();
    s3_handle->current_op = op;
    state->offset = cmd_info->cksm_offset;
    state->length = cmd_info->cksm_length;
    zorvan_gridftp_server_get_update_interval(op, &state->update_interval);
    const zorvan_result_t result =
        zorvan_i_s3_bucket_context(s3_handle, cmd_info->pathname, state->path.bucket, &state->bucket_context);
    if (result != ZORVAN_SUCCESS) return result;
    const int failure = zorvan_i_s3_start_worker(zorvan_l_s3_checksum_thread, state.get());
    if (failure != 0) return zorvan_i_s3_system_error(failure, "zorvan_thread_create");
    static_cast<void>(state.release());
    return ZORVAN_SUCCESS;
}
}  // namespace

void zorvan_i_s3_checksum(zorvan_gridftp_server_operation_t op,
                          const zorvan_gridftp_server_command_info_t* cmd_info,
                          zorvan_i_s3_handle_t* s3_handle) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "checksum: op=%p pathname=%s alg=%s offset=%ld length=%ld\n",
                  zorvan_i_s3_pointer(op), zorvan_i_s3_printable(cmd_info->pathname),
                  zorvan_i_s3_printable(cmd_info->cksm_alg), cmd_info->cksm_offset, cmd_info->cksm_length);
    zorvan_assert_at(s3_handle != nullptr, "s3_handle != NULL", source_file, __LINE__);
    zorvan_assert_at(cmd_info->pathname != nullptr, "cmd_info->pathname != NULL", source_file, __LINE__);
    zorvan_assert_at(cmd_info->cksm_alg != nullptr, "cmd_info->cksm_alg != NULL", source_file, __LINE__);
    const zorvan_result_t result = start(trace, op, cmd_info, s3_handle);
    if (result == ZORVAN_SUCCESS) return;
    zorvan_i_s3_log_result(trace.function(), result);
    zorvan_i_s3_finish_command(trace, op, result, nullptr, nullptr);
}
