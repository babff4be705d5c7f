/*
 * The debug log: two printing calls and the line that tells a result.
 *
 * Flow: a statement tests its level and holds the stream, then prints header and message with one of the two
 * calls. Threads: any. The handle is filled and emptied by the base module's activation.
 */
#include "s3_trace.h"

#include <pthread.h>
#include <sys/time.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

zorvan_debug_handle_t zorvan_i_ZORVAN_S3_debug_handle = {};

const char* const zorvan_i_s3_debug_level_names[17] = {
    "", "TRACE", "INFO", "", "DEBUG", "", "", "", "WARN", "", "", "", "", "", "", "", "ERROR",
};

namespace {
constexpr size_t format_size = 4096;

unsigned long thread_id() noexcept {
    return static_cast<unsigned long>(pthread_self());
}
}  // namespace

void zorvan_i_ZORVAN_S3_debug_printf(const char* format, ...) noexcept {
    FILE* const file = zorvan_i_ZORVAN_S3_debug_handle.file;
    if (!file) return;
    char prefixed[format_size];
    const char* used = format;
    if (zorvan_i_ZORVAN_S3_debug_handle.thread_ids) {
        std::snprintf(prefixed, sizeof prefixed, "%lu::%s", thread_id(), format);
        used = prefixed;
    }
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(file, used, arguments);
    va_end(arguments);
}

void zorvan_i_ZORVAN_S3_debug_time_printf(const char* format, ...) noexcept {
    FILE* const file = zorvan_i_ZORVAN_S3_debug_handle.file;
    if (!file) return;
    timeval now{};
    gettimeofday(&now, nullptr);
    const auto seconds = static_cast<unsigned long>(now.tv_sec);
    const auto nanoseconds = static_cast<unsigned long>(now.tv_usec) * 1000UL;
    char prefixed[format_size];
    if (zorvan_i_ZORVAN_S3_debug_handle.thread_ids)
        std::snprintf(prefixed, sizeof prefixed, "%lu:%lu.%.9lu::%s", thread_id(), seconds, nanoseconds,
                      format);
    else
        std::snprintf(prefixed, sizeof prefixed, "%lu.%.9lu::%s", seconds, nanoseconds, format);
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(file, prefixed, arguments);
    va_end(arguments);
}

zorvan_i_s3_debug_statement_t::zorvan_i_s3_debug_statement_t() noexcept
    : stream_(zorvan_i_ZORVAN_S3_debug_handle.file) {
    if (stream_) flockfile(stream_);
}

zorvan_i_s3_debug_statement_t::~zorvan_i_s3_debug_statement_t() {
    if (stream_) funlockfile(stream_);
}

void zorvan_i_s3_log_result(const char* function, zorvan_result_t result,
                            zorvan_i_s3_debug_level_t success_level,
                            zorvan_i_s3_debug_level_t failure_level) noexcept {
    if (result == ZORVAN_SUCCESS) {
        ZORVAN_S3_LOG_AS(function, success_level, "result=ZORVAN_SUCCESS\n");
    } else if (zorvan_i_ZORVAN_S3_debug_handle.levels & failure_level) {
        char* const text = zorvan_error_print_friendly(zorvan_error_peek(result));
        ZORVAN_S3_LOG_AS(function, failure_level, "result=%#x message=%s\n", result, text ? text : "");
        std::free(text);
    }
}
