/*
 * How every worker makes an S3 request: the request state, the retry rule, the recording of a failure.
 *
 * Threads: a request state belongs to the worker whose requests it describes; handlers run on that worker.
 * Ownership: a state owns the error object of its result.
 */
#ifndef ZORVAN_S3_REQUEST_H
#define ZORVAN_S3_REQUEST_H

#include "zorvan_s3.h"

#include <cstdlib>
#include <memory>
#include <new>

/** The part of every state record on which the retry rule and the failure mapping work. */
struct zorvan_i_s3_request_state_t {
    zorvan_gridftp_server_operation_t op = nullptr;
    int try_count = 0;                       /**< attempts made so far */
    S3Status status = S3StatusOK;            /**< outcome of the current attempt */
    zorvan_result_t result = ZORVAN_SUCCESS; /**< owned */

    /** Forget the outcome of the last attempt. */
    void clear_outcome() noexcept {
        status = S3StatusOK;
        zorvan_i_s3_result_clear(&result);
    }
};

/** What to do when a failure is recorded already. */
enum class zorvan_i_s3_keep_t { first, last };

/**
 * The common end of a completion handler: record a failed status with its mapped error.
 * @param keep  first: nothing is recorded when there is a result; last: the earlier result is replaced
 */
void zorvan_i_s3_record_failure(zorvan_i_s3_request_state_t* state, S3Status status, const char* path,
                                const S3ErrorDetails* error_details, zorvan_i_s3_keep_t keep) noexcept;

/** A properties handler that has nothing to read. */
S3Status zorvan_i_s3_accept_properties(const char* function) noexcept;

/** The pause before a further attempt, in microseconds; computed in 32 bits as the rule says, and so possibly
 * negative, which means no pause. */
int32_t zorvan_i_s3_retry_pause(int try_count) noexcept;

/**
 * The retry rule around one S3 call. Retries at most max_retries times, while the status is retryable.
 * @param announce  called before each attempt, after the pause: writes the "REST: " line
 * @param call      makes the request
 */
template <class State, class Announce, class Call>
void zorvan_i_s3_with_retries(const zorvan_i_s3_trace_t& trace, State& state, const char* call_name,
                              Announce announce, Call call) {
    for (;;) {
        state.clear_outcome();
        if (state.try_count > 0) {
            if (const int32_t pause = zorvan_i_s3_retry_pause(state.try_count); pause >= 0)
                zorvan_libc_usleep(pause);
        }
        announce();
        call();
        if (state.status != S3StatusOK) {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "%s: op=%p status=%s[%d]\n", call_name,
                          static_cast<void*>(state.op), S3_get_status_name(state.status),
                          static_cast<int>(state.status));
        }
        if (!S3_status_is_retryable(state.status)) return;
        if (state.try_count >= zorvan_i_s3_max_retries) return;
        ++state.try_count;
    }
}

/**
 * Start a detached worker. @return 0 or an errno value; after 0 the caller touches nothing that the worker
 * owns
 */
inline int zorvan_i_s3_start_worker(void* (*worker)(void*), void* argument) noexcept {
    zorvan_thread_t thread = 0;
    return zorvan_thread_create(&thread, nullptr, worker, argument);
}

/** A malloc'd text. */
struct zorvan_i_s3_free_t {
    void operator()(void* memory) const noexcept { std::free(memory); }
};
using zorvan_i_s3_text_t = std::unique_ptr<char, zorvan_i_s3_free_t>;

/** A handle as the log prints it. */
inline void* zorvan_i_s3_pointer(zorvan_gridftp_server_operation_t op) noexcept {
    return static_cast<void*>(op);
}

#endif
