/*
 * Send: stream an object, or ranges of it, to the client.
 *
 * Flow: the worker asks the host for ranges and GETs each; the data handler copies into transfer buffers and
 * registers them as writes, a bounded number at a time; write completions bring the buffers back. Threads:
 * the worker (which also runs the S3 handlers) and the host's threads share a request under its mutex, which
 * the worker releases while a GET is in flight. Ownership: the worker frees the request after the host has
 * given every buffer back.
 */
#include "buffer_queue.h"
#include "s3_request.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>

namespace {
constexpr const char* source_file = "send";
/** A status of the data handler for "the transfer has failed already". */
constexpr S3Status data_refused = S3StatusInternalError;

struct send_request_t : zorvan_i_s3_request_state_t {
    const zorvan_gridftp_server_transfer_info_t* transfer_info = nullptr;
    uint64_t next_write_offset = 0; /* of the next registered buffer */
    uint64_t range_start = 0;       /* of a whole-object read */
    uint64_t full_size = 0;         /* range start and content length; 0 = unknown */
    bool whole_object = false;
    bool refused = false;  /* the host took no further write; asking again would tell nothing new */
    bool finished = false; /* the host has the outcome: nothing is registered any more */
    zorvan_i_s3_registered_list_t registered;
    zorvan_i_s3_buffer_queue_t pending;
    zorvan_i_s3_buffer_pool_t pool;
    S3BucketContext bucket_context{};
    const char* bucket = nullptr;
    const char* key = nullptr; /* null for a bucket path */
    zorvan_i_s3_text_t etag;
    std::mutex mutex;
    std::condition_variable condition;
    bool checksumming = false;
    zorvan_i_s3_checksum_t* checksum = nullptr;
    uint64_t delivered = 0; /* bytes of this range that earlier tries and this one have handed over */
    uint64_t to_skip = 0;   /* bytes of this try that an earlier one has handed over */
    std::string path;       /* split in place: ends at the bucket name */
    /** The worker's hold on the mutex; used by the worker alone. */
    std::unique_lock<std::mutex> worker_lock{mutex, std::defer_lock};

    send_request_t() = default;
    send_request_t(const send_request_t&) = delete;
    send_request_t& operator=(const send_request_t&) = delete;
    ~send_request_t() {
        zorvan_i_s3_buffer_free_list(&pool.current);
        zorvan_i_s3_buffer_free_list(&pool.free_list);
        pending.free_all();
        zorvan_i_s3_checksum_free(&checksum);
    }

    /** The retry rule's first step; write completions may be recording a refusal meanwhile. */
    void clear_outcome() noexcept {
        const bool held = worker_lock.owns_lock();
        if (!held) worker_lock.lock();
        zorvan_i_s3_request_state_t::clear_outcome();
        refused = false;
        to_skip = delivered;
        if (!held) worker_lock.unlock();
    }
};

send_request_t* request_of(void* callback_data) noexcept {
    return static_cast<send_request_t*>(callback_data);
}

int zorvan_l_s3_send_pending_buffers(send_request_t* request) noexcept;

int optimal_concurrency(const send_request_t& request) noexcept {
    int count = 1;
    zorvan_gridftp_server_get_optimal_concurrency(request.op, &count);
    return std::max(count, 1);
}

void zorvan_l_s3_send_write_callback(zorvan_gridftp_server_operation_t, zorvan_result_t,
                                     unsigned char* buffer, size_t, void* user_argument) {
    zorvan_i_s3_trace_t trace(__func__);
    send_request_t* const request = request_of(user_argument);
    const std::lock_guard lock(request->mutex);
    if (zorvan_i_s3_buffer_t* const s3_buffer = request->registered.take(buffer))
        zorvan_i_s3_buffer_release(&request->pool, s3_buffer);
    if (!request->finished) zorvan_l_s3_send_pending_buffers(request);
    request->condition.notify_all();
}

/** Register pending buffers up to the host's concurrency. The mutex is held. @return 0, or 1 with the refusal
 * kept */
int zorvan_l_s3_send_pending_buffers(send_request_t* request) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    if (request->pending.empty()) return trace.exit(0);
    if (request->refused) return trace.exit(1);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "Currently %d blocks registered\n", request->registered.count());
    const int concurrency = optimal_concurrency(*request);
    while (request->registered.count() < concurrency && !request->pending.empty()) {
        zorvan_i_s3_buffer_t* const s3_buffer = request->pending.head();
        ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "registering write buffer=%p size=%zd offset=%lu\n",
                      static_cast<void*>(s3_buffer->data()), s3_buffer->buffer_used,
                      request->next_write_offset);
        s3_buffer->offset = static_cast<int64_t>(request->next_write_offset);
        const zorvan_result_t result = zorvan_gridftp_server_register_write(
            request->op, s3_buffer->data(), s3_buffer->buffer_used, s3_buffer->offset, -1,
            zorvan_l_s3_send_write_callback, request);
        if (result != ZORVAN_SUCCESS) {
            request->refused = true;
            zorvan_result_t dropped = result;
            if (request->result == ZORVAN_SUCCESS)
                request->result = result;
            else if (dropped != request->result)
                zorvan_i_s3_result_clear(&dropped);
            return trace.exit(1);
        }
        request->next_write_offset += s3_buffer->buffer_used;
        request->pending.pop();
        request->registered.push(s3_buffer);
    }
    return trace.exit(0);
}

