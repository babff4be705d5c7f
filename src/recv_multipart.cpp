/*
 * Upload in parts, fresh or resumed.
 *
 * Flow: the worker finds the upload in progress of the key (and aborts it, or resumes it), begins a new one,
 * lists what a resumed one has, uploads the missing parts one after another out of the receive queue, and
 * commits. Each part's MD5 is compared with the ETag that the store gave, and the file's MD5 is remembered; a
 * resumed upload lacks the bytes for that. A failed upload stays in the store, to be resumed. Threads and
 * ownership: see receive.h.
 */
#include "recv_multipart.h"

#include "upload_properties.h"

#include <strings.h>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

namespace {
constexpr const char* source_file = "recv_multipart";
constexpr std::string_view commit_begin = "<CompleteMultipartUpload>";
constexpr std::string_view commit_end = "</CompleteMultipartUpload>";

/** Whether a step went well. The error of one that did not is released. */
bool succeeded(zorvan_result_t result) noexcept {
    const bool success = result == ZORVAN_SUCCESS;
    zorvan_i_s3_result_clear(&result);
    return success;
}

bool begin_checksum(zorvan_i_s3_checksum_t** checksum) noexcept {
    zorvan_i_s3_checksum_free(checksum);
    return succeeded(zorvan_i_s3_checksum_init(checksum));
}

/** Keep a copy of an ETag, unless there is none. */
void keep_etag(zorvan_i_s3_multipart_t* transfer_state, const char* etag) noexcept {
    if (etag && *etag) transfer_state->etag.reset(zorvan_libc_strdup(etag));
}

/* ------------------------------------------------------------------------- reads */

void zorvan_l_s3_recv_multipart_read_callback(zorvan_gridftp_server_operation_t, zorvan_result_t result,
                                              unsigned char* buffer, size_t nbytes, zorvan_off_t offset,
                                              int eof, void* user_argument) {
    zorvan_i_s3_receive_read_completed(zorvan_i_s3_multipart_of(user_argument), result, buffer, nbytes,
                                       offset, eof);
}

/* --------------------------------------------------------------------- the abort */

struct abort_state_t : zorvan_i_s3_request_state_t {
    const char* pathname = nullptr;
};

S3Status zorvan_l_s3_recv_multipart_abort_properties(const S3ResponseProperties*, void*) noexcept {
    return zorvan_i_s3_accept_properties(__func__);
}

void zorvan_l_s3_recv_multipart_abort_complete(S3Status status, const S3ErrorDetails* error_details,
                                               void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    if (auto* const abort_state = static_cast<abort_state_t*>(callback_data))
        zorvan_i_s3_record_failure(abort_state, status, abort_state->pathname, error_details,
                                   zorvan_i_s3_keep_t::first);
    trace.exit_status(status);
}

/* ------------------------------------------------------------------ the beginning */

S3Status zorvan_l_s3_recv_multipart_initiate_properties(const S3ResponseProperties*, void*) noexcept {
    return zorvan_i_s3_accept_properties(__func__);
}

S3Status zorvan_l_s3_recv_multipart_initiate_response_callback(const char* upload_id,
                                                               void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    zorvan_i_s3_multipart_t* const transfer_state = zorvan_i_s3_multipart_of(callback_data);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "transfer_id=%s\n", zorvan_i_s3_printable(upload_id));
    transfer_state->upload_id.reset(upload_id && *upload_id ? zorvan_libc_strdup(upload_id) : nullptr);
    if (transfer_state->upload_id) return trace.exit_status(S3StatusOK);
    if (transfer_state->result == ZORVAN_SUCCESS) {
        transfer_state->result =
            ZORVAN_S3_GENERIC_ERROR(source_file, trace.function(), "%s", "No multipart upload id");
    }
    return trace.exit_status(S3StatusInternalError);
}

void zorvan_l_s3_recv_multipart_initiate_complete(S3Status status, const S3ErrorDetails* error_details,
                                                  void* callback_data) noexcept {
    zorvan_i_s3_receive_complete(__func__, source_file, status, error_details,
                                 zorvan_i_s3_multipart_of(callback_data));
}

