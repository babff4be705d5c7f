/*
 * The command entry.
 *
 * No command is offered yet: each code is answered as unsupported, from the host's thread.
 */
#include "s3_request.h"

void zorvan_i_s3_command(zorvan_gridftp_server_operation_t op, const zorvan_gridftp_server_command_info_t*,
                         void*) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    zorvan_gridftp_server_finished_command(op, ZORVAN_FAILURE, nullptr);
}
