// The calls that move data and the queries of a running operation. Any thread, none blocks. No exception
// leaves.
#include <zorvan_gridftp_server.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include "operation.h"
#include "out_of_memory.h"

using namespace zorvan::gridftp;

namespace {

zorvan_result_t copy_out(const std::optional<std::string>& text, char** out) {
    if (!text) {
        return ZORVAN_SUCCESS;
    }
    *out = zorvan_libc_strdup(text->c_str());
    return *out != nullptr ? ZORVAN_SUCCESS : ZORVAN_FAILURE;
}

}  // namespace

extern "C" {

void zorvan_gridftp_server_begin_transfer(zorvan_gridftp_server_operation_t op, int /*event_mask*/,
                                          void* /*event_argument*/) {
    if (auto found = operation::find(op)) {
        found->begin_transfer();
    }
}

zorvan_result_t zorvan_gridftp_server_register_read(zorvan_gridftp_server_operation_t op,
                                                    unsigned char* buffer, size_t length,
                                                    zorvan_gridftp_server_read_callback_t callback,
                                                    void* user_argument) {
    auto found = operation::find(op);
    return found ? found->register_read({buffer, length, callback, user_argument}) : ZORVAN_FAILURE;
}

zorvan_result_t zorvan_gridftp_server_register_write(zorvan_gridftp_server_operation_t op,
                                                     unsigned char* buffer, size_t length,
                                                     zorvan_off_t offset, int /*stripe*/,
                                                     zorvan_gridftp_server_write_callback_t callback,
                                                     void* user_argument) {
    auto found = operation::find(op);
    return found ? found->register_write({buffer, length, offset, callback, user_argument}) : ZORVAN_FAILURE;
}

void zorvan_gridftp_server_update_bytes_recvd(zorvan_gridftp_server_operation_t op, zorvan_off_t nbytes,
                                              zorvan_off_t /*offset*/) {
    if (auto found = operation::find(op)) {
        found->count_received(nbytes);
    }
}

void zorvan_gridftp_server_update_range_recvd(zorvan_gridftp_server_operation_t op, zorvan_off_t offset,
                                              zorvan_off_t length) {
    auto found = operation::find(op);
    if (found && offset >= 0 && length > 0 && length <= std::numeric_limits<zorvan_off_t>::max() - offset) {
        // A range that is not offered as a restart point costs a repetition, no more.
        (void)run_without_throwing([&] { found->add_durable_range(offset, length); });
    }
}

zorvan_result_t zorvan_gridftp_server_get_read_range(zorvan_gridftp_server_operation_t op,
                                                     zorvan_off_t* offset, zorvan_off_t* length) {
    auto found = operation::find(op);
    if (!found || found->kind() != operation_kind::send || offset == nullptr || length == nullptr) {
        return ZORVAN_FAILURE;
    }
    const auto range = found->next_read_range();
    *offset = range.offset;
    *length = range.length;
    return ZORVAN_SUCCESS;
}

zorvan_result_t zorvan_gridftp_server_get_write_range(zorvan_gridftp_server_operation_t op,
                                                      zorvan_off_t* offset, zorvan_off_t* length) {
    auto found = operation::find(op);
    const auto range = found ? found->write_range() : std::nullopt;
    if (!range || offset == nullptr || length == nullptr) {
        return ZORVAN_FAILURE;
    }
    *offset = range->offset;
    *length = range->length;
    return ZORVAN_SUCCESS;
}

zorvan_result_t zorvan_gridftp_server_get_block_size(zorvan_gridftp_server_operation_t op, size_t* size) {
    auto found = operation::find(op);
    if (!found || size == nullptr) {
        return ZORVAN_FAILURE;
    }
    *size = std::max<std::size_t>(1, found->session()->shared.config().block_size);
    return ZORVAN_SUCCESS;
}

zorvan_result_t zorvan_gridftp_server_get_optimal_concurrency(zorvan_gridftp_server_operation_t op,
                                                              int* count) {
    auto found = operation::find(op);
    if (!found || count == nullptr) {
        return ZORVAN_FAILURE;
    }
    *count = found->concurrency();
    return ZORVAN_SUCCESS;
}

zorvan_result_t zorvan_gridftp_server_get_recv_modification_time(zorvan_gridftp_server_operation_t op,
                                                                 int64_t* time) {
    auto found = operation::find(op);
    if (!found || time == nullptr || !found->records.modification_time) {
        return ZORVAN_FAILURE;
    }
    *time = *found->records.modification_time;
    return ZORVAN_SUCCESS;
}

zorvan_result_t zorvan_gridftp_server_get_update_interval(zorvan_gridftp_server_operation_t op,
                                                          int* seconds) {
    auto found = operation::find(op);
    if (!found || seconds == nullptr) {
        return ZORVAN_FAILURE;
    }
    const auto interval = found->session()->shared.config().update_interval;
    *seconds = found->records.wants_progress
                   ? static_cast<int>(std::chrono::duration_cast<std::chrono::seconds>(interval).count())
                   : 0;
    return ZORVAN_SUCCESS;
}

zorvan_result_t zorvan_gridftp_server_get_config_string(zorvan_gridftp_server_operation_t /*op*/,
                                                        char** out) {
    if (out == nullptr) {
        return ZORVAN_FAILURE;
    }
    *out = nullptr;
    zorvan_result_t result = ZORVAN_FAILURE;
    (void)run_without_throwing([&] { result = copy_out(backend_options(), out); });
    return result;
}

zorvan_result_t zorvan_gridftp_server_get_config_data(zorvan_gridftp_server_operation_t op, const char* key,
                                                      char** out) {
    auto found = operation::find(op);
    if (out == nullptr) {
        return ZORVAN_FAILURE;
    }
    *out = nullptr;
    if (!found || key == nullptr || std::strcmp(key, "config") != 0) {
        return ZORVAN_FAILURE;
    }
    return copy_out(found->session()->record.policy, out);
}

}  // extern "C"
