/*
 * The bucket context: where requests on a bucket go and how they are signed.
 *
 * Flow: permission, credentials, and, for Amazon endpoints, the bucket's own region, found by one probe and
 * remembered for one bucket. Threads: any worker or host thread; the one-bucket cache has a mutex, which is
 * never held during a request. Ownership: a context borrows everything.
 */
#include "region_table.h"
#include "s3_request.h"

#include <cstring>
#include <mutex>

namespace {
constexpr size_t region_size = 64;
constexpr size_t cached_name_size = 256;

/** The bucket probed last, and its row. The name may fill the field without a terminator. */
struct region_cache_t {
    std::mutex mutex;
    char zorvan_l_last_bucket[cached_name_size] = {};
    const zorvan_l_aws_region_t* zorvan_l_last_aws_region = nullptr;

    std::string_view name() const noexcept {
        return {zorvan_l_last_bucket, strnlen(zorvan_l_last_bucket, cached_name_size)};
    }
    void remember(const char* bucket, const zorvan_l_aws_region_t* row) noexcept {
        const std::lock_guard lock(mutex);
        std::memset(zorvan_l_last_bucket, 0, cached_name_size);
        std::memcpy(zorvan_l_last_bucket, bucket, strnlen(bucket, cached_name_size));
        zorvan_l_last_aws_region = row;
    }
    /** Whether the bucket is the one remembered; `row` may become null. */
    bool find(std::string_view bucket, const zorvan_l_aws_region_t** row) noexcept {
        const std::lock_guard lock(mutex);
        if (zorvan_l_last_bucket[0] == '\0' || name() != bucket) return false;
        *row = zorvan_l_last_aws_region;
        return true;
    }
};
region_cache_t region_cache;

bool zorvan_l_is_aws_endpoint(const char* host) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const bool found = host && zorvan_l_lookup_aws_host(host);
    trace.exit(found ? 1 : 0);
    return found;
}

/** The row's first host of the wanted form; its first host when it has none of that form. */
const char* host_of_form(const zorvan_l_aws_region_t& row, bool fips, bool dual_stack) noexcept {
    for (const char* const* host = row.hosts; *host; ++host) {
        if ((!fips || zorvan_l_is_fips_host(*host)) && (!dual_stack || zorvan_l_is_dual_stack_host(*host)))
            return *host;
    }
    return row.hosts[0];
}

/** Ask the store for the bucket's region. @return whether it answered; `region` is empty if it named none */
bool probe_region(const S3BucketContext& bucket_context, char (&region)[region_size]) noexcept {
    zorvan_i_s3_region_probe_t probe{
        .status = S3StatusOK, .result = ZORVAN_SUCCESS, .name = bucket_context.bucketName, .region = region};
    const S3ResponseHandler handler{.propertiesCallback = responsePropertiesCallback,
                                    .completeCallback = responseCompleteCallback};
    do {
        probe.status = S3StatusOK;
        zorvan_i_s3_result_clear(&probe.result);
        region[0] = '\0';
        S3_head_object(&bucket_context, nullptr, nullptr, 0, &handler, &probe);
    } while (S3_status_is_retryable(probe.status));
    /* A failed probe is no failure of the request that asked for it. */
    zorvan_i_s3_result_clear(&probe.result);
    return probe.status == S3StatusOK;
}
}  // namespace

S3Status responsePropertiesCallback(const S3ResponseProperties* properties, void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    auto* const probe = static_cast<zorvan_i_s3_region_probe_t*>(callback_data);
    if (properties && properties->bucketRegion) {
        const size_t length = std::strlen(properties->bucketRegion);
        if (length < region_size) std::memcpy(probe->region, properties->bucketRegion, length + 1);
    }
    return trace.exit_status(S3StatusOK);
}

void responseCompleteCallback(S3Status status, const S3ErrorDetails* error_details,
                              void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    auto* const probe = static_cast<zorvan_i_s3_region_probe_t*>(callback_data);
    const bool region_learnt = status == S3StatusErrorPermanentRedirect && probe->region[0] != '\0';
    if (status != S3StatusOK && !region_learnt && probe->result == ZORVAN_SUCCESS) {
        probe->status = status;
        probe->result = zorvan_error_put(zorvan_i_S3Error_to_error(status, probe->name, error_details));
    }
    trace.exit_status(status);
}

S3BucketContext zorvan_i_s3_session_context(const zorvan_i_s3_handle_t& s3_handle, const char* bucket,
                                            const zorvan_i_s3_credentials_t& pair) noexcept {
    return {
        .hostName = s3_handle.host_name,
        .bucketName = bucket,
        .protocol = s3_handle.protocol,
        .uriStyle = s3_handle.uri_style,
        .accessKeyId = pair.access_key_id,
        .secretAccessKey = pair.secret_access_key,
        .securityToken = s3_handle.security_token,
        .authRegion = s3_handle.region,
        .contextOption = s3_handle.context_option,
    };
}

zorvan_result_t zorvan_i_s3_bucket_context(zorvan_i_s3_handle_t* s3_handle, const char* key,
                                           const char* bucket, S3BucketContext* bucket_context) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    zorvan_result_t result = ZORVAN_SUCCESS;
    if (!zorvan_i_s3_bucket_allowed(bucket, s3_handle->allowed_buckets, &result))
        return trace.exit_result(result);
    if (s3_handle->refresh_credentials) {
        result = s3_handle->refresh_credentials(s3_handle);
        if (result != ZORVAN_SUCCESS) return trace.exit_result(result);
    }

    const zorvan_i_s3_credentials_t* pair = nullptr;
    zorvan_i_s3_get_key_pair(s3_handle, bucket, key, &pair);
    *bucket_context = zorvan_i_s3_session_context(*s3_handle, bucket, *pair);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "Using the key id %s\n",
                  zorvan_i_s3_printable(pair->access_key_id));

    /* Before the cache: a bucket of that name on a store of one's own is another bucket. */
    if (!zorvan_l_is_aws_endpoint(s3_handle->host_name)) return trace.exit_result(ZORVAN_SUCCESS);

    const zorvan_l_aws_region_t* row = nullptr;
    if (region_cache.find(bucket, &row)) {
        if (row) {
            bucket_context->hostName = row->hosts[0];
            bucket_context->authRegion = row->region;
        }
        return trace.exit_result(ZORVAN_SUCCESS);
    }

    char region[region_size];
    if (!probe_region(*bucket_context, region)) return trace.exit_result(ZORVAN_SUCCESS);
    row = zorvan_l_lookup_aws_region(region);
    if (row) {
        bucket_context->hostName = host_of_form(*row, zorvan_l_is_fips_host(s3_handle->host_name),
                                                zorvan_l_is_dual_stack_host(s3_handle->host_name));
        bucket_context->authRegion = row->region;
    } else {
        zorvan_gfs_log_message(
            ZORVAN_GFS_LOG_WARNING,
            "HeadBucket returned an unrecognized region.  Continuing with default region.  "
            "endpoint: %s, bucket: %s, region: %s\n",
            s3_handle->host_name, bucket, region);
    }
    region_cache.remember(bucket, row);
    return trace.exit_result(ZORVAN_SUCCESS);
}
