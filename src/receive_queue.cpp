/*
 * The receive core: read registration, the queue in offset order, set-up and end of an upload.
 *
 * See receive.h for flow, threads and ownership.
 */
#include "receive.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

zorvan_i_s3_receive_t::~zorvan_i_s3_receive_t() {
    zorvan_i_s3_buffer_free_list(&pool.current);
    zorvan_i_s3_buffer_free_list(&pool.free_list);
    pending.free_all();
}

void zorvan_i_s3_receive_t::wait() noexcept {
    std::unique_lock lock(mutex, std::adopt_lock);
    condition.wait(lock);
    static_cast<void>(lock.release());
}

void zorvan_i_s3_receive_t::fail(zorvan_result_t error) noexcept {
    if (result == ZORVAN_SUCCESS)
        result = error;
    else if (error != result)
        zorvan_i_s3_result_clear(&error);
    eof = true;
}

namespace {
/** Report a set-up failure to the host. @param logged  whether the finished_transfer line is written
 *  @return the same result, which the host owns now */
zorvan_result_t refuse(zorvan_i_s3_trace_t& trace, zorvan_gridftp_server_operation_t op,
                       zorvan_result_t result, bool logged) noexcept {
    /* The line comes first: finishing hands the error object over. */
    trace.exit_result(result);
    if (logged) {
        ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "finished_transfer: op=%p result=%#x\n", zorvan_i_s3_pointer(op),
                      result);
    }
    zorvan_gridftp_server_finished_transfer(op, result);
    return result;
}

/** Fill a state for a transfer: records, path, bucket context. */
zorvan_result_t set_up(zorvan_i_s3_receive_t* transfer_state, const zorvan_i_s3_receive_rules_t* rules,
                       zorvan_gridftp_server_operation_t op,
                       const zorvan_gridftp_server_transfer_info_t* transfer_info,
                       zorvan_i_s3_handle_t* s3_handle) noexcept {
    transfer_state->rules = rules;
    transfer_state->s3_handle = s3_handle;
    transfer_state->transfer_info = transfer_info;
    transfer_state->op = op;
    transfer_state->pool.op = op;
    s3_handle->current_op = op;
    try {
        transfer_state->path = transfer_info->pathname;
    } catch (const std::bad_alloc&) {
        return zorvan_i_s3_malloc_error();
    }
    const auto [bucket, key] = zorvan_i_s3_path_split(transfer_state->path.data());
    transfer_state->bucket = bucket;
    transfer_state->key = key;
    return zorvan_i_s3_bucket_context(s3_handle, key, bucket, &transfer_state->bucket_context);
}
}  // namespace

zorvan_result_t zorvan_i_s3_receive_start(zorvan_i_s3_trace_t& trace,
                                          std::unique_ptr<zorvan_i_s3_receive_t> transfer_state,
                                          const zorvan_i_s3_receive_rules_t* rules,
                                          zorvan_gridftp_server_operation_t op,
                                          const zorvan_gridftp_server_transfer_info_t* transfer_info,
                                          zorvan_i_s3_handle_t* s3_handle) noexcept {
    ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "recv: op=%p pathname=%s\n", zorvan_i_s3_pointer(op),
                  transfer_info->pathname);
    if (!transfer_state) return refuse(trace, op, zorvan_i_s3_malloc_error(), false);
    const zorvan_result_t result = set_up(transfer_state.get(), rules, op, transfer_info, s3_handle);
    if (result != ZORVAN_SUCCESS) return refuse(trace, op, result, false);

    if (zorvan_i_s3_start_worker(rules->worker, transfer_state.get()) != 0) {
        return refuse(
            trace, op,
            ZORVAN_S3_GENERIC_ERROR(rules->source_file, trace.function(), "%s", "zorvan_thread_create"),
            true);
    }
    static_cast<void>(transfer_state.release());
    return trace.exit_result(ZORVAN_SUCCESS);
}

