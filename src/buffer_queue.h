/*
 * Lists of transfer buffers, linked through the buffers themselves.
 *
 * A buffer is in one list at a time. Threads: guarded by the transfer's mutex. Ownership: the transfer's.
 */
#ifndef ZORVAN_S3_BUFFER_QUEUE_H
#define ZORVAN_S3_BUFFER_QUEUE_H

#include "zorvan_s3.h"

/** First in, first out, with insertion by offset for data that arrives in any order. */
class zorvan_i_s3_buffer_queue_t {
  public:
    zorvan_i_s3_buffer_queue_t() = default;
    zorvan_i_s3_buffer_queue_t(const zorvan_i_s3_buffer_queue_t&) = delete;
    zorvan_i_s3_buffer_queue_t& operator=(const zorvan_i_s3_buffer_queue_t&) = delete;

    zorvan_i_s3_buffer_t* head() const noexcept { return head_; }
    bool empty() const noexcept { return head_ == nullptr; }
    int count() const noexcept { return count_; }

    void append(zorvan_i_s3_buffer_t* buffer) noexcept { link(tail_, buffer); }

    /** Put a buffer before the first one that ends behind this one's offset. */
    void insert_by_offset(zorvan_i_s3_buffer_t* buffer) noexcept {
        zorvan_i_s3_buffer_t** at = &head_;
        /* Data mostly comes in order: then its place is the end. */
        while (*at && static_cast<uint64_t>((*at)->offset) + (*at)->buffer_used <=
                          static_cast<uint64_t>(buffer->offset))
            at = &(*at)->next;
        link(at, buffer);
    }

    /** Take the head out; null when empty. */
    zorvan_i_s3_buffer_t* pop() noexcept {
        zorvan_i_s3_buffer_t* const buffer = head_;
        if (!buffer) return nullptr;
        head_ = buffer->next;
        if (!head_) tail_ = &head_;
        buffer->next = nullptr;
        --count_;
        return buffer;
    }

    /** Free every buffer. */
    void free_all() noexcept {
        zorvan_i_s3_buffer_free_list(&head_);
        tail_ = &head_;
        count_ = 0;
    }

  private:
    void link(zorvan_i_s3_buffer_t** at, zorvan_i_s3_buffer_t* buffer) noexcept {
        buffer->next = *at;
        *at = buffer;
        if (!buffer->next) tail_ = &buffer->next;
        ++count_;
    }

    zorvan_i_s3_buffer_t* head_ = nullptr;
    zorvan_i_s3_buffer_t** tail_ = &head_;
    int count_ = 0;
};

/** The buffers that the host has, newest first; found again by their data area. */
class zorvan_i_s3_registered_list_t {
  public:
    bool empty() const noexcept { return head_ == nullptr; }
    int count() const noexcept { return count_; }

    void push(zorvan_i_s3_buffer_t* buffer) noexcept {
        buffer->next = head_;
        head_ = buffer;
        ++count_;
    }

    /** Take the buffer with this data area out; null when there is none. */
    zorvan_i_s3_buffer_t* take(const unsigned char* data) noexcept {
        zorvan_i_s3_buffer_t** at = &head_;
        while (*at && (*at)->data() != data)
            at = &(*at)->next;
        zorvan_i_s3_buffer_t* const buffer = *at;
        if (!buffer) return nullptr;
        *at = buffer->next;
        buffer->next = nullptr;
        --count_;
        return buffer;
    }

  private:
    zorvan_i_s3_buffer_t* head_ = nullptr;
    int count_ = 0;
};

#endif
