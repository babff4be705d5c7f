/*
 * Listing of the root: the buckets that a session may see.
 *
 * Flow: either the store's service listing and the buckets of bucket-specific key pairs, or the session's
 * allowed buckets without any request. A refused service listing is no failure. Threads: everything runs on
 * the stat's worker, the handlers included. Ownership: the name set and its names live for one listing.
 */
#include "stat.h"

#include <cstring>

namespace {
constexpr int name_set_buckets = 256;
constexpr const char* known_buckets_hint = "Known buckets may be accessed directly via /bucketname/";
constexpr const char* refused_hint =
    "You do not have permission to list all the buckets. Known buckets may be accessed directly via "
    "/bucketname/";

using request_t = zorvan_i_s3_stat_request_t;

S3Status zorvan_l_s3_stat_properties(const S3ResponseProperties*, void*) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    return trace.exit_status(S3StatusOK);
}

void zorvan_l_s3_stat_complete(S3Status status, const S3ErrorDetails* error_details,
                               void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    auto* const request = static_cast<request_t*>(callback_data);
    if (status == S3StatusErrorAccessDenied) {
        ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "S3StatusErrorAccessDenied when listing buckets\n");
        const S3ErrorDetails explained{
            .message = error_details ? error_details->message : nullptr,
            .resource = nullptr,
            .furtherDetails = refused_hint,
            .extraDetailsCount = 0,
            .extraDetails = nullptr,
        };
        zorvan_i_s3_record_failure(request, status, "/", &explained, zorvan_i_s3_keep_t::last);
        request->status = S3StatusErrorInvalidArgument;
    } else if (status != S3StatusOK && request->result == ZORVAN_SUCCESS) {
        ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "S3 Status is an error %d, but result is successful\n",
                      static_cast<int>(status));
        zorvan_i_s3_record_failure(request, status, request->stat_info->pathname, error_details,
                                   zorvan_i_s3_keep_t::first);
    }
    trace.exit_status(status);
}

zorvan_gridftp_server_stat_t bucket_entry(const char* bucket_name, int64_t ctime) noexcept {
    const uint32_t hash = zorvan_i_s3_stat_hash(bucket_name);
    zorvan_gridftp_server_stat_t stat = zorvan_i_s3_stat_directory(bucket_name, hash, hash);
    stat.ctime = ctime;
    return stat;
}

S3Status zorvan_l_s3_stat_list_service(const char*, const char*, const char* bucket_name,
                                       int64_t creation_date_seconds, void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    auto* const request = static_cast<request_t*>(callback_data);
    if (!zorvan_i_s3_bucket_allowed(bucket_name, request->s3_handle->allowed_buckets, nullptr))
        return trace.exit_status(S3StatusOK);

    zorvan_i_s3_stat_add(request, bucket_entry(bucket_name, creation_date_seconds));
    ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "Inserting bucket |%s|\n", bucket_name);
    const bool duplicate = zorvan_hashtable_lookup(&request->bucket_names, bucket_name) != nullptr;
    char* const name = zorvan_libc_strdup(bucket_name);
    const int res = name ? zorvan_hashtable_insert(&request->bucket_names, name, name) : -1;
    if (res != 0 && !duplicate) {
        std::free(name);
        if (request->result == ZORVAN_SUCCESS) request->result = zorvan_i_s3_malloc_error();
        return trace.exit_status(S3StatusOutOfMemory);
    }
    zorvan_assert_at(res == 0, "res == ZORVAN_SUCCESS", "stat_list_buckets", 299);
    return trace.exit_status(S3StatusOK);
}

