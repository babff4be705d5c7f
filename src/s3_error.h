/*
 * Error objects of the back end and the mapping of S3 failures to FTP replies.
 *
 * Ownership: a zorvan_result_t that is not success owns an error object until it is handed to the host or
 * released here. Threads: any.
 */
#ifndef ZORVAN_S3_ERROR_H
#define ZORVAN_S3_ERROR_H

#include <libs3.h>
#include <zorvan_common.h>

/** A generic error with a text; source file and function are as they shall be reported. */
#define ZORVAN_S3_GENERIC_ERROR(source_file, function, ...)                                                 \
    zorvan_error_put(zorvan_error_construct_error(nullptr, nullptr, ZORVAN_ERROR_TYPE_GENERIC, source_file, \
                                                  function, __LINE__, __VA_ARGS__))

/** A system error "System error in CALL". */
zorvan_result_t zorvan_i_s3_system_error(int errno_value, const char* call) noexcept;

/** The system error of exhausted memory. */
zorvan_result_t zorvan_i_s3_malloc_error() noexcept;

/** An FTP response without a text and without a cause. */
zorvan_result_t zorvan_i_s3_ftp_error(int code, const char* error_type) noexcept;

/** Release the error object of a result and make it success. */
void zorvan_i_s3_result_clear(zorvan_result_t* result) noexcept;

/**
 * Make the error object of a failed request: an S3 error, wrapped in the FTP response that its status stands
 * for.
 * @param path           the object's path for the texts; may be null
 * @param error_details  the store's error document; may be null
 * @return a new object, not yet in the error table
 */
zorvan_error_t* zorvan_i_S3Error_to_error(S3Status status, const char* path,
                                          const S3ErrorDetails* error_details) noexcept;

#endif
