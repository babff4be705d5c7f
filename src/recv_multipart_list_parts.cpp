/*
 * Find out which parts of an interrupted multipart upload can be kept.
 *
 * Flow: the store's list of parts is checked against the part table, whose offsets and lengths follow from
 * the size of the whole file; parts before the restart offset must be there. Runs on the upload's worker,
 * before any data.
 */
#include "recv_multipart.h"

#include <cstdio>
#include <cstring>
#include <utility>

namespace {
constexpr const char* source_file = "recv_multipart_list_parts";

zorvan_result_t misfit(const char* function, const char* text) noexcept {
    return zorvan_i_s3_upload_not_found(zorvan_error_construct_error(
        nullptr, nullptr, ZORVAN_ERROR_TYPE_GENERIC, source_file, function, __LINE__, "%s", text));
}

/** Why a listed part does not fit the table; null when it does. */
const char* reason_against(zorvan_i_s3_multipart_t* transfer_state, const S3ListPart& listed) noexcept {
    const bool has_record = listed.partNumber >= 1 && listed.partNumber <= transfer_state->part_count;
    const zorvan_i_s3_part_t* const part =
        has_record ? &transfer_state->parts()[listed.partNumber - 1] : nullptr;
    /* The number behind the last one counts as a part without bytes. */
    const bool far_beyond = listed.partNumber > transfer_state->part_count + 1;
    if (!far_beyond && (!part || listed.size != part->length)) return "Existing MPU has incorrect part size.";
    if (far_beyond) return "Existing MPU has too many parts.";
    if (*part->etag) return "Existing MPU has duplicate parts.";
    return nullptr;
}

S3Status zorvan_l_s3_recv_multipart_list_parts_response(int is_truncated, const char* next_part_number_marker,
                                                        const char*, const char*, const char*, const char*,
                                                        const char*, int parts_count, int,
                                                        const S3ListPart* parts,
                                                        void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    zorvan_i_s3_multipart_t* const transfer_state = zorvan_i_s3_multipart_of(callback_data);
    zorvan_assert_at(transfer_state != nullptr, "transfer_state != NULL", source_file, __LINE__);
    for (const S3ListPart& listed : std::span(parts, static_cast<size_t>(parts_count))) {
        if (const char* const reason = reason_against(transfer_state, listed)) {
            transfer_state->result = misfit(trace.function(), reason);
            return trace.exit_status(S3StatusInternalError);
        }
        zorvan_i_s3_part_t& part = transfer_state->parts()[listed.partNumber - 1];
        zorvan_assert_at(std::strlen(listed.eTag) < sizeof part.etag,
                         "strlen(parts[i].eTag) < sizeof(transfer_state->parts[parts[i].partNumber-1].etag)",
                         source_file, __LINE__);
        std::snprintf(part.etag, sizeof part.etag, "%s", listed.eTag);
    }
    if (is_truncated && next_part_number_marker) {
        transfer_state->next_part_number_marker.reset(zorvan_libc_strdup(next_part_number_marker));
        if (!transfer_state->next_part_number_marker) {
            transfer_state->result = zorvan_i_s3_malloc_error();
            return trace.exit_status(S3StatusOutOfMemory);
        }
    }
    return trace.exit_status(S3StatusOK);
}

S3Status zorvan_l_s3_recv_multipart_list_parts_properties(const S3ResponseProperties*, void*) noexcept {
    return zorvan_i_s3_accept_properties(__func__);
}

void zorvan_l_s3_recv_multipart_list_parts_complete(S3Status status, const S3ErrorDetails* error_details,
                                                    void* callback_data) noexcept {
    zorvan_i_s3_multipart_t* const transfer_state = zorvan_i_s3_multipart_of(callback_data);
    zorvan_i_s3_receive_complete(__func__, source_file, status, error_details, transfer_state, true);
}

/** Ask for the page behind the marker, or for the first one. */
void list_page(const zorvan_i_s3_trace_t& trace, zorvan_i_s3_multipart_t* transfer_state) noexcept {
    const zorvan_i_s3_text_t marker = std::move(transfer_state->next_part_number_marker);
    const S3ListPartsHandler handler{
        .responseHandler = {.propertiesCallback = zorvan_l_s3_recv_multipart_list_parts_properties,
                            .completeCallback = zorvan_l_s3_recv_multipart_list_parts_complete},
        .responseXmlCallback = zorvan_l_s3_recv_multipart_list_parts_response,
    };
    transfer_state->try_count = 0;
    zorvan_i_s3_with_retries(
        trace, *transfer_state, "S3_list_parts",
        [&] {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "REST: op=%p S3_list_parts(id=%s) try=%d\n",
                          zorvan_i_s3_pointer(transfer_state->op), transfer_state->upload_id.get(),
                          transfer_state->try_count);
        },
        [&] {
            S3_list_parts(&transfer_state->bucket_context, transfer_state->key, marker.get(),
                          transfer_state->upload_id.get(), nullptr, 0, nullptr, 0, &handler,
                          zorvan_i_s3_handler_data(transfer_state));
        });
}
}  // namespace

zorvan_result_t zorvan_i_s3_recv_multipart_list_parts(zorvan_i_s3_multipart_t* transfer_state) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    transfer_state->next_part_number_marker.reset();
    do {
        list_page(trace, transfer_state);
    } while (transfer_state->result == ZORVAN_SUCCESS && transfer_state->next_part_number_marker);
    if (transfer_state->result != ZORVAN_SUCCESS) return trace.exit_result(transfer_state->result);

    const uint64_t kept = transfer_state->current_offset / transfer_state->part_size;
    for (zorvan_i_s3_part_t& part : transfer_state->parts().subspan(kept))
        part.etag[0] = '\0';
    for (const zorvan_i_s3_part_t& part : transfer_state->parts().first(kept)) {
        if (!*part.etag)
            return trace.exit_result(misfit(trace.function(), "Existing MPU is missing a part eTag."));
    }
    return trace.exit_result(ZORVAN_SUCCESS);
}
