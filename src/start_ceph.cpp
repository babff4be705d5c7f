/*
 * Session start: where the store is, and the user's S3 keys from the gateway; session destroy.
 *
 * Flow: the entry builds the session handle from the collection's policy or the settings, makes the S3 client
 * ready and starts a thread; that looks the user's keys up and ends the session start. Threads: one per
 * session start, which owns request and handle until it hands the handle to the host. Ownership: the handle
 * belongs to the host from finished_session_start on and ends in zorvan_i_s3_destroy.
 */
#include "s3_request.h"

#include <cstring>

namespace {
constexpr const char* source_file = "start_ceph";
constexpr int initialize_flags = S3_INIT_ALL;
constexpr int initialize_flags_verify = S3_INIT_ALL | S3_INIT_VERIFY_PEER;

struct endpoint_scheme_t {
    std::string_view prefix;
    S3Protocol protocol;
};
constexpr endpoint_scheme_t endpoint_schemes[] = {
    {.prefix = "https://", .protocol = S3ProtocolHTTPS},
    {.prefix = "http://", .protocol = S3ProtocolHTTP},
};

struct destroy_handle_t {
    void operator()(zorvan_i_s3_handle_t* s3_handle) const noexcept { zorvan_i_s3_destroy(s3_handle); }
};

struct ceph_start_request_t : zorvan_i_s3_request_state_t {
    const zorvan_gridftp_server_session_info_t* session_info = nullptr; /* borrowed from the host */
    std::unique_ptr<zorvan_i_s3_handle_t, destroy_handle_t> s3_handle;
    zorvan_i_s3_text_t admin_access_key_id;
    zorvan_i_s3_text_t admin_secret_access_key;

    const char* user_name() const noexcept {
        return session_info && session_info->user_name ? session_info->user_name : "";
    }
};

void finish(const zorvan_i_s3_trace_t& trace, zorvan_gridftp_server_operation_t op, zorvan_result_t result,
            zorvan_i_s3_handle_t* s3_handle, const char* user_name, const char* home_directory) noexcept {
    ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "finished_session_start: op=%p result=%#x\n",
                  zorvan_i_s3_pointer(op), result);
    zorvan_gridftp_server_finished_session_start(op, result, s3_handle, user_name, home_directory);
}

S3Status zorvan_l_ceph_start_properties(const S3ResponseProperties*, void*) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    return trace.exit_status(S3StatusOK);
}

void zorvan_l_ceph_start_complete(S3Status status, const S3ErrorDetails* error_details,
                                  void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    zorvan_i_s3_record_failure(static_cast<ceph_start_request_t*>(callback_data), status, "admin/user",
                               error_details, zorvan_i_s3_keep_t::last);
    trace.exit_status(status);
}

/** Whether a field of fixed size holds a text that ends inside it. */
template <size_t size>
bool ends(const char (&field)[size]) noexcept {
    return strnlen(field, size) < size;
}

S3Status zorvan_l_ceph_get_user_info(const RGUserInfo* info, void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    auto* const request = static_cast<ceph_start_request_t*>(callback_data);
    zorvan_i_s3_handle_t* const s3_handle = request->s3_handle.get();
    const std::string_view user_name = request->user_name();
    for (int32_t i = 0; info && i < info->keyCount; ++i) {
        const RGUserKey& key = info->keys[i];
        if (!ends(key.user) || !ends(key.accessKey) || !ends(key.secretKey)) continue;
        if (user_name != key.user || !key.accessKey[0] || !key.secretKey[0]) continue;
        std::free(s3_handle->access_key_id);
        std::free(s3_handle->secret_access_key);
        s3_handle->access_key_id = zorvan_libc_strdup(key.accessKey);
        s3_handle->secret_access_key = zorvan_libc_strdup(key.secretKey);
        if (!s3_handle->access_key_id || !s3_handle->secret_access_key) {
            zorvan_i_s3_result_clear(&request->result);
            request->result = zorvan_i_s3_malloc_error();
            return trace.exit_status(S3StatusOutOfMemory);
        }
        break;
    }
    return trace.exit_status(S3StatusOK);
}