/** Begin a new upload with the object's properties. */
void initiate(const zorvan_i_s3_trace_t& trace, zorvan_i_s3_multipart_t* transfer_state) noexcept {
    zorvan_i_s3_upload_properties_t properties;
    transfer_state->result = properties.build(trace, source_file, transfer_state->op, transfer_state->key,
                                              *transfer_state->transfer_info, *transfer_state->s3_handle);
    if (transfer_state->result != ZORVAN_SUCCESS) return;

    const S3MultipartInitialHandler handler{
        .responseHandler = {.propertiesCallback = zorvan_l_s3_recv_multipart_initiate_properties,
                            .completeCallback = zorvan_l_s3_recv_multipart_initiate_complete},
        .responseXmlCallback = zorvan_l_s3_recv_multipart_initiate_response_callback,
    };
    transfer_state->try_count = 0;
    zorvan_i_s3_with_retries(
        trace, *transfer_state, "S3_initiate_multipart",
        [&] {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO,
                          "REST: op=%p S3_initiate_multipart(bucket=%s, key=%s) try=%d\n",
                          zorvan_i_s3_pointer(transfer_state->op), transfer_state->bucket,
                          zorvan_i_s3_printable(transfer_state->key), transfer_state->try_count);
        },
        [&] {
            S3_initiate_multipart(&transfer_state->bucket_context, transfer_state->key, properties.get(),
                                  &handler, nullptr, 0, zorvan_i_s3_handler_data(transfer_state));
        });
    if (transfer_state->result != ZORVAN_SUCCESS)
        zorvan_i_s3_log_result(trace.function(), transfer_state->result, ZORVAN_S3_INFO, ZORVAN_S3_INFO);
}

/** Come to an upload id: that of the upload in progress when it is to be resumed, else a new one's. */
void open_upload(const zorvan_i_s3_trace_t& trace, zorvan_i_s3_multipart_t* transfer_state) noexcept {
    bool missing = false;
    transfer_state->result = zorvan_i_s3_recv_multipart_resolve_id(transfer_state, &missing);
    if (transfer_state->resume) return;

    if (missing) zorvan_i_s3_result_clear(&transfer_state->result);
    if (transfer_state->result != ZORVAN_SUCCESS) return;
    if (transfer_state->upload_id) {
        zorvan_result_t aborted =
            zorvan_i_s3_recv_multipart_abort(trace, transfer_state, "id", transfer_state->upload_id.get());
        zorvan_i_s3_log_result(trace.function(), aborted, ZORVAN_S3_INFO, ZORVAN_S3_INFO);
        zorvan_i_s3_result_clear(&aborted);
        transfer_state->upload_id.reset();
    }
    initiate(trace, transfer_state);
}

/* ------------------------------------------------------------------- the part table */

/** Where the data begin, and how many bytes the object will have. */
zorvan_result_t set_extent(const zorvan_i_s3_trace_t& trace,
                           zorvan_i_s3_multipart_t* transfer_state) noexcept {
    zorvan_off_t range_offset = 0;
    zorvan_off_t range_length = -1;
    const zorvan_result_t result =
        zorvan_gridftp_server_get_write_range(transfer_state->op, &range_offset, &range_length);
    if (result != ZORVAN_SUCCESS) return result;
    if (range_length != -1) return zorvan_i_s3_ftp_error(553, "APPEND_NOT_SUPPORTED");

    const auto offset = static_cast<uint64_t>(range_offset);
    const uint64_t part_size = transfer_state->part_size;
    transfer_state->current_offset = offset;
    bool fits = true;
    if (transfer_state->resume) {
        fits =
            !__builtin_add_overflow(offset, static_cast<uint64_t>(transfer_state->transfer_info->alloc_size),
                                    &transfer_state->size_limit);
    }
    const int64_t limit = zorvan_i_s3_maximum_object_size(static_cast<int64_t>(part_size));
    if (!fits || transfer_state->size_limit > static_cast<uint64_t>(limit))
        return ZORVAN_S3_GENERIC_ERROR(source_file, trace.function(), "%s", "File upload too large");
    if (transfer_state->resume && offset % part_size != 0) {
        return zorvan_i_s3_upload_not_found(zorvan_error_construct_error(
            nullptr, nullptr, ZORVAN_ERROR_TYPE_GENERIC, source_file, trace.function(), __LINE__,
            "The restart offset %lu is not a multiple of the part size %lu.", offset, part_size));
    }
    return ZORVAN_SUCCESS;
}

