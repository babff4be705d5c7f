/*
 * Upload with one PUT.
 *
 * Flow: the worker builds the object's properties, registers reads, and makes one PUT of the announced size
 * whose body comes from the receive queue; then it takes in what the client still sends and ends the
 * transfer. Threads and ownership: see receive.h.
 */
#include "receive.h"
#include "upload_properties.h"

namespace {
constexpr const char* source_file = "recv_single";

void zorvan_l_s3_recv_single_read_callback(zorvan_gridftp_server_operation_t, zorvan_result_t result,
                                           unsigned char* buffer, size_t nbytes, zorvan_off_t offset, int eof,
                                           void* user_argument) {
    zorvan_i_s3_receive_read_completed(static_cast<zorvan_i_s3_receive_t*>(user_argument), result, buffer,
                                       nbytes, offset, eof);
}

zorvan_i_s3_receive_t* state_of(void* callback_data) noexcept {
    return static_cast<zorvan_i_s3_receive_t*>(callback_data);
}

S3Status zorvan_l_s3_recv_single_properties(const S3ResponseProperties*, void* callback_data) noexcept {
    return zorvan_i_s3_receive_properties(__func__, state_of(callback_data));
}

void zorvan_l_s3_recv_single_complete(S3Status status, const S3ErrorDetails* error_details,
                                      void* callback_data) noexcept {
    zorvan_i_s3_receive_complete(__func__, source_file, status, error_details, state_of(callback_data));
}

int zorvan_l_s3_recv_single_data(int buffer_size, char* buffer, void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    return trace.exit(zorvan_i_s3_receive_data(trace, state_of(callback_data), buffer_size, buffer,
                                               zorvan_i_s3_unknown_size));
}

/** Make the PUT. The body is never rewound: a repeated request goes on with the bytes that follow. */
void put_object(const zorvan_i_s3_trace_t& trace, zorvan_i_s3_receive_t* transfer_state,
                const S3PutProperties* properties) noexcept {
    const S3PutObjectHandler handler{
        .responseHandler = {.propertiesCallback = zorvan_l_s3_recv_single_properties,
                            .completeCallback = zorvan_l_s3_recv_single_complete},
        .putObjectDataCallback = zorvan_l_s3_recv_single_data,
    };
    zorvan_i_s3_with_retries(
        trace, *transfer_state, "S3_put_object",
        [&] {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "REST: op=%p S3_put_object(bucket=%s, key=%s) try=%d\n",
                          zorvan_i_s3_pointer(transfer_state->op), transfer_state->bucket,
                          zorvan_i_s3_printable(transfer_state->key), transfer_state->try_count);
        },
        [&] {
            S3_put_object(&transfer_state->bucket_context, transfer_state->key, transfer_state->size_limit,
                          properties, nullptr, 0, &handler, transfer_state);
        });
}

void* zorvan_l_s3_recv_single_thread(void* argument) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const std::unique_ptr<zorvan_i_s3_receive_t> transfer_state(state_of(argument));
    const std::lock_guard lock(transfer_state->mutex);

    zorvan_i_s3_upload_properties_t properties;
    transfer_state->result = properties.build(trace, source_file, transfer_state->op, transfer_state->key,
                                              *transfer_state->transfer_info, *transfer_state->s3_handle);
    if (transfer_state->result == ZORVAN_SUCCESS) {
        ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "begin_transfer: op=%p pathname=%s\n",
                      zorvan_i_s3_pointer(transfer_state->op), transfer_state->transfer_info->pathname);
        zorvan_gridftp_server_begin_transfer(transfer_state->op, 0, nullptr);
        transfer_state->result = zorvan_i_s3_receive_register_reads(transfer_state.get());
        if (transfer_state->result == ZORVAN_SUCCESS)
            put_object(trace, transfer_state.get(), properties.get());
    }

    zorvan_i_s3_receive_wait_for_reads(transfer_state.get());
    if (!transfer_state->eof) {
        zorvan_i_s3_receive_keep_reading(transfer_state.get());
        zorvan_i_s3_receive_wait_for_reads(transfer_state.get());
    }
    zorvan_i_s3_receive_finish(trace, transfer_state.get());
    return nullptr;
}

constexpr zorvan_i_s3_receive_rules_t single_rules = {
    .source_file = source_file,
    .worker = zorvan_l_s3_recv_single_thread,
    .read_line_end = "\n",
    .register_function = "zorvan_l_s3_recv_register_reads",
    .read_function = "zorvan_l_s3_recv_single_read_callback",
    .read_callback = zorvan_l_s3_recv_single_read_callback,
    .registration_has_result = true,
    .counts_bytes_after_failure = true,
    .keeps_read_results = false,
};
}  // namespace

zorvan_result_t zorvan_i_s3_recv_single(zorvan_gridftp_server_operation_t op,
                                        const zorvan_gridftp_server_transfer_info_t* transfer_info,
                                        zorvan_i_s3_handle_t* s3_handle) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    std::unique_ptr<zorvan_i_s3_receive_t> transfer_state(new (std::nothrow) zorvan_i_s3_receive_t);
    if (transfer_state) transfer_state->size_limit = static_cast<uint64_t>(transfer_info->alloc_size);
    return zorvan_i_s3_receive_start(trace, std::move(transfer_state), &single_rules, op, transfer_info,
                                     s3_handle);
}