/** Ask the store for the buckets of the session's user. */
void list_service(const zorvan_i_s3_trace_t& trace, request_t* request) noexcept {
    const S3ListServiceHandler handler{
        .responseHandler = {.propertiesCallback = zorvan_l_s3_stat_properties,
                            .completeCallback = zorvan_l_s3_stat_complete},
        .listServiceCallback = zorvan_l_s3_stat_list_service,
    };
    const S3BucketContext& context = request->bucket_context;
    zorvan_i_s3_with_retries(
        trace, *request, "S3_list_service",
        [&] {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "REST: op=%p S3_list_service() try=%d\n",
                          zorvan_i_s3_pointer(request->op), request->try_count);
        },
        [&] {
            S3_list_service(context.protocol, context.accessKeyId, context.secretAccessKey,
                            context.securityToken, context.hostName, context.authRegion, nullptr, 0, &handler,
                            request);
        });
}

/** Add the buckets that the session knows of, whatever the store listed. */
void add_known_buckets(const zorvan_i_s3_trace_t& trace, request_t* request) noexcept {
    ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "Add in known full buckets\n");
    for (const zorvan_list_t* cell = request->s3_handle->key_pairs; cell; cell = cell->next) {
        const auto& pair = *static_cast<const zorvan_i_s3_key_pair_t*>(cell->data);
        if (!pair.bucket_specific || zorvan_hashtable_lookup(&request->bucket_names, pair.bucket)) continue;
        zorvan_l_s3_stat_list_service("", "", pair.bucket, -1, request);
        ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "Added the credential bucket |%s|\n", pair.bucket);
    }
    ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "Add in allowed buckets\n");
    for (char* const* name = request->s3_handle->allowed_buckets; name && *name; ++name) {
        zorvan_l_s3_stat_list_service("", "", *name, -1, request);
        ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "Added the allowed bucket |%s|\n", *name);
    }
}
}  // namespace

void zorvan_i_s3_stat_list_allowed(zorvan_i_s3_stat_request_t* request) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    zorvan_i_s3_stat_root(request);
    for (char* const* name = request->s3_handle->allowed_buckets; name && *name; ++name)
        zorvan_i_s3_stat_add(request, bucket_entry(*name, -1));
}

void zorvan_i_s3_stat_list_buckets(zorvan_i_s3_stat_request_t* request) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    request->try_count = 0;
    if (request->s3_handle->restricted_endpoint && !request->bucket_context.accessKeyId) {
        const S3ErrorDetails explained{
            .message = "Bucket listing is not allowed on this collection",
            .resource = nullptr,
            .furtherDetails = known_buckets_hint,
            .extraDetailsCount = 0,
            .extraDetails = nullptr,
        };
        zorvan_i_s3_record_failure(request, S3StatusErrorAccessDenied, "/", &explained,
                                   zorvan_i_s3_keep_t::last);
        request->status = S3StatusErrorInvalidArgument;
        return;
    }
    if (zorvan_hashtable_init(&request->bucket_names, name_set_buckets, zorvan_hashtable_string_hash,
                              zorvan_hashtable_string_keyeq) != 0) {
        /* Without an error object on purpose: the client sees an empty root. */
        request->status = S3StatusOutOfMemory;
        return;
    }

    ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "Adding the listing root entry\n");
    zorvan_i_s3_stat_add(request, zorvan_i_s3_stat_directory(".", 0, zorvan_i_s3_stat_hash("/")));
    ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "Root listing added\n");

    /* The request below would forget it, and the listing would lack its root unnoticed. */
    if (request->result == ZORVAN_SUCCESS) {
        list_service(trace, request);
        add_known_buckets(trace, request);
    }
    zorvan_hashtable_destroy_all(&request->bucket_names, std::free);

    if (request->status != S3StatusOK) {
        ZORVAN_S3_LOG(
            trace, ZORVAN_S3_ERROR,
            "Directory listing had an error. The user credetials likely could not list S3 buckets\n");
        zorvan_gfs_log_message(
            ZORVAN_GFS_LOG_WARNING,
            "Directory listing had an error. The user credetials likely could not list S3 buckets %d\n",
            static_cast<int>(request->status));
        request->clear_outcome();
    }
}