/** Cut the file into parts. */
zorvan_result_t make_part_table(zorvan_i_s3_multipart_t* transfer_state) noexcept {
    const uint64_t total = transfer_state->size_limit;
    const uint64_t part_size = transfer_state->part_size;
    const uint64_t part_count = total / part_size + (total % part_size != 0 ? 1 : 0);
    transfer_state->part_table.reset(
        static_cast<zorvan_i_s3_part_t*>(std::calloc(part_count, sizeof(zorvan_i_s3_part_t))));
    if (!transfer_state->part_table && part_count != 0) return zorvan_i_s3_malloc_error();
    transfer_state->part_count = part_count;
    uint64_t offset = 0;
    for (zorvan_i_s3_part_t& part : transfer_state->parts()) {
        part.offset = offset;
        part.length = std::min(part_size, total - offset);
        offset += part.length;
    }
    return ZORVAN_SUCCESS;
}

/* ---------------------------------------------------------------------- the parts */

/** How many bytes the part with the current offset still lacks; 0 behind the last part. */
uint64_t bytes_to_part_end(zorvan_i_s3_multipart_t* transfer_state) noexcept {
    const uint64_t offset = transfer_state->current_offset;
    const uint64_t index = offset / transfer_state->part_size;
    if (index >= transfer_state->part_count) return 0;
    const zorvan_i_s3_part_t& part = transfer_state->parts()[index];
    return part.offset + part.length - offset;
}

int zorvan_l_s3_recv_multipart_upload_part_data(int buffer_size, char* buffer, void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    zorvan_i_s3_multipart_t* const transfer_state = zorvan_i_s3_multipart_of(callback_data);
    const int count = zorvan_i_s3_receive_data(trace, transfer_state, buffer_size, buffer,
                                               bytes_to_part_end(transfer_state));
    if (transfer_state->md5_checking && count > 0) {
        transfer_state->md5_checking = succeeded(zorvan_i_s3_checksum_update_both(
            transfer_state->part_md5, transfer_state->file_md5, buffer, static_cast<size_t>(count)));
    }
    return trace.exit(count);
}

S3Status zorvan_l_s3_recv_multipart_upload_part_properties(const S3ResponseProperties* properties,
                                                           void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    zorvan_i_s3_multipart_t* const transfer_state = zorvan_i_s3_multipart_of(callback_data);
    const auto parts = transfer_state->parts();
    size_t& index = transfer_state->first_missing;
    while (index < parts.size() && *parts[index].etag)
        ++index;
    if (index == parts.size()) return trace.exit_status(S3StatusOK);
    zorvan_i_s3_part_t& part = parts[index];
    ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "part=%zd etag=%s\n", static_cast<ssize_t>(index + 1),
                  zorvan_i_s3_printable(properties->eTag));
    zorvan_assert_at(properties->eTag != nullptr, "properties->eTag != NULL", source_file, __LINE__);
    const auto len = static_cast<size_t>(std::snprintf(part.etag, sizeof part.etag, "%s", properties->eTag));
    zorvan_assert_at(len == std::strlen(properties->eTag), "len == strlen(properties->eTag)", source_file,
                     __LINE__);
    zorvan_assert_at(len < sizeof part.etag, "len < sizeof(transfer_state->parts[i].etag)", source_file,
                     __LINE__);
    return trace.exit_status(S3StatusOK);
}

