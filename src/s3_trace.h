/*
 * The levelled debug log (environment variable ZORVAN_S3_DEBUG) and the trace of functions.
 *
 * Each function begins with a zorvan_i_s3_trace_t, which writes "enter" and, at its end, the exit line that
 * fits what the function returns. Threads: any; nobody writes between a statement's header and its message.
 */
#ifndef ZORVAN_S3_TRACE_H
#define ZORVAN_S3_TRACE_H

#include <libs3.h>
#include <zorvan_common.h>

#include <cstdint>
#include <cstdio>

/** Levels of the debug log. */
enum zorvan_i_s3_debug_level_t : uint32_t {
    ZORVAN_S3_TRACE = 1,
    ZORVAN_S3_INFO = 2,
    ZORVAN_S3_DEBUG = 4,
    ZORVAN_S3_WARN = 8,
    ZORVAN_S3_ERROR = 16,
};

extern zorvan_debug_handle_t zorvan_i_ZORVAN_S3_debug_handle;
/** Printed names, indexed by a level's bit value. */
extern const char* const zorvan_i_s3_debug_level_names[17];

/** Print to the debug stream, after the thread's id when that is wanted. Without a stream nothing happens. */
void zorvan_i_ZORVAN_S3_debug_printf(const char* format, ...) noexcept ZORVAN_PRINTF(1, 2);
/** The same with a time (seconds and nine digits of their fraction). */
void zorvan_i_ZORVAN_S3_debug_time_printf(const char* format, ...) noexcept ZORVAN_PRINTF(1, 2);

/** One of the two, as the level wants it. */
#define ZORVAN_S3_DEBUG_PRINT(level, ...)                                   \
    do {                                                                    \
        if (zorvan_i_ZORVAN_S3_debug_handle.levels & (level)) {             \
            if (zorvan_i_ZORVAN_S3_debug_handle.timestamp_levels & (level)) \
                zorvan_i_ZORVAN_S3_debug_time_printf(__VA_ARGS__);          \
            else                                                            \
                zorvan_i_ZORVAN_S3_debug_printf(__VA_ARGS__);               \
        }                                                                   \
    } while (0)

/**
 * Holds the debug stream for one statement, so that those of other threads come before or after it. The lock
 * is the stream's own: the two prints take it again. Without a stream nothing is held.
 */
class zorvan_i_s3_debug_statement_t {
  public:
    zorvan_i_s3_debug_statement_t() noexcept;
    zorvan_i_s3_debug_statement_t(const zorvan_i_s3_debug_statement_t&) = delete;
    zorvan_i_s3_debug_statement_t& operator=(const zorvan_i_s3_debug_statement_t&) = delete;
    ~zorvan_i_s3_debug_statement_t();

  private:
    FILE* stream_;
};

/** A log statement: header, then message. Arguments are not evaluated while the level is off. */
#define ZORVAN_S3_LOG_AS(function_name, level, ...)                                             \
    do {                                                                                        \
        if (zorvan_i_ZORVAN_S3_debug_handle.levels & (level)) {                                 \
            const zorvan_i_s3_debug_statement_t debug_statement;                                \
            ZORVAN_S3_DEBUG_PRINT(level, "s3: %5s: %s: ", zorvan_i_s3_debug_level_names[level], \
                                  function_name);                                               \
            ZORVAN_S3_DEBUG_PRINT(level, __VA_ARGS__);                                          \
        }                                                                                       \
    } while (0)

/** The same in the name of a function's trace. */
#define ZORVAN_S3_LOG(trace, level, ...) ZORVAN_S3_LOG_AS((trace).function(), level, __VA_ARGS__)

/** Log a result: "result=ZORVAN_SUCCESS" at `success_level`, number and text at `failure_level`. */
void zorvan_i_s3_log_result(const char* function, zorvan_result_t result,
                            zorvan_i_s3_debug_level_t success_level = ZORVAN_S3_TRACE,
                            zorvan_i_s3_debug_level_t failure_level = ZORVAN_S3_ERROR) noexcept;

/** The trace of one call of a function. Lives on the stack of that call. */
class zorvan_i_s3_trace_t {
  public:
    /** @param function  name in the header lines, borrowed: a static text */
    explicit zorvan_i_s3_trace_t(const char* function) noexcept : function_(function) {
        ZORVAN_S3_LOG_AS(function_, ZORVAN_S3_TRACE, "enter\n");
    }
    zorvan_i_s3_trace_t(const zorvan_i_s3_trace_t&) = delete;
    zorvan_i_s3_trace_t& operator=(const zorvan_i_s3_trace_t&) = delete;
    ~zorvan_i_s3_trace_t() {
        if (!told_) ZORVAN_S3_LOG_AS(function_, ZORVAN_S3_TRACE, "exit\n");
    }

    const char* function() const noexcept { return function_; }

    /** The function returns a number or a truth value. */
    int exit(int value) noexcept {
        told_ = true;
        ZORVAN_S3_LOG_AS(function_, ZORVAN_S3_TRACE, "exit: %d\n", value);
        return value;
    }
    /** The function is a handler of a request. */
    S3Status exit_status(S3Status status) noexcept {
        told_ = true;
        ZORVAN_S3_LOG_AS(function_, ZORVAN_S3_TRACE, "exit status=%d: %s\n", static_cast<int>(status),
                         S3_get_status_name(status));
        return status;
    }
    /** The function returns a host result. */
    zorvan_result_t exit_result(zorvan_result_t result) noexcept {
        told_ = true;
        zorvan_i_s3_log_result(function_, result);
        return result;
    }

  private:
    const char* function_;
    bool told_ = false;
};

#endif