void* zorvan_l_ceph_start_thread(void* argument) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const std::unique_ptr<ceph_start_request_t> request(static_cast<ceph_start_request_t*>(argument));
    zorvan_i_s3_handle_t* const s3_handle = request->s3_handle.get();
    const char* const user_name = request->user_name();
    ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "Looking up key for %s\n", user_name);

    const S3BucketContext bucket_context{
        .hostName = s3_handle->host_name,
        .bucketName = zorvan_i_s3_rg_admin_bucket ? zorvan_i_s3_rg_admin_bucket : "admin",
        .protocol = s3_handle->protocol,
        .uriStyle = s3_handle->uri_style,
        .accessKeyId = request->admin_access_key_id.get(),
        .secretAccessKey = request->admin_secret_access_key.get(),
        .securityToken = nullptr,
        .authRegion = nullptr,
        .contextOption = 0,
    };
    const RGUserInfoHandler handler{
        .responseHandler = {.propertiesCallback = zorvan_l_ceph_start_properties,
                            .completeCallback = zorvan_l_ceph_start_complete},
        .userInfoCallback = zorvan_l_ceph_get_user_info,
    };
    zorvan_i_s3_with_retries(
        trace, *request, "RG_get_user_info",
        [&] {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "REST: RG_get_user_info(user=%s) try=%d\n", user_name,
                          request->try_count);
        },
        [&] { RG_get_user_info(&bucket_context, user_name, nullptr, &handler, request.get()); });

    if (request->result != ZORVAN_SUCCESS) {
        ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "S3 request error: op=%p\n", zorvan_i_s3_pointer(request->op));
        zorvan_i_s3_log_result(trace.function(), request->result, ZORVAN_S3_INFO, ZORVAN_S3_INFO);
    }
    if (s3_handle->access_key_id && s3_handle->secret_access_key) {
        s3_handle->default_key_pair = {.access_key_id = s3_handle->access_key_id,
                                       .secret_access_key = s3_handle->secret_access_key};
    } else {
        zorvan_i_s3_result_clear(&request->result);
        request->result =
            ZORVAN_S3_GENERIC_ERROR(source_file, __func__, "No access key for ceph user \"%s\"", user_name);
    }
    zorvan_i_s3_log_result(trace.function(), request->result, ZORVAN_S3_INFO, ZORVAN_S3_INFO);
    finish(trace, request->op, request->result, request->s3_handle.release(), user_name, "/");
    return nullptr;
}

/** Read where the store is and the administrator's keys from the settings. */
zorvan_result_t configure_from_settings(ceph_start_request_t* request, const char* function) noexcept {
    if (!zorvan_i_s3_default_hostname) {
        return ZORVAN_S3_GENERIC_ERROR(source_file, function,
                                       "Invalid configuration, ceph hostname not set.");
    }
    if (!zorvan_i_s3_rg_admin_access_key_id || !zorvan_i_s3_rg_admin_secret_access_key) {
        return ZORVAN_S3_GENERIC_ERROR(source_file, function,
                                       "Invalid configuration, ceph administrator keys not set.");
    }
    zorvan_i_s3_handle_t* const s3_handle = request->s3_handle.get();
    s3_handle->protocol = zorvan_i_s3_https ? S3ProtocolHTTPS : S3ProtocolHTTP;
    s3_handle->host_name = zorvan_libc_strdup(zorvan_i_s3_default_hostname);
    request->admin_access_key_id.reset(zorvan_libc_strdup(zorvan_i_s3_rg_admin_access_key_id));
    request->admin_secret_access_key.reset(zorvan_libc_strdup(zorvan_i_s3_rg_admin_secret_access_key));
    const bool complete =
        s3_handle->host_name && request->admin_access_key_id && request->admin_secret_access_key;
    return complete ? ZORVAN_SUCCESS : zorvan_i_s3_malloc_error();
}

/**
 * Read the same from a collection's policy.
 * @param known_scheme  false when the endpoint begins with neither "https://" nor "http://"
 */
zorvan_result_t configure_from_policy(ceph_start_request_t* request, const char* policy,
                                      bool* known_scheme) noexcept {
    zorvan_i_s3_handle_t* const s3_handle = request->s3_handle.get();
    char* endpoint = nullptr;
    char* key_id = nullptr;
    char* secret = nullptr;
    const zorvan_result_t result =
        zorvan_i_s3_config_parse_json(policy, &endpoint, &s3_handle->allowed_buckets, &key_id, &secret);
    request->admin_access_key_id.reset(key_id);
    request->admin_secret_access_key.reset(secret);
    s3_handle->host_name = endpoint;
    if (result != ZORVAN_SUCCESS) return result;

    const std::string_view text = endpoint;
    size_t prefix_length = 0;
    for (const endpoint_scheme_t& scheme : endpoint_schemes) {
        if (prefix_length > 0 || !text.starts_with(scheme.prefix)) continue;
        s3_handle->protocol = scheme.protocol;
        prefix_length = scheme.prefix.size();
    }
    *known_scheme = prefix_length > 0;
    std::memmove(endpoint, endpoint + prefix_length, text.size() - prefix_length + 1);
    return ZORVAN_SUCCESS;
}