void zorvan_l_s3_recv_multipart_upload_part_complete(S3Status status, const S3ErrorDetails* error_details,
                                                     void* callback_data) noexcept {
    zorvan_i_s3_receive_complete(__func__, source_file, status, error_details,
                                 zorvan_i_s3_multipart_of(callback_data));
}

/** Send one part. Its body is never rewound: a repeated request goes on with the bytes that follow, and so
 * does the sum. */
void upload_part(const zorvan_i_s3_trace_t& trace, zorvan_i_s3_multipart_t* transfer_state, int number,
                 const zorvan_i_s3_part_t& part) noexcept {
    if (transfer_state->md5_checking)
        transfer_state->md5_checking = begin_checksum(&transfer_state->part_md5);
    const S3PutObjectHandler handler{
        .responseHandler = {.propertiesCallback = zorvan_l_s3_recv_multipart_upload_part_properties,
                            .completeCallback = zorvan_l_s3_recv_multipart_upload_part_complete},
        .putObjectDataCallback = zorvan_l_s3_recv_multipart_upload_part_data,
    };
    transfer_state->try_count = 0;
    zorvan_i_s3_with_retries(
        trace, *transfer_state, "S3_upload_part",
        [&] {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "REST: op=%p S3_upload_part(id=%s, part=%zu) try=%d\n",
                          zorvan_i_s3_pointer(transfer_state->op), transfer_state->upload_id.get(),
                          static_cast<size_t>(number), transfer_state->try_count);
        },
        [&] {
            S3_upload_part(&transfer_state->bucket_context, transfer_state->key, nullptr, &handler, number,
                           transfer_state->upload_id.get(), part.length, nullptr, 0,
                           zorvan_i_s3_handler_data(transfer_state));
        });
}

/** Compare a stored part's ETag, behind its quote, with the sum of the bytes sent. */
void check_part(const zorvan_i_s3_trace_t& trace, zorvan_i_s3_multipart_t* transfer_state,
                const zorvan_i_s3_part_t& part) noexcept {
    transfer_state->md5_checking = succeeded(zorvan_i_s3_checksum_finalize(transfer_state->part_md5));
    if (!transfer_state->md5_checking) return;
    const char* const md5sum = transfer_state->part_md5->md5sum;
    const char* const stored = part.etag + 1;
    if (strncasecmp(md5sum, stored, std::strlen(md5sum)) != 0) {
        transfer_state->result = zorvan_error_put(zorvan_gfs_ftp_response_error_construct(
            nullptr, nullptr, 550, "INCORRECT_CHECKSUM",
            "GridFTP-Computed-Checksum: %s\nGridFTP-Expected-Checksum: %s", stored, md5sum));
        return;
    }
    ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "part complete: op=%p offset=%lu md5=%s etag=%s\n",
                  zorvan_i_s3_pointer(transfer_state->op), part.offset, md5sum, part.etag);
}

/** Tell the host that a part's bytes are safe. */
void report_part(const zorvan_i_s3_trace_t& trace, const zorvan_i_s3_multipart_t* transfer_state,
                 const zorvan_i_s3_part_t& part) noexcept {
    if (transfer_state->s3_handle->suppress_restart_markers) return;
    ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "restart_marker: op=%p offset=%lu length=%lu\n",
                  zorvan_i_s3_pointer(transfer_state->op), part.offset, part.length);
    zorvan_gridftp_server_update_range_recvd(transfer_state->op, static_cast<zorvan_off_t>(part.offset),
                                             static_cast<zorvan_off_t>(part.length));
}

/* ----------------------------------------------------------------------- the commit */

/** A part as the commit body lists it. */
class commit_element_t {
  public:
    commit_element_t(int number, const zorvan_i_s3_part_t& part) noexcept
        : length_(static_cast<size_t>(std::snprintf(text_, sizeof text_,
                                                    "<Part><PartNumber>%d</PartNumber><ETag>%s</ETag></Part>",
                                                    number, part.etag))) {}
    std::string_view text() const noexcept { return {text_, length_}; }

