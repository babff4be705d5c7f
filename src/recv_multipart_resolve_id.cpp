/*
 * Find the multipart upload in progress that a transfer continues or replaces.
 *
 * Flow: the uploads below the key are listed page by page; of those of exactly this key the latest is kept
 * from page to page, the others are duplicates and are aborted. Runs on the upload's worker, before any data.
 */
#include "recv_multipart.h"

#include <cstring>
#include <utility>
#include <vector>

namespace {
constexpr const char* source_file = "recv_multipart_resolve_id";

struct candidate_t {
    int64_t initiated = 0; /* seconds, as the store tells them */
    zorvan_i_s3_text_t id;
};

struct list_state_t : zorvan_i_s3_request_state_t {
    const char* key = nullptr; /* borrowed, like the path; may be null */
    const char* pathname = nullptr;
    zorvan_i_s3_text_t next_key_marker;
    zorvan_i_s3_text_t next_upload_id_marker;
    std::vector<candidate_t> candidates; /* of the page at hand */
    candidate_t kept;
};

zorvan_i_s3_text_t copy_of(const char* text) {
    zorvan_i_s3_text_t copy(zorvan_libc_strdup(text));
    if (!copy) throw std::bad_alloc();
    return copy;
}

/** A marker for the next page; null or empty is none. */
zorvan_i_s3_text_t marker_of(const char* text) {
    return text && *text ? copy_of(text) : nullptr;
}

S3Status zorvan_l_s3_recv_multipart_list_uploads_data(int is_truncated, const char* next_key_marker,
                                                      const char* next_upload_id_marker, int uploads_count,
                                                      const S3ListMultipartUpload* uploads, int, const char**,
                                                      void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    auto* const list_state = static_cast<list_state_t*>(callback_data);
    zorvan_assert_at(list_state != nullptr, "list_state != NULL", source_file, __LINE__);
    try {
        for (const S3ListMultipartUpload& upload : std::span(uploads, static_cast<size_t>(uploads_count))) {
            if (!list_state->key || std::strcmp(upload.key, list_state->key) != 0) continue;
            list_state->candidates.push_back({.initiated = upload.initiated, .id = copy_of(upload.uploadId)});
        }
        if (is_truncated) {
            list_state->next_key_marker = marker_of(next_key_marker);
            list_state->next_upload_id_marker = marker_of(next_upload_id_marker);
        }
    } catch (const std::bad_alloc&) {
        list_state->result = zorvan_i_s3_malloc_error();
        return trace.exit_status(S3StatusOutOfMemory);
    }
    return trace.exit_status(S3StatusOK);
}

S3Status zorvan_l_s3_recv_multipart_list_uploads_properties(const S3ResponseProperties*, void*) noexcept {
    return zorvan_i_s3_accept_properties(__func__);
}

void zorvan_l_s3_recv_multipart_list_uploads_complete(S3Status status, const S3ErrorDetails* error_details,
                                                      void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    auto* const list_state = static_cast<list_state_t*>(callback_data);
    zorvan_assert_at(list_state != nullptr, "list_state != NULL", source_file, __LINE__);
    zorvan_i_s3_record_failure(list_state, status, list_state->pathname, error_details,
                               zorvan_i_s3_keep_t::first);
    trace.exit_status(status);
}

/** Ask for the page behind the markers, or for the first one. */
void list_page(const zorvan_i_s3_trace_t& trace, zorvan_i_s3_multipart_t* transfer_state,
               list_state_t& list_state) noexcept {
    const zorvan_i_s3_text_t key_marker = std::move(list_state.next_key_marker);
    const zorvan_i_s3_text_t upload_id_marker = std::move(list_state.next_upload_id_marker);
    const S3ListMultipartUploadsHandler handler{
        .responseHandler = {.propertiesCallback = zorvan_l_s3_recv_multipart_list_uploads_properties,
                            .completeCallback = zorvan_l_s3_recv_multipart_list_uploads_complete},
        .responseXmlCallback = zorvan_l_s3_recv_multipart_list_uploads_data,
    };
    list_state.try_count = 0;
    zorvan_i_s3_with_retries(
        trace, list_state, "S3_list_multipart_uploads",
        [&] {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO,
                          "REST: op=%p S3_list_multipart_uploads(bucket=%s, key=%s) try=%d\n",
                          zorvan_i_s3_pointer(list_state.op), transfer_state->bucket,
                          zorvan_i_s3_printable(list_state.key), list_state.try_count);
        },
        [&] {
            S3_list_multipart_uploads(&transfer_state->bucket_context, list_state.key, key_marker.get(),
                                      upload_id_marker.get(), nullptr, "/", 0, nullptr, 0, &handler,
                                      &list_state);
        });
}

/** Keep the latest upload; of equal times the one that is kept already. Abort the others. */
void keep_latest(const zorvan_i_s3_trace_t& trace, zorvan_i_s3_multipart_t* transfer_state,
                 list_state_t& list_state) noexcept {
    candidate_t& kept = list_state.kept;
    for (candidate_t& candidate : list_state.candidates) {
        if (!kept.id) {
            kept = std::move(candidate);
            continue;
        }
        /* Told twice, it is no duplicate of itself. */
        if (std::strcmp(candidate.id.get(), kept.id.get()) == 0) continue;
        if (candidate.initiated > kept.initiated) std::swap(candidate, kept);
        zorvan_result_t ignored = zorvan_i_s3_recv_multipart_abort(trace, transfer_state,
                                                                   "duplicate upload id", candidate.id.get());
        zorvan_i_s3_result_clear(&ignored);
    }
    list_state.candidates.clear();
}
}  // namespace

zorvan_result_t zorvan_i_s3_recv_multipart_resolve_id(zorvan_i_s3_multipart_t* transfer_state,
                                                      bool* missing) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    *missing = false;
    list_state_t list_state;
    list_state.op = transfer_state->op;
    list_state.key = transfer_state->key;
    list_state.pathname = transfer_state->transfer_info->pathname;
    do {
        list_page(trace, transfer_state, list_state);
        if (list_state.result != ZORVAN_SUCCESS) return trace.exit_result(list_state.result);
        keep_latest(trace, transfer_state, list_state);
    } while (list_state.next_key_marker || list_state.next_upload_id_marker);

    transfer_state->upload_id = std::move(list_state.kept.id);
    *missing = !transfer_state->upload_id;
    return trace.exit_result(*missing ? zorvan_i_s3_upload_not_found(nullptr) : ZORVAN_SUCCESS);
}