/** Make the S3 client ready for the session's host. */
zorvan_result_t zorvan_i_s3_base_initialize(const zorvan_i_s3_handle_t* s3_handle) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "initializing to use host: %s%s%s\n", s3_handle->host_name,
                  s3_handle->region ? " and region: " : "", s3_handle->region ? s3_handle->region : "");
    const bool verify = s3_handle->protocol == S3ProtocolHTTPS && zorvan_i_s3_verify_peer;
    const S3Status status =
        S3_initialize(nullptr, verify ? initialize_flags_verify : initialize_flags, s3_handle->host_name);
    if (status == S3StatusOK) return trace.exit_result(ZORVAN_SUCCESS);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_ERROR, "S3_initialize returns: %d", static_cast<int>(status));
    return trace.exit_result(zorvan_error_put(zorvan_i_S3Error_to_error(status, "initialization", nullptr)));
}

void free_key_pair(void* datum) noexcept {
    auto* const pair = static_cast<zorvan_i_s3_key_pair_t*>(datum);
    std::free(pair->access_key_id);
    std::free(pair->secret_access_key);
    std::free(pair->prefix);
    std::free(pair->bucket);
    std::free(pair);
}
}  // namespace

void zorvan_i_ceph_start(zorvan_gridftp_server_operation_t op,
                         const zorvan_gridftp_server_session_info_t* session_info) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    std::unique_ptr<ceph_start_request_t> request(new (std::nothrow) ceph_start_request_t);
    if (request) request->s3_handle.reset(new (std::nothrow) zorvan_i_s3_handle_t{});
    if (!request || !request->s3_handle) {
        finish(trace, op, zorvan_i_s3_malloc_error(), nullptr, nullptr, nullptr);
        return;
    }
    request->op = op;
    request->session_info = session_info;
    zorvan_i_s3_handle_t* const s3_handle = request->s3_handle.get();
    s3_handle->uri_style = zorvan_i_s3_use_virtual_host ? S3UriStyleVirtualHost : S3UriStylePath;

    char* policy_text = nullptr;
    const bool told = zorvan_gridftp_server_get_config_data(op, "config", &policy_text) == ZORVAN_SUCCESS;
    const zorvan_i_s3_text_t policy(policy_text);
    bool known_scheme = true;
    zorvan_result_t result = ZORVAN_SUCCESS;
    if (!told) {
        /* A policy that cannot be had is not the absence of one. */
        result = zorvan_i_s3_malloc_error();
    } else if (policy) {
        result = configure_from_policy(request.get(), policy.get(), &known_scheme);
    } else {
        result = configure_from_settings(request.get(), __func__);
    }
    if (result == ZORVAN_SUCCESS && !known_scheme) {
        /* Not an error on purpose: the host refuses a log-in without a session. */
        request.reset();
        finish(trace, op, ZORVAN_SUCCESS, nullptr, nullptr, nullptr);
        return;
    }
    if (result == ZORVAN_SUCCESS) {
        s3_handle->region = zorvan_i_host_to_region(s3_handle->host_name);
        if (!s3_handle->region) s3_handle->region = zorvan_i_s3_default_region;
        result = zorvan_i_s3_base_initialize(s3_handle);
    }
    if (result == ZORVAN_SUCCESS) {
        const int failure = zorvan_i_s3_start_worker(zorvan_l_ceph_start_thread, request.get());
        if (failure == 0) {
            static_cast<void>(request.release());
            return;
        }
        result = zorvan_i_s3_system_error(failure, "zorvan_thread_create");
    }
    request.reset();
    zorvan_i_s3_log_result(trace.function(), result);
    finish(trace, op, result, nullptr, nullptr, nullptr);
}

void zorvan_i_s3_destroy(void* session_handle) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    auto* const s3_handle = static_cast<zorvan_i_s3_handle_t*>(session_handle);
    if (!s3_handle) return;
    zorvan_list_destroy_all(s3_handle->key_pairs, free_key_pair);
    for (char* owned : {s3_handle->host_name, s3_handle->access_key_id, s3_handle->secret_access_key,
                        s3_handle->security_token, s3_handle->extra_string_1, s3_handle->extra_string_2})
        std::free(owned);
    if (s3_handle->allowed_buckets) {
        for (char** name = s3_handle->allowed_buckets; *name; ++name)
            std::free(*name);
        std::free(s3_handle->allowed_buckets);
    }
    delete s3_handle;
}