  private:
    char text_[128];
    size_t length_;
};

/** Send every part that is not stored. @return the length of the commit body */
uint64_t upload_parts(const zorvan_i_s3_trace_t& trace, zorvan_i_s3_multipart_t* transfer_state) noexcept {
    uint64_t body_length = commit_begin.size() + commit_end.size();
    int number = 0;
    for (const zorvan_i_s3_part_t& part : transfer_state->parts()) {
        ++number;
        if (!*part.etag) {
            upload_part(trace, transfer_state, number, part);
            if (transfer_state->result != ZORVAN_SUCCESS) break;
            if (transfer_state->md5_checking) check_part(trace, transfer_state, part);
            if (transfer_state->result != ZORVAN_SUCCESS) break;
            report_part(trace, transfer_state, part);
        }
        body_length += commit_element_t(number, part).text().size();
    }
    return body_length;
}

int zorvan_l_s3_recv_multipart_commit_put_data(int buffer_size, char* buffer, void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    zorvan_i_s3_multipart_t* const transfer_state = zorvan_i_s3_multipart_of(callback_data);
    if (transfer_state->commit_closed) return trace.exit(0);
    const auto size = static_cast<size_t>(buffer_size);
    size_t written = 0;
    const auto append = [&](std::string_view text) {
        std::memcpy(buffer + written, text.data(), text.size());
        written += text.size();
    };
    if (!transfer_state->commit_opened) {
        zorvan_assert_at(size > commit_begin.size(), "buffer_size > strlen(\"<CompleteMultipartUpload>\")",
                         source_file, __LINE__);
        append(commit_begin);
        transfer_state->commit_opened = true;
    }
    int number = 0;
    bool all_listed = true;
    for (zorvan_i_s3_part_t& part : transfer_state->parts()) {
        ++number;
        if (!*part.etag) continue;
        const commit_element_t element(number, part);
        all_listed = written + element.text().size() + 1 <= size;
        if (!all_listed) break;
        append(element.text());
        part.etag[0] = '\0';
    }
    if (all_listed && size - written >= commit_end.size()) {
        append(commit_end);
        transfer_state->commit_closed = true;
    }
    ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "buffer=\"%.*s\"\n", static_cast<int>(written), buffer);
    return trace.exit(static_cast<int>(written));
}

S3Status zorvan_l_s3_recv_multipart_commit_response(const char*, const char* etag,
                                                    void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    keep_etag(zorvan_i_s3_multipart_of(callback_data), etag);
    return trace.exit_status(S3StatusOK);
}

S3Status zorvan_l_s3_recv_multipart_commit_properties(const S3ResponseProperties*, void*) noexcept {
    return zorvan_i_s3_accept_properties(__func__);
}

void zorvan_l_s3_recv_multipart_commit_complete(S3Status status, const S3ErrorDetails* error_details,
                                                void* callback_data) noexcept {
    zorvan_i_s3_receive_complete(__func__, source_file, status, error_details,
                                 zorvan_i_s3_multipart_of(callback_data));
}

/** Have the store make the object of its parts. */
void commit(const zorvan_i_s3_trace_t& trace, zorvan_i_s3_multipart_t* transfer_state,
            uint64_t body_length) noexcept {
    /* The end of the data may be told meanwhile; all bytes are here, so nothing waits for it. */
    if (transfer_state->registered.empty())
        static_cast<void>(succeeded(zorvan_i_s3_receive_register_reads(transfer_state)));
    const S3MultipartCommitHandler handler{
        .responseHandler = {.propertiesCallback = zorvan_l_s3_recv_multipart_commit_properties,
                            .completeCallback = zorvan_l_s3_recv_multipart_commit_complete},
        .putObjectDataCallback = zorvan_l_s3_recv_multipart_commit_put_data,
        .responseXmlCallback = zorvan_l_s3_recv_multipart_commit_response,
    };
    transfer_state->try_count = 0;
    zorvan_i_s3_with_retries(
        trace, *transfer_state, "S3_complete_multipart_upload",
        [&] {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "REST: op=%p S3_complete_multipart_upload(id=%s) try=%d\n",
                          zorvan_i_s3_pointer(transfer_state->op), transfer_state->upload_id.get(),
                          transfer_state->try_count);
        },
        [&] {
            S3_complete_multipart_upload(&transfer_state->bucket_context, transfer_state->key, &handler,
                                         transfer_state->upload_id.get(), body_length, nullptr, 0,
                                         zorvan_i_s3_handler_data(transfer_state));
        });
}