S3Status zorvan_l_s3_send_properties(const S3ResponseProperties* properties, void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    send_request_t* const request = request_of(callback_data);
    const std::lock_guard lock(request->mutex);
    if (request->to_skip > 0) {
        /* What was handed over belongs to the object as it was then. */
        const char* const etag = properties ? properties->eTag : nullptr;
        const bool same = request->etag && etag && std::strcmp(request->etag.get(), etag) == 0;
        if (!same) return trace.exit_status(S3StatusErrorPreconditionFailed);
    }
    if (!properties) return trace.exit_status(S3StatusOK);
    char md5sum[zorvan_i_s3_md5sum_size];
    if (request->checksumming && zorvan_i_s3_metadata_has_checksum(properties, md5sum))
        request->checksumming = false;
    request->etag.reset(zorvan_libc_strdup(properties->eTag));
    if (properties->contentLength != 0) {
        /* A sum that wrapped to 0 would be taken for an unknown size, and a short object for a whole one. */
        const uint64_t most = UINT64_MAX - request->range_start;
        request->full_size = request->range_start + std::min<uint64_t>(properties->contentLength, most);
    }
    return trace.exit_status(S3StatusOK);
}

/** Wait until a new buffer may be filled: at most twice the concurrency of full ones may be pending. The
 * mutex is held. @return false when the transfer has failed */
bool wait_for_room(send_request_t* request, std::unique_lock<std::mutex>& lock, int concurrency) noexcept {
    const int64_t most = 2 * int64_t{concurrency};
    while (request->pending.count() > most) {
        if (request->result != ZORVAN_SUCCESS) return false;
        /* Something must be registered, or nobody would end the wait. */
        if (zorvan_l_s3_send_pending_buffers(request) != 0) return false;
        if (request->pending.count() > most) request->condition.wait(lock);
    }
    return request->result == ZORVAN_SUCCESS;
}

S3Status zorvan_l_s3_send_data(int buffer_size, const char* buffer, void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    send_request_t* const request = request_of(callback_data);
    const int concurrency = optimal_concurrency(*request);
    std::unique_lock lock(request->mutex);

    std::string_view block(buffer, static_cast<size_t>(std::max(buffer_size, 0)));
    const uint64_t known = std::min<uint64_t>(request->to_skip, block.size());
    request->to_skip -= known;
    block.remove_prefix(known);

    if (request->checksumming && !block.empty()) {
        zorvan_result_t result = zorvan_i_s3_checksum_update(request->checksum, block.data(), block.size());
        if (result != ZORVAN_SUCCESS) request->checksumming = false;
        zorvan_i_s3_result_clear(&result);
    }
    while (!block.empty()) {
        if (!request->pool.current && !wait_for_room(request, lock, concurrency))
            return trace.exit_status(data_refused);
        zorvan_i_s3_buffer_t* const s3_buffer = zorvan_i_s3_buffer_get(&request->pool, block.size());
        if (!s3_buffer) {
            if (request->result == ZORVAN_SUCCESS) request->result = zorvan_i_s3_malloc_error();
            return trace.exit_status(S3StatusOutOfMemory);
        }
        const uint64_t copy_size =
            std::min<uint64_t>(block.size(), s3_buffer->capacity - s3_buffer->buffer_used);
        zorvan_assert_at(copy_size > 0, "copy_size > 0", source_file, __LINE__);
        std::memcpy(s3_buffer->data() + s3_buffer->buffer_used, block.data(), copy_size);
        s3_buffer->buffer_used += copy_size;
        request->delivered += copy_size;
        block.remove_prefix(copy_size);
        if (s3_buffer->buffer_used == s3_buffer->capacity) {
            request->pending.append(s3_buffer);
            request->pool.current = nullptr;
        }
    }
    return trace.exit_status(static_cast<S3Status>(zorvan_l_s3_send_pending_buffers(request)));
}