zorvan_result_t zorvan_i_s3_receive_register_reads(zorvan_i_s3_receive_t* transfer_state) noexcept {
    zorvan_i_s3_trace_t trace(transfer_state->rules->register_function);
    const auto leave = [&](zorvan_result_t result) {
        return transfer_state->rules->registration_has_result ? trace.exit_result(result) : result;
    };
    if (transfer_state->result != ZORVAN_SUCCESS || transfer_state->eof) return leave(ZORVAN_SUCCESS);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_TRACE, "Currently %d blocks registered, %d blocks pending\n",
                  transfer_state->registered.count(), transfer_state->pending.count());
    size_t block_size = 1;
    int concurrency = 1;
    zorvan_gridftp_server_get_block_size(transfer_state->op, &block_size);
    zorvan_gridftp_server_get_optimal_concurrency(transfer_state->op, &concurrency);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_TRACE, "Optimal is %d blocks\n", concurrency);

    while (transfer_state->registered.count() < concurrency) {
        zorvan_i_s3_buffer_pool_t& pool = transfer_state->pool;
        zorvan_i_s3_buffer_t* const buffer = zorvan_i_s3_buffer_get(&pool, block_size);
        if (!buffer) return leave(zorvan_i_s3_malloc_error());
        pool.current = nullptr;
        buffer->offset = -1;
        zorvan_assert_at(buffer->buffer_used == 0, "buffer->buffer_used == 0",
                         transfer_state->rules->source_file, __LINE__);
        ZORVAN_S3_LOG(trace, ZORVAN_S3_TRACE, "Registering read with s3_buffer=%p\n",
                      static_cast<void*>(buffer));
        const zorvan_result_t result =
            zorvan_gridftp_server_register_read(transfer_state->op, buffer->data(), buffer->capacity,
                                                transfer_state->rules->read_callback, transfer_state);
        if (result != ZORVAN_SUCCESS) {
            zorvan_i_s3_buffer_release(&pool, buffer);
            return leave(result);
        }
        transfer_state->registered.push(buffer);
    }
    return leave(ZORVAN_SUCCESS);
}

void zorvan_i_s3_receive_keep_reading(zorvan_i_s3_receive_t* transfer_state) noexcept {
    zorvan_result_t result = zorvan_i_s3_receive_register_reads(transfer_state);
    if (result == ZORVAN_SUCCESS) return;
    if (transfer_state->registered.empty())
        transfer_state->fail(result);
    else
        zorvan_i_s3_result_clear(&result);
}

void zorvan_i_s3_receive_read_completed(zorvan_i_s3_receive_t* transfer_state, zorvan_result_t result,
                                        unsigned char* buffer, size_t nbytes, zorvan_off_t offset,
                                        int eof) noexcept {
    const zorvan_i_s3_receive_rules_t& rules = *transfer_state->rules;
    zorvan_i_s3_trace_t trace(rules.read_function);
    const std::lock_guard lock(transfer_state->mutex);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG,
                  "recv_read_callback: op=%p result=%#x buffer=%p nbytes=%zd offset=%lu eof=%d user_arg=%p%s",
                  zorvan_i_s3_pointer(transfer_state->op), result, static_cast<void*>(buffer), nbytes, offset,
                  eof, static_cast<void*>(transfer_state), rules.read_line_end);
    if (eof) transfer_state->eof = true;
    if (rules.keeps_read_results && result != ZORVAN_SUCCESS) transfer_state->fail(result);

    zorvan_i_s3_buffer_t* const s3_buffer = transfer_state->registered.take(buffer);
    zorvan_assert_at(s3_buffer != nullptr, "s3_buffer != NULL", rules.source_file, __LINE__);
    s3_buffer->offset = offset;
    s3_buffer->buffer_used = nbytes;
    if (rules.counts_bytes_after_failure || transfer_state->result == ZORVAN_SUCCESS) {
        zorvan_gridftp_server_update_bytes_recvd(transfer_state->op, static_cast<zorvan_off_t>(nbytes),
                                                 offset);
    }

    const auto start = static_cast<uint64_t>(offset);
    const bool beyond_limit =
        start > transfer_state->size_limit || nbytes > transfer_state->size_limit - start;
    if (transfer_state->result == ZORVAN_SUCCESS && beyond_limit)
        transfer_state->fail(zorvan_i_s3_system_error(EFBIG, "write"));
    if (transfer_state->result != ZORVAN_SUCCESS) {
        transfer_state->eof = true;
        s3_buffer->offset = 0;
        zorvan_i_s3_buffer_release(&transfer_state->pool, s3_buffer);
    } else if (nbytes == 0) {
        s3_buffer->offset = -1;
        zorvan_i_s3_buffer_release(&transfer_state->pool, s3_buffer);
    } else {
        transfer_state->pending.insert_by_offset(s3_buffer);
    }
    transfer_state->condition.notify_all();
}

