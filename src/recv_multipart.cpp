/*
 * Multipart upload: not offered yet, each one is refused at its set-up.
 *
 * Runs on the host's thread, inside the receive entry.
 */
#include "receive.h"

namespace {
constexpr const char* source_file = "recv_multipart";
}  // namespace

zorvan_result_t zorvan_i_s3_recv_multipart(zorvan_gridftp_server_operation_t op,
                                           const zorvan_gridftp_server_transfer_info_t* transfer_info,
                                           uint64_t, uint64_t, bool,
                                           zorvan_i_s3_handle_t* s3_handle) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "recv: op=%p pathname=%s\n", zorvan_i_s3_pointer(op),
                  transfer_info->pathname);
    s3_handle->current_op = op;
    return zorvan_i_s3_receive_refuse(
        trace, op,
        ZORVAN_S3_GENERIC_ERROR(source_file, __func__, "%s", "Multipart upload is not available yet."), true);
}