/** Read what "%li" reads at `*text` and step behind it. @return false for no number and for one out of range,
 * which would pass for the largest */
bool take_number(const char** text, long* value) noexcept {
    char* end = nullptr;
    errno = 0;
    *value = std::strtol(*text, &end, 0);
    if (end == *text || errno == ERANGE) return false;
    *text = end;
    return true;
}

/** Whether the details of an invalid range prove a read from exactly the object's end to its end. */
bool is_read_at_end(const S3ErrorDetails* details) noexcept {
    constexpr std::string_view unit = "bytes=";
    long requested_start = 0;
    long actual_size = -1;
    for (int i = 0; details && i < details->extraDetailsCount; ++i) {
        const S3NameValue& extra = details->extraDetails[i];
        if (!extra.name || !extra.value) continue;
        const std::string_view name = extra.name;
        const char* value = extra.value;
        if (name == "RangeRequested") {
            if (!std::string_view(value).starts_with(unit)) return false;
            value += unit.size();
            if (!take_number(&value, &requested_start)) return false;
            if (*value != '-') continue;
            char* end = nullptr;
            static_cast<void>(std::strtol(++value, &end, 0));
            if (end != value) return false;
        } else if (name == "ActualObjectSize") {
            if (!take_number(&value, &actual_size)) return false;
        }
    }
    return requested_start != 0 && requested_start == actual_size;
}

void zorvan_l_s3_send_complete(S3Status status, const S3ErrorDetails* error_details,
                               void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    send_request_t* const transfer_state = request_of(callback_data);
    zorvan_assert_at(transfer_state != nullptr, "transfer_state != NULL", source_file, __LINE__);
    const std::lock_guard lock(transfer_state->mutex);
    S3Status outcome = status;
    if (status == S3StatusErrorInvalidRange && is_read_at_end(error_details)) outcome = S3StatusOK;
    if (outcome == S3StatusOK) {
        zorvan_i_s3_buffer_t* const partial = transfer_state->pool.current;
        if (partial && partial->buffer_used > 0) {
            transfer_state->pending.append(partial);
            transfer_state->pool.current = nullptr;
        }
        outcome = static_cast<S3Status>(zorvan_l_s3_send_pending_buffers(transfer_state));
    }
    zorvan_i_s3_record_failure(transfer_state, outcome, transfer_state->path.c_str(), error_details,
                               zorvan_i_s3_keep_t::first);
    if (outcome != S3StatusOK) transfer_state->status = outcome;
    trace.exit_status(status);
}

/** GET one range. The worker holds the mutex before and after, not in between. */
void send_range(const zorvan_i_s3_trace_t& trace, send_request_t* request, int64_t offset,
                int64_t length) noexcept {
    const S3GetObjectHandler handler{
        .responseHandler = {.propertiesCallback = zorvan_l_s3_send_properties,
                            .completeCallback = zorvan_l_s3_send_complete},
        .getObjectDataCallback = zorvan_l_s3_send_data,
    };
    request->try_count = 0;
    request->delivered = 0;
    request->next_write_offset = static_cast<uint64_t>(offset);
    zorvan_i_s3_with_retries(
        trace, *request, "S3_get_object",
        [&] {
            if (request->worker_lock.owns_lock()) request->worker_lock.unlock();
            ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "REST: op=%p S3_get_object(bucket=%s, key=%s) try=%d\n",
                          zorvan_i_s3_pointer(request->op), request->bucket,
                          zorvan_i_s3_printable(request->key), request->try_count);
        },
        [&] {
            S3_get_object(&request->bucket_context, request->key, nullptr, static_cast<uint64_t>(offset),
                          length == -1 ? 0 : static_cast<uint64_t>(length), nullptr, 0, &handler, request);
        });
    request->worker_lock.lock();
}

/** Wait until every full buffer is registered: buffers get their offsets then, and a new range changes what
 * comes next. The worker holds the mutex. */
void wait_until_registered(send_request_t* request) noexcept {
    while (!request->pending.empty() && request->result == ZORVAN_SUCCESS) {
        if (zorvan_l_s3_send_pending_buffers(request) != 0) return;
        if (!request->pending.empty()) request->condition.wait(request->worker_lock);
    }
}

