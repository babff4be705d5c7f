/*
 * The properties of a new object, built the same way for single and multipart uploads.
 *
 * Runs on a worker.
 */
#include "upload_properties.h"

#include <strings.h>
#include <cstdio>
#include <cstring>

S3PutProperties zorvan_i_s3_object_properties(const char* content_type,
                                              const zorvan_i_s3_handle_t& s3_handle) noexcept {
    return {
        .contentType = content_type,
        .md5 = nullptr,
        .cacheControl = nullptr,
        .contentDispositionFilename = nullptr,
        .contentEncoding = nullptr,
        .expires = -1,
        .cannedAcl = S3CannedAclPrivate,
        .metaDataCount = 0,
        .metaData = nullptr,
        .useServerSideEncryption = 0,
        .putOption = s3_handle.put_option,
    };
}

void zorvan_i_s3_upload_properties_t::add(const char* name, const char* value) noexcept {
    metadata_[properties_.metaDataCount] = {.name = name, .value = value};
    ++properties_.metaDataCount;
}

zorvan_result_t zorvan_i_s3_upload_properties_t::build(
    const zorvan_i_s3_trace_t& trace, const char* source_file, zorvan_gridftp_server_operation_t op,
    const char* key, const zorvan_gridftp_server_transfer_info_t& transfer_info,
    const zorvan_i_s3_handle_t& s3_handle) noexcept {
    /* The client's digest travels as metadata alone: a request's own MD5 stays empty. */
    properties_ = zorvan_i_s3_object_properties(zorvan_i_s3_mime_type_of_key(key), s3_handle);
    properties_.metaData = metadata_;

    int64_t modified = -1;
    if (zorvan_gridftp_server_get_recv_modification_time(op, &modified) == ZORVAN_SUCCESS && modified != -1) {
        std::snprintf(mtime_, sizeof mtime_, "%ld", modified);
        add("mtime", mtime_);
    }

    const char* const algorithm = transfer_info.expected_checksum_algorithm;
    if (!algorithm || strcasecmp(algorithm, "md5") != 0) return ZORVAN_SUCCESS;
    const char* const expected = transfer_info.expected_checksum;
    if (!expected || std::strlen(expected) != zorvan_i_s3_md5sum_size - 1)
        return ZORVAN_S3_GENERIC_ERROR(source_file, trace.function(), "%s", "Invalid md5 checksum");
    const zorvan_result_t result = zorvan_i_s3_md5sum_encode(expected, md5_);
    if (result == ZORVAN_SUCCESS) add("md5", md5_);
    return result;
}