/* ------------------------------------------------------------------------- the sum */

S3Status zorvan_l_s3_multipart_head_object_properties(const S3ResponseProperties* properties,
                                                      void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    keep_etag(zorvan_i_s3_multipart_of(callback_data), properties->eTag);
    return trace.exit_status(S3StatusOK);
}

void zorvan_l_s3_multipart_head_object_complete(S3Status status, const S3ErrorDetails* error_details,
                                                void* callback_data) noexcept {
    zorvan_i_s3_receive_complete(__func__, source_file, status, error_details,
                                 zorvan_i_s3_multipart_of(callback_data));
}

/** Ask for the object's ETag. */
void head_object(const zorvan_i_s3_trace_t& trace, zorvan_i_s3_multipart_t* transfer_state) noexcept {
    const S3ResponseHandler handler{
        .propertiesCallback = zorvan_l_s3_multipart_head_object_properties,
        .completeCallback = zorvan_l_s3_multipart_head_object_complete,
    };
    transfer_state->try_count = 0;
    zorvan_i_s3_with_retries(
        trace, *transfer_state, "S3_head_object",
        [&] {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "REST: op=%p S3_head_object(bucket=%s, key=%s) try=%d\n",
                          zorvan_i_s3_pointer(transfer_state->op), transfer_state->bucket,
                          zorvan_i_s3_printable(transfer_state->key), transfer_state->try_count);
        },
        [&] {
            S3_head_object(&transfer_state->bucket_context, transfer_state->key, nullptr, 0, &handler,
                           zorvan_i_s3_handler_data(transfer_state));
        });
}

/** Put the MD5 of the bytes that were sent into the cache, under the object's ETag. */
void remember_checksum(const zorvan_i_s3_trace_t& trace, zorvan_i_s3_multipart_t* transfer_state) noexcept {
    if (!transfer_state->etag) head_object(trace, transfer_state);
    if (transfer_state->result != ZORVAN_SUCCESS) return;
    zorvan_i_s3_checksum_t* const file_md5 = transfer_state->file_md5;
    if (!succeeded(zorvan_i_s3_checksum_finalize(file_md5))) return;
    zorvan_i_s3_checksum_add(transfer_state->bucket, transfer_state->key, transfer_state->etag.get(),
                             file_md5->nbytes, file_md5->md5sum);
}

/* ----------------------------------------------------------------------- the worker */

/** Everything up to the first part. */
zorvan_result_t prepare(const zorvan_i_s3_trace_t& trace, zorvan_i_s3_multipart_t* transfer_state) noexcept {
    open_upload(trace, transfer_state);
    if (transfer_state->result != ZORVAN_SUCCESS) return transfer_state->result;
    const zorvan_result_t extent = set_extent(trace, transfer_state);
    if (extent != ZORVAN_SUCCESS) return extent;

    ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "begin_transfer: op=%p pathname=%s\n",
                  zorvan_i_s3_pointer(transfer_state->op), transfer_state->transfer_info->pathname);
    zorvan_gridftp_server_begin_transfer(transfer_state->op, 0, nullptr);

    const zorvan_result_t table = make_part_table(transfer_state);
    if (table != ZORVAN_SUCCESS) return table;
    if (transfer_state->resume) return zorvan_i_s3_recv_multipart_list_parts(transfer_state);
    transfer_state->md5_checking =
        begin_checksum(&transfer_state->file_md5) && begin_checksum(&transfer_state->part_md5);
    return ZORVAN_SUCCESS;
}

