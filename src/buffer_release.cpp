/*
 * The buffer pool of a transfer.
 *
 * A buffer is in one place at a time: current, in the free list, or in a list of its transfer. Threads: every
 * call is made under the transfer's mutex. Ownership: the transfer frees its buffers when it ends.
 */
#include "s3_request.h"

namespace {
/** The largest data area to which the header can be added without overflow. */
constexpr uint64_t largest_size = ~uint64_t{0} - sizeof(zorvan_i_s3_buffer_t);
}  // namespace

zorvan_i_s3_buffer_t* zorvan_i_s3_buffer_get(zorvan_i_s3_buffer_pool_t* pool,
                                             uint64_t requested_size) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    if (pool->current) return pool->current;

    ZORVAN_S3_LOG(trace, ZORVAN_S3_TRACE, "no current buffer\n");
    if (pool->free_list) {
        pool->current = pool->free_list;
        pool->free_list = pool->current->next;
        pool->current->next = nullptr;
        return pool->current;
    }

    ZORVAN_S3_LOG(trace, ZORVAN_S3_TRACE, "no free buffers\n");
    size_t optimal_size = 1;
    zorvan_gridftp_server_get_block_size(pool->op, &optimal_size);
    uint64_t size = requested_size;
    if (requested_size < optimal_size) {
        ZORVAN_S3_LOG(trace, ZORVAN_S3_TRACE, "requested_size=%zd optimal_size=%zd\n", requested_size,
                      optimal_size);
        size = optimal_size;
    }
    if (size > largest_size) size = largest_size;

    auto* const s3_buffer =
        static_cast<zorvan_i_s3_buffer_t*>(std::malloc(sizeof(zorvan_i_s3_buffer_t) + size));
    ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "new_buffer=%p size=%zd buffer=%p\n", static_cast<void*>(s3_buffer),
                  size, static_cast<void*>(s3_buffer ? s3_buffer->data() : nullptr));
    if (!s3_buffer) {
        ZORVAN_S3_LOG(trace, ZORVAN_S3_WARN, "error allocating buffer\n");
        return nullptr;
    }
    *s3_buffer = {.capacity = size, .buffer_used = 0, .offset = -1, .next = nullptr};
    pool->current = s3_buffer;
    return s3_buffer;
}

void zorvan_i_s3_buffer_release(zorvan_i_s3_buffer_pool_t* pool, zorvan_i_s3_buffer_t* s3_buffer) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    zorvan_assert_at(s3_buffer != nullptr, "s3_buffer != NULL", "buffer_release", __LINE__);
    s3_buffer->buffer_used = 0;
    s3_buffer->next = pool->free_list;
    pool->free_list = s3_buffer;
}

void zorvan_i_s3_buffer_free_list(zorvan_i_s3_buffer_t** list) noexcept {
    while (*list) {
        zorvan_i_s3_buffer_t* const next = (*list)->next;
        std::free(*list);
        *list = next;
    }
}
