/*
 * The storage policy of a collection (JSON).
 *
 * Each session start parses its own; any thread, no state. Ownership: what a policy yields belongs to the
 * caller.
 */
#include "s3_request.h"

#include <jansson.h>

#include <cstring>

namespace {
/** What the errors of a policy, too, give as their source. */
constexpr const char* source_file = "config_parse";

void free_text_array(char** array) noexcept {
    if (!array) return;
    for (char** text = array; *text; ++text)
        std::free(*text);
    std::free(array);
}

/** Build the allowed-bucket list from the policy's value; a value without elements allows every bucket. */
zorvan_result_t zorvan_i_s3_config_parse_buckets(const json_t* buckets, char*** allowed_buckets) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    *allowed_buckets = nullptr;
    const size_t count = json_array_size(buckets);
    if (count == 0) return trace.exit_result(ZORVAN_SUCCESS);

    auto** const list = static_cast<char**>(std::calloc(count + 1, sizeof(char*)));
    if (!list) return trace.exit_result(zorvan_i_s3_malloc_error());
    for (size_t i = 0; i < count; ++i) {
        const char* const name = json_string_value(json_array_get(buckets, i));
        if (name) list[i] = zorvan_libc_strdup(name);
        if (!list[i]) {
            free_text_array(list);
            return trace.exit_result(name ? zorvan_i_s3_malloc_error()
                                          : ZORVAN_S3_GENERIC_ERROR(source_file, __func__,
                                                                    "Error unpacking allowed bucket list."));
        }
    }
    *allowed_buckets = list;
    return trace.exit_result(ZORVAN_SUCCESS);
}

struct release_json_t {
    void operator()(json_t* json) const noexcept { json_decref(json); }
};
}  // namespace

zorvan_result_t zorvan_i_s3_config_parse_json(const char* json, char** endpoint, char*** allowed_buckets,
                                              char** admin_access_key_id,
                                              char** admin_secret_access_key) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    *endpoint = nullptr;
    *allowed_buckets = nullptr;
    *admin_access_key_id = nullptr;
    *admin_secret_access_key = nullptr;

    json_error_t error{};
    const std::unique_ptr<json_t, release_json_t> policy(json_loads(json, 0, &error));
    if (!policy) {
        return trace.exit_result(ZORVAN_S3_GENERIC_ERROR(
            source_file, __func__, "Error loading collection storage policy: %s\n", error.text));
    }
    const char* host = nullptr;
    const char* key_id = nullptr;
    const char* secret = nullptr;
    if (json_unpack_ex(policy.get(), &error, 0, "{s:s,s:s,s:s}", "s3_endpoint", &host, "ceph_admin_key_id",
                       &key_id, "ceph_admin_secret_key", &secret) != 0) {
        return trace.exit_result(ZORVAN_S3_GENERIC_ERROR(
            source_file, __func__, "Error unpacking collection storage policy: %s\n", error.text));
    }
    json_t* buckets = nullptr;
    if (json_unpack_ex(policy.get(), &error, 0, "{s?o}", "s3_buckets", &buckets) != 0) {
        return trace.exit_result(ZORVAN_S3_GENERIC_ERROR(
            source_file, __func__, "Error unpacking allowed bucket list: %s\n", error.text));
    }
    char** list = nullptr;
    if (const zorvan_result_t result = zorvan_i_s3_config_parse_buckets(buckets, &list);
        result != ZORVAN_SUCCESS) {
        return trace.exit_result(result);
    }
    zorvan_i_s3_text_t host_copy(zorvan_libc_strdup(host));
    zorvan_i_s3_text_t key_id_copy(zorvan_libc_strdup(key_id));
    zorvan_i_s3_text_t secret_copy(zorvan_libc_strdup(secret));
    if (!host_copy || !key_id_copy || !secret_copy) {
        free_text_array(list);
        return trace.exit_result(zorvan_i_s3_malloc_error());
    }
    size_t length = std::strlen(host_copy.get());
    while (length > 0 && host_copy.get()[length - 1] == '/')
        --length;
    host_copy.get()[length] = '\0';

    *endpoint = host_copy.release();
    *allowed_buckets = list;
    *admin_access_key_id = key_id_copy.release();
    *admin_secret_access_key = secret_copy.release();
    return trace.exit_result(ZORVAN_SUCCESS);
}
