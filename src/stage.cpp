/*
 * Stage: ask the store for a readable copy of an archived object, or tell how far it is.
 *
 * Flow: a HEAD request decides; a restore request follows when one is needed. Threads: see command.h.
 */
#include "command.h"

#include <strings.h>
#include <ctime>

namespace {
constexpr const char* source_file = "stage";

constexpr const char* reply_not_required = "250 Stage is not required.\r\n";
constexpr const char* reply_started = "450 Stage has started.\r\n";
constexpr const char* reply_in_progress = "450 Stage is in progress.\r\n";
constexpr const char* reply_completed = "250 Stage has completed.\r\n";

/** What is left of a restored copy's life must exceed this, in seconds, or it is asked for again. */
constexpr int64_t shortest_rest = 43199;
constexpr const char* default_tier = "Standard";

enum restore_status_t { restore_none = 0, restore_in_progress = 1, restore_done = 2 };

struct archive_class_t {
    const char* name;
    bool deep;
};
constexpr archive_class_t zorvan_l_archive_classes[] = {
    {.name = "GLACIER", .deep = false},
    {.name = "INTELLIGENT_TIERING:ARCHIVE_ACCESS", .deep = false},
    {.name = "DEEP_ARCHIVE", .deep = true},
    {.name = "INTELLIGENT_TIERING:DEEP_ARCHIVE_ACCESS", .deep = true},
};

struct stage_state_t : zorvan_i_s3_command_state_t {
    const char* reply = nullptr; /* one of the constant replies */
    bool needs_restore = false;
    int restore_days = 0;
    const char* restore_tier = nullptr; /* borrowed from the settings */
};

const archive_class_t* find_archive_class(const char* storage_class) noexcept {
    for (const archive_class_t& known : zorvan_l_archive_classes) {
        if (storage_class && strcasecmp(known.name, storage_class) == 0) return &known;
    }
    return nullptr;
}

/** The configured tier, unless the class cannot be restored in it. */
const char* choose_tier(const archive_class_t& archive_class) noexcept {
    const char* const configured = zorvan_i_s3_restore_tier;
    if (!configured) return default_tier;
    if (archive_class.deep && strcasecmp(configured, "Expedited") == 0) return default_tier;
    return configured;
}

/** Decide from an object's properties what the reply is and whether a restore is asked for. */
void zorvan_l_s3_stage_needs_restore(stage_state_t* state, const S3ResponseProperties& properties) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const char* const storage_class = properties.storageClass;
    ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO,
                  "STAGE: restorecheck(bucket=%s, key=%s) status=%d exp=%ld class=%s\n", state->path.bucket,
                  state->path.key, properties.restoreStatus, properties.restoreExpiry,
                  storage_class ? storage_class : "STANDARD");
    state->reply = nullptr;
    state->needs_restore = false;
    switch (properties.restoreStatus) {
        case restore_none:
            break;
        case restore_in_progress:
            state->reply = reply_in_progress;
            return;
        case restore_done:
            if (properties.restoreExpiry < 1 ||
                properties.restoreExpiry > static_cast<int64_t>(std::time(nullptr)) + shortest_rest) {
                state->reply = reply_completed;
                return;
            }
            break;
        default:
            return;
    }
    const archive_class_t* const archive_class = find_archive_class(storage_class);
    if (!archive_class) {
        state->reply = reply_not_required;
        return;
    }
    state->restore_days = zorvan_i_s3_restore_days;
    state->restore_tier = choose_tier(*archive_class);
    state->needs_restore = true;
    state->reply = reply_started;
}

S3Status zorvan_l_s3_stage_head_object_properties(const S3ResponseProperties* properties,
                                                  void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    if (properties) zorvan_l_s3_stage_needs_restore(static_cast<stage_state_t*>(callback_data), *properties);
    return trace.exit_status(S3StatusOK);
}

void zorvan_l_s3_stage_head_object_complete(S3Status status, const S3ErrorDetails* error_details,
                                            void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    auto* const state = static_cast<stage_state_t*>(callback_data);
    if (status != S3StatusOK) state->reply = nullptr;
    zorvan_i_s3_record_failure(state, status, state->path.text.c_str(), error_details,
                               zorvan_i_s3_keep_t::first);
    trace.exit_status(status);
}

S3Status zorvan_l_s3_stage_properties(const S3ResponseProperties*, void*) noexcept {
    return zorvan_i_s3_accept_properties(__func__);
}

void zorvan_l_s3_stage_complete(S3Status status, const S3ErrorDetails* error_details,
                                void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    auto* const state = static_cast<stage_state_t*>(callback_data);
    if (status != S3StatusOK) state->reply = nullptr;
    zorvan_i_s3_record_object_failure(state, status, error_details, zorvan_i_s3_keep_t::last);
    trace.exit_status(status);
}

void restore_object(const zorvan_i_s3_trace_t& trace, stage_state_t* state) noexcept {
    const S3ResponseHandler handler{.propertiesCallback = zorvan_l_s3_stage_properties,
                                    .completeCallback = zorvan_l_s3_stage_complete};
    state->try_count = 0;
    zorvan_i_s3_with_retries(
        trace, *state, "S3_restore_object",
        [&] {
            /* A further try may succeed after the failure of this one took the reply away. */
            state->reply = reply_started;
            ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "REST: op=%p S3_restore_object(bucket=%s, key=%s) try=%d\n",
                          zorvan_i_s3_pointer(state->op), state->path.bucket, state->path.key,
                          state->try_count);
        },
        [&] {
            S3_restore_object(&state->bucket_context, state->path.key, state->restore_days,
                              state->restore_tier, nullptr, 0, &handler, state);
        });
}

void* zorvan_l_s3_stage_thread(void* argument) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const std::unique_ptr<stage_state_t> state(static_cast<stage_state_t*>(argument));
    zorvan_i_s3_head_object(trace, *state,
                            {.propertiesCallback = zorvan_l_s3_stage_head_object_properties,
                             .completeCallback = zorvan_l_s3_stage_head_object_complete});
    if (state->result == ZORVAN_SUCCESS && state->needs_restore) restore_object(trace, state.get());
    zorvan_i_s3_log_outcome(trace, state->result);
    zorvan_i_s3_finish_command(trace, state->op, state->result, state->path.text.c_str(), state->reply);
    return nullptr;
}

constexpr zorvan_i_s3_command_rules_t stage_rules = {
    .source_file = source_file,
    .worker = zorvan_l_s3_stage_thread,
    .as_directory = false,
    .needs_key = "stage",
    .line_has_path = true,
    .resolve = zorvan_i_s3_command_context,
};
}  // namespace

void zorvan_i_s3_stage(zorvan_gridftp_server_operation_t op,
                       const zorvan_gridftp_server_command_info_t* cmd_info,
                       zorvan_i_s3_handle_t* s3_handle) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const char* const pathname = cmd_info->pathname;
    ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "stage: op=%p pathname=%s\n", zorvan_i_s3_pointer(op), pathname);
    zorvan_assert_at(s3_handle != nullptr, "s3_handle != NULL", source_file, __LINE__);
    zorvan_i_s3_run_command<stage_state_t>(trace, stage_rules, op, pathname, s3_handle);
}
