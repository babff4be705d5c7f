/*
 * Receive: choose how an upload is written.
 *
 * Flow: limits are checked against the configured part size; then one PUT, a fresh multipart upload or the
 * continuation of an earlier one takes over. Runs on the host's thread.
 */
#include "receive.h"

namespace {
constexpr const char* source_file = "recv";
constexpr int64_t minimum_part_size = 0x500000;    /* 5 MiB */
constexpr int64_t maximum_part_size = 0x140000000; /* 5 GiB */
constexpr int64_t default_part_size = 500'000'000;
/* 5 decimal terabytes, unlike the limit of a configured part size. */
constexpr int64_t maximum_object_size_default = 5'000'000'000'000;

zorvan_result_t too_large(const char* function) noexcept {
    return ZORVAN_S3_GENERIC_ERROR(source_file, function, "%s", "File upload too large");
}

/** Choose and start the upload. @return a refusal, or the failure of the chosen upload's set-up */
zorvan_result_t dispatch(const char* function, zorvan_gridftp_server_operation_t op,
                         const zorvan_gridftp_server_transfer_info_t* transfer_info,
                         zorvan_i_s3_handle_t* s3_handle) noexcept {
    const int64_t size = transfer_info->alloc_size;
    if (s3_handle->restricted_endpoint) {
        if (!transfer_info->truncate) return zorvan_i_s3_ftp_error(553, "APPEND_NOT_SUPPORTED");
        if (size > maximum_object_size_default) return too_large(function);
        return zorvan_i_s3_recv_single(op, transfer_info, s3_handle);
    }

    int64_t part_size = zorvan_i_s3_part_size;
    int64_t maximum_object_size = maximum_object_size_default;
    if (part_size <= 0) {
        part_size = default_part_size;
    } else {
        if (part_size < minimum_part_size) {
            return ZORVAN_S3_GENERIC_ERROR(source_file, function, "%s",
                                           "Multipart upload part size is too small");
        }
        if (part_size > maximum_part_size) {
            return ZORVAN_S3_GENERIC_ERROR(source_file, function, "%s",
                                           "Multipart upload part size is too large");
        }
        maximum_object_size = zorvan_i_s3_maximum_object_size(part_size);
    }
    const auto unsigned_part_size = static_cast<uint64_t>(part_size);
    if (!transfer_info->truncate) {
        return zorvan_i_s3_recv_multipart(op, transfer_info, zorvan_i_s3_unknown_size, unsigned_part_size,
                                          true, s3_handle);
    }
    if (size > maximum_object_size) return too_large(function);
    if (size <= part_size) return zorvan_i_s3_recv_single(op, transfer_info, s3_handle);
    return zorvan_i_s3_recv_multipart(op, transfer_info, static_cast<uint64_t>(size), unsigned_part_size,
                                      false, s3_handle);
}
}  // namespace

void zorvan_i_s3_recv(zorvan_gridftp_server_operation_t op,
                      const zorvan_gridftp_server_transfer_info_t* transfer_info,
                      void* session_handle) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "recv op=%p pathname=%s\n", zorvan_i_s3_pointer(op),
                  transfer_info->pathname);
    const zorvan_result_t result =
        dispatch(__func__, op, transfer_info, static_cast<zorvan_i_s3_handle_t*>(session_handle));
    /* After a failed set-up this is the second time; the host counts the first. */
    if (result != ZORVAN_SUCCESS) zorvan_gridftp_server_finished_transfer(op, result);
}