namespace {
/** Wait until the queue has the current offset or nothing more will come. The mutex is held. */
void wait_for_data(const zorvan_i_s3_trace_t& trace, zorvan_i_s3_receive_t* transfer_state) noexcept {
    const auto ready = [transfer_state] {
        const zorvan_i_s3_buffer_t* const head = transfer_state->pending.head();
        return head && static_cast<uint64_t>(head->offset) == transfer_state->current_offset;
    };
    while (!ready() && !(transfer_state->eof && transfer_state->registered.empty())) {
        zorvan_i_s3_receive_keep_reading(transfer_state);
        ZORVAN_S3_LOG(trace, ZORVAN_S3_TRACE, "Waiting for current offset %lu to be ready\n",
                      transfer_state->current_offset);
        if (!transfer_state->registered.empty()) transfer_state->wait();
    }
}

/** Take bytes at the current offset, as many as are there and at most `size`. The mutex is held.
 *  @return how many */
size_t take(const zorvan_i_s3_trace_t& trace, zorvan_i_s3_receive_t* transfer_state, char* buffer,
            size_t size) noexcept {
    size_t bytes_copied = 0;
    while (bytes_copied < size) {
        zorvan_i_s3_buffer_t* const s3_buffer = transfer_state->pending.head();
        if (!s3_buffer || static_cast<uint64_t>(s3_buffer->offset) != transfer_state->current_offset) break;
        const size_t to_copy = std::min<size_t>(size - bytes_copied, s3_buffer->buffer_used);
        zorvan_assert_at(to_copy > 0, "to_copy > 0", transfer_state->rules->source_file, __LINE__);
        std::memcpy(buffer + bytes_copied, s3_buffer->data(), to_copy);
        bytes_copied += to_copy;
        transfer_state->current_offset += to_copy;
        if (to_copy < s3_buffer->buffer_used) {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_TRACE, "partial_buffer_copy: op=%p bytes_copied=%d\n",
                          zorvan_i_s3_pointer(transfer_state->op), static_cast<int>(bytes_copied));
            s3_buffer->buffer_used -= to_copy;
            s3_buffer->offset += static_cast<int64_t>(to_copy);
            std::memmove(s3_buffer->data(), s3_buffer->data() + to_copy, s3_buffer->buffer_used);
        } else {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_TRACE, "add_to_pending_buffers: op=%p s3_buffer=%p\n",
                          zorvan_i_s3_pointer(transfer_state->op), static_cast<void*>(s3_buffer));
            transfer_state->pending.pop();
            s3_buffer->offset = -1;
            zorvan_i_s3_buffer_release(&transfer_state->pool, s3_buffer);
        }
    }
    return bytes_copied;
}
}  // namespace

int zorvan_i_s3_receive_data(const zorvan_i_s3_trace_t& trace, zorvan_i_s3_receive_t* transfer_state,
                             int buffer_size, char* buffer, uint64_t room) noexcept {
    ZORVAN_S3_LOG(trace, ZORVAN_S3_TRACE, "recv_single_data: op=%p buffer_size=%d buffer=%p\n",
                  zorvan_i_s3_pointer(transfer_state->op), buffer_size, static_cast<void*>(buffer));
    wait_for_data(trace, transfer_state);
    if (transfer_state->result != ZORVAN_SUCCESS) return -1;
    const auto size = std::min<uint64_t>(static_cast<uint64_t>(buffer_size), room);
    return static_cast<int>(take(trace, transfer_state, buffer, size));
}

void zorvan_i_s3_receive_wait_for_reads(zorvan_i_s3_receive_t* transfer_state) noexcept {
    while (!transfer_state->registered.empty())
        transfer_state->wait();
}

void zorvan_i_s3_receive_finish(const zorvan_i_s3_trace_t& trace,
                                zorvan_i_s3_receive_t* transfer_state) noexcept {
    zorvan_i_s3_log_result(trace.function(), transfer_state->result, ZORVAN_S3_INFO, ZORVAN_S3_INFO);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "finished_transfer: op=%p result=%#x\n",
                  zorvan_i_s3_pointer(transfer_state->op), transfer_state->result);
    zorvan_gridftp_server_finished_transfer(transfer_state->op, transfer_state->result);
}

S3Status zorvan_i_s3_receive_properties(const char* function,
                                        zorvan_i_s3_receive_t* transfer_state) noexcept {
    zorvan_i_s3_trace_t trace(function);
    return trace.exit_status(transfer_state->result == ZORVAN_SUCCESS ? S3StatusOK : S3StatusInternalError);
}

void zorvan_i_s3_receive_complete(const char* function, const char* source_file, S3Status status,
                                  const S3ErrorDetails* error_details, zorvan_i_s3_receive_t* transfer_state,
                                  bool tells_result) noexcept {
    zorvan_i_s3_trace_t trace(function);
    zorvan_assert_at(transfer_state != nullptr, "transfer_state != NULL", source_file, __LINE__);
    zorvan_i_s3_record_failure(transfer_state, status, transfer_state->transfer_info->pathname, error_details,
                               zorvan_i_s3_keep_t::first);
    if (tells_result) zorvan_i_s3_log_result(function, transfer_state->result);
    trace.exit_status(status);
}