/** Send every range that the host asks for. The worker holds the mutex. */
void send_ranges(const zorvan_i_s3_trace_t& trace, send_request_t* request) noexcept {
    zorvan_off_t offset = 0;
    zorvan_off_t length = 0;
    zorvan_gridftp_server_get_read_range(request->op, &offset, &length);
    if (length == -1) {
        request->whole_object = true;
        request->range_start = static_cast<uint64_t>(offset);
        if (offset == 0) {
            zorvan_result_t result = zorvan_i_s3_checksum_init(&request->checksum);
            request->checksumming = result == ZORVAN_SUCCESS;
            zorvan_i_s3_result_clear(&result);
        }
    }
    while (length != 0 && request->result == ZORVAN_SUCCESS) {
        send_range(trace, request, offset, length);
        zorvan_gridftp_server_get_read_range(request->op, &offset, &length);
        if (length != 0) wait_until_registered(request);
    }
}

/** Let the host write what is pending. The worker holds the mutex. */
void drain(send_request_t* request) noexcept {
    while (!request->pending.empty() || !request->registered.empty()) {
        if (zorvan_l_s3_send_pending_buffers(request) != 0) return;
        request->condition.wait(request->worker_lock);
    }
}

/** Remember the MD5 of a whole object that was read to its end. */
void cache_checksum(send_request_t* request) noexcept {
    zorvan_result_t result = zorvan_i_s3_checksum_finalize(request->checksum);
    if (result == ZORVAN_SUCCESS) {
        zorvan_i_s3_checksum_add(request->bucket, request->key, request->etag.get(),
                                 request->checksum->nbytes, request->checksum->md5sum);
    }
    zorvan_i_s3_result_clear(&result);
}

void* zorvan_l_s3_send_thread(void* argument) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const std::unique_ptr<send_request_t> request(request_of(argument));
    request->worker_lock.lock();
    zorvan_gridftp_server_begin_transfer(request->op, 0, nullptr);
    send_ranges(trace, request.get());
    drain(request.get());

    if (request->result == ZORVAN_SUCCESS && request->whole_object && request->full_size != 0 &&
        request->full_size != request->next_write_offset) {
        request->result = ZORVAN_S3_GENERIC_ERROR(
            source_file, __func__, "Unexpected end of file.  Full size: %llu, size sent: %llu",
            static_cast<unsigned long long>(request->full_size),
            static_cast<unsigned long long>(request->next_write_offset));
    }
    if (request->result == ZORVAN_SUCCESS && request->checksumming) cache_checksum(request.get());

    zorvan_i_s3_log_result(trace.function(), request->result, ZORVAN_S3_INFO, ZORVAN_S3_INFO);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "finished_transfer: op=%p result=%#x\n",
                  zorvan_i_s3_pointer(request->op), request->result);
    request->finished = true;
    zorvan_gridftp_server_finished_transfer(request->op, request->result);
    while (!request->registered.empty())
        request->condition.wait(request->worker_lock);
    request->worker_lock.unlock();
    return nullptr;
}

/** A request for a path, null when memory is exhausted. */
std::unique_ptr<send_request_t> make_request(
    zorvan_gridftp_server_operation_t op,
    const zorvan_gridftp_server_transfer_info_t* transfer_info) noexcept {
    try {
        auto request = std::make_unique<send_request_t>();
        request->op = op;
        request->pool.op = op;
        request->transfer_info = transfer_info;
        request->path = transfer_info->pathname;
        const auto [bucket, key] = zorvan_i_s3_path_split(request->path.data());
        request->bucket = bucket;
        request->key = key;
        return request;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
}  // namespace

void zorvan_i_s3_send(zorvan_gridftp_server_operation_t op,
                      const zorvan_gridftp_server_transfer_info_t* transfer_info,
                      void* session_handle) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    auto* const s3_handle = static_cast<zorvan_i_s3_handle_t*>(session_handle);
    zorvan_assert_at(s3_handle != nullptr, "s3_handle != NULL", source_file, __LINE__);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "send: op=%p pathname=%s\n", zorvan_i_s3_pointer(op),
                  transfer_info->pathname);

    zorvan_result_t result = ZORVAN_SUCCESS;
    auto request = make_request(op, transfer_info);
    if (request) {
        s3_handle->current_op = op;
        result =
            zorvan_i_s3_bucket_context(s3_handle, request->key, request->bucket, &request->bucket_context);
    } else {
        result = zorvan_i_s3_malloc_error();
    }
    if (result == ZORVAN_SUCCESS) {
        if (zorvan_i_s3_start_worker(zorvan_l_s3_send_thread, request.get()) == 0) {
            static_cast<void>(request.release());
            return;
        }
        result = ZORVAN_S3_GENERIC_ERROR(source_file, __func__, "%s", "zorvan_thread_create");
    }
    request.reset();
    zorvan_i_s3_log_result(trace.function(), result);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "finished_command: op=%p result=%#x\n", zorvan_i_s3_pointer(op),
                  result);
    zorvan_gridftp_server_finished_command(op, result, nullptr);
}