void* zorvan_l_s3_recv_multipart_thread(void* argument) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const std::unique_ptr<zorvan_i_s3_multipart_t> transfer_state(zorvan_i_s3_multipart_of(argument));
    const std::lock_guard lock(transfer_state->mutex);

    transfer_state->result = prepare(trace, transfer_state.get());
    if (transfer_state->result == ZORVAN_SUCCESS) {
        const uint64_t body_length = upload_parts(trace, transfer_state.get());
        if (transfer_state->result == ZORVAN_SUCCESS) commit(trace, transfer_state.get(), body_length);
        if (transfer_state->result == ZORVAN_SUCCESS && transfer_state->md5_checking)
            remember_checksum(trace, transfer_state.get());
    }

    /* The outcome stands; what the last reads bring does not change it any more. */
    const zorvan_result_t outcome = transfer_state->result;
    zorvan_i_s3_receive_finish(trace, transfer_state.get());
    zorvan_i_s3_receive_wait_for_reads(transfer_state.get());
    if (transfer_state->result != outcome) zorvan_i_s3_result_clear(&transfer_state->result);
    return nullptr;
}

constexpr zorvan_i_s3_receive_rules_t multipart_rules = {
    .source_file = source_file,
    .worker = zorvan_l_s3_recv_multipart_thread,
    .read_line_end = "",
    .register_function = "zorvan_l_s3_recv_multipart_register_reads",
    .read_function = "zorvan_l_s3_recv_multipart_read_callback",
    .read_callback = zorvan_l_s3_recv_multipart_read_callback,
    .registration_has_result = false,
    .counts_bytes_after_failure = false,
    .keeps_read_results = true,
};
}  // namespace

zorvan_i_s3_multipart_t::~zorvan_i_s3_multipart_t() {
    zorvan_i_s3_checksum_free(&file_md5);
    zorvan_i_s3_checksum_free(&part_md5);
}

zorvan_result_t zorvan_i_s3_upload_not_found(zorvan_error_t* cause) noexcept {
    return zorvan_error_put(
        zorvan_gfs_ftp_response_error_construct(nullptr, cause, 553, "MULTI_PART_UPLOAD_NOT_FOUND", nullptr));
}

zorvan_result_t zorvan_i_s3_recv_multipart_abort(const zorvan_i_s3_trace_t& trace,
                                                 zorvan_i_s3_multipart_t* transfer_state, const char* what,
                                                 const char* upload_id) noexcept {
    abort_state_t abort_state;
    abort_state.op = transfer_state->op;
    abort_state.pathname = transfer_state->transfer_info->pathname;
    const S3AbortMultipartUploadHandler handler{
        .responseHandler = {.propertiesCallback = zorvan_l_s3_recv_multipart_abort_properties,
                            .completeCallback = zorvan_l_s3_recv_multipart_abort_complete},
        .callbackData = &abort_state,
    };
    ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "REST: op=%p S3_abort_multipart_upload(%s=%s) try=%d\n",
                  zorvan_i_s3_pointer(abort_state.op), what, upload_id, abort_state.try_count);
    S3_abort_multipart_upload(&transfer_state->bucket_context, transfer_state->key, upload_id, 0, &handler);
    return abort_state.result;
}

zorvan_result_t zorvan_i_s3_recv_multipart(zorvan_gridftp_server_operation_t op,
                                           const zorvan_gridftp_server_transfer_info_t* transfer_info,
                                           uint64_t total_size, uint64_t part_size, bool resume,
                                           zorvan_i_s3_handle_t* s3_handle) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    std::unique_ptr<zorvan_i_s3_multipart_t> transfer_state(new (std::nothrow) zorvan_i_s3_multipart_t);
    if (transfer_state) {
        transfer_state->size_limit = total_size;
        transfer_state->part_size = part_size;
        transfer_state->resume = resume;
    }
    return zorvan_i_s3_receive_start(trace, std::move(transfer_state), &multipart_rules, op, transfer_info,
                                     s3_handle);
}
