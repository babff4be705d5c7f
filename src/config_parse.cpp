/*
 * The configuration file (settings of the process) and the storage policy of a collection (JSON).
 *
 * Flow: activation reads the file into the settings below; each session start parses its policy. Threads: the
 * settings are written by activation alone and read without locks afterwards; parsing a policy touches none.
 * Ownership: what a policy yields belongs to the caller.
 */
#include "config_keys.h"
#include "s3_request.h"

#include <jansson.h>

#include <strings.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

char* zorvan_i_s3_default_hostname = nullptr;
char* zorvan_i_s3_default_region = nullptr;
char* zorvan_i_s3_mime_type_file = nullptr;
bool zorvan_i_s3_https = true;
bool zorvan_i_s3_use_virtual_host = false;
bool zorvan_i_s3_verify_peer = true;
int zorvan_i_s3_max_retries = 1;
int zorvan_i_s3_retry_delay_ms = 100;
long long zorvan_i_s3_part_size = 0;
int zorvan_i_s3_restore_days = 4;
char* zorvan_i_s3_restore_tier = nullptr;
char* zorvan_i_s3_rg_admin_bucket = nullptr;
char* zorvan_i_s3_rg_admin_access_key_id = nullptr;
char* zorvan_i_s3_rg_admin_secret_access_key = nullptr;

namespace {
constexpr const char* source_file = "config_parse";
constexpr const char* default_path = "${sysconfdir}/zorvan/zorvan-gridftp-server-ceph.conf";
constexpr size_t line_size = 256;

using config_key_t = zorvan_i_s3_config_key_t;

struct close_file_t {
    void operator()(FILE* file) const noexcept { std::fclose(file); }
};

bool is_any_of(const char* value, std::initializer_list<const char*> words) noexcept {
    for (const char* const word : words) {
        if (strcasecmp(value, word) == 0) return true;
    }
    return false;
}

/** Whether a number was read completely, fits and is not negative; `*number` holds it in every case. */
bool parse_number(const char* value, long long* number) noexcept {
    char* end = nullptr;
    errno = 0;
    *number = std::strtoll(value, &end, 10);
    return end != value && *end == '\0' && errno == 0 && *number >= 0;
}

zorvan_result_t store_string(char** setting, const char* value) noexcept {
    if (*setting && std::strcmp(*setting, value) == 0) return ZORVAN_SUCCESS;
    std::free(*setting);
    *setting = zorvan_libc_strdup(value);
    return *setting ? ZORVAN_SUCCESS : zorvan_i_s3_malloc_error();
}

}  // namespace

zorvan_result_t zorvan_l_s3_config_parse_key(const char* path, int line_number, const char* key,
                                             const char* value, const config_key_t* config_keys,
                                             bool* found) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const config_key_t* record = config_keys;
    while (record->name && std::strcmp(record->name, key) != 0)
        ++record;
    *found = record->name != nullptr;
    if (!*found) return trace.exit_result(ZORVAN_SUCCESS);

    zorvan_result_t result = ZORVAN_SUCCESS;
    const char* kind = nullptr;
    long long number = 0;
    switch (record->value_type) {
        case ZORVAN_S3_CONFIG_STRING:
            result = store_string(record->string_value, value);
            break;
        case ZORVAN_S3_CONFIG_BOOL:
            if (is_any_of(value, {"true", "yes", "on", "1"}))
                *record->bool_value = true;
            else if (is_any_of(value, {"false", "no", "off", "0"}))
                *record->bool_value = false;
            else
                kind = "boolean";
            break;
        case ZORVAN_S3_CONFIG_INT: {
            const bool good = parse_number(value, &number);
            *record->int_value = static_cast<int>(number);
            if (!good || number > INT_MAX) kind = "integer";
            break;
        }
        case ZORVAN_S3_CONFIG_LONG_LONG: {
            const bool good = parse_number(value, &number);
            *record->long_long_value = number;
            if (!good) kind = "long long";
            break;
        }
    }
    if (kind) {
        result = ZORVAN_S3_GENERIC_ERROR(
            source_file, __func__, "Error parsing %s:%d: unexpected value for %s attribute %s: \"%s\"\n",
            path, line_number, kind, key, value);
    }
    return trace.exit_result(result);
}

zorvan_result_t zorvan_l_s3_config_check_required(const char* path,
                                                  const config_key_t* config_keys) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    zorvan_result_t result = ZORVAN_SUCCESS;
    for (const config_key_t* record = config_keys; record->name; ++record) {
        if (record->required && record->string_value && !*record->string_value) {
            result = ZORVAN_S3_GENERIC_ERROR(source_file, __func__, "Required config \"%s\" not set in %s\n",
                                             record->name, path);
            break;
        }
    }
    return trace.exit_result(result);
}

namespace {
/** Cut the comment and the white space around what is left. @return the text inside `line` */
char* trim(char* line) noexcept {
    constexpr const char* blanks = " \t\n\v\f\r";
    line[std::strcspn(line, "#")] = '\0';
    line += std::strspn(line, blanks);
    size_t length = std::strlen(line);
    while (length > 0 && std::strchr(blanks, line[length - 1]))
        --length;
    line[length] = '\0';
    return line;
}

/** Read every line of the file into the settings of the two tables. */
zorvan_result_t parse_lines(const zorvan_i_s3_trace_t& trace, FILE* file, const char* path,
                            const config_key_t* general, const config_key_t* gateway) noexcept {
    char line[line_size];
    int line_number = 0;
    while (std::fgets(line, sizeof line, file)) {
        ++line_number;
        ZORVAN_S3_LOG(trace, ZORVAN_S3_TRACE, "parsing line [%d]: %s\n", line_number, line);
        const char* const text = trim(line);
        if (!*text) continue;
        char key[line_size];
        char value[line_size];
        if (std::sscanf(text, "%255s = %255s", key, value) != 2) {
            return ZORVAN_S3_GENERIC_ERROR(source_file, trace.function(),
                                           "Error parsing %s:%d: invalid line\n", path, line_number);
        }
        bool found = false;
        zorvan_result_t result = ZORVAN_SUCCESS;
        for (const config_key_t* table : {general, gateway}) {
            result = zorvan_l_s3_config_parse_key(path, line_number, key, value, table, &found);
            if (found || result != ZORVAN_SUCCESS) break;
        }
        if (result != ZORVAN_SUCCESS) return result;
        if (!found) {
            return ZORVAN_S3_GENERIC_ERROR(source_file, trace.function(),
                                           "Error parsing %s:%d: unknown option \"%s\"\n", path, line_number,
                                           key);
        }
    }
    return ZORVAN_SUCCESS;
}

zorvan_result_t read_file(const zorvan_i_s3_trace_t& trace, const char* path) noexcept {
    const config_key_t general[] = {
        {.name = "host_name", .string_value = &zorvan_i_s3_default_hostname},
        {.name = "default_region", .string_value = &zorvan_i_s3_default_region},
        {.name = "mime_types_path", .string_value = &zorvan_i_s3_mime_type_file},
        {.value_type = ZORVAN_S3_CONFIG_BOOL, .name = "use_https", .bool_value = &zorvan_i_s3_https},
        {.value_type = ZORVAN_S3_CONFIG_BOOL,
         .name = "use_virtual_host",
         .bool_value = &zorvan_i_s3_use_virtual_host},
        {.value_type = ZORVAN_S3_CONFIG_BOOL, .name = "verify_peer", .bool_value = &zorvan_i_s3_verify_peer},
        {.value_type = ZORVAN_S3_CONFIG_INT, .name = "max_retries", .int_value = &zorvan_i_s3_max_retries},
        {.value_type = ZORVAN_S3_CONFIG_INT, .name = "retry_delay", .int_value = &zorvan_i_s3_retry_delay_ms},
        {.value_type = ZORVAN_S3_CONFIG_LONG_LONG,
         .name = "part_size",
         .long_long_value = &zorvan_i_s3_part_size},
        {.value_type = ZORVAN_S3_CONFIG_INT, .name = "restore_days", .int_value = &zorvan_i_s3_restore_days},
        {.name = "restore_tier", .string_value = &zorvan_i_s3_restore_tier},
        {},
    };
    const config_key_t gateway[] = {
        {.name = "ceph_rgw_admin_bucket", .string_value = &zorvan_i_s3_rg_admin_bucket},
        {.name = "ceph_rgw_admin_access_key_id", .string_value = &zorvan_i_s3_rg_admin_access_key_id},
        {.name = "ceph_rgw_admin_secret_access_key", .string_value = &zorvan_i_s3_rg_admin_secret_access_key},
        {},
    };

    ZORVAN_S3_LOG(trace, ZORVAN_S3_TRACE, "parsing config file %s\n", path);
    const std::unique_ptr<FILE, close_file_t> file(std::fopen(path, "r"));
    const auto load_error = [path](int cause) {
        const zorvan_i_s3_text_t message(zorvan_common_create_string("Error loading config file %s: ", path));
        return zorvan_i_s3_system_error(cause, message ? message.get() : "malloc");
    };
    if (!file) return load_error(errno);
    zorvan_result_t result = parse_lines(trace, file.get(), path, general, gateway);
    /* A folder can be opened but not read. */
    if (result == ZORVAN_SUCCESS && std::ferror(file.get())) result = load_error(errno);
    if (result == ZORVAN_SUCCESS) result = zorvan_l_s3_config_check_required(path, general);
    if (result == ZORVAN_SUCCESS) result = zorvan_l_s3_config_check_required(path, gateway);
    return result;
}

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

zorvan_result_t zorvan_i_s3_config_parse() noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    char* path = nullptr;
    if (zorvan_gridftp_server_get_config_string(nullptr, &path) != ZORVAN_SUCCESS || !path) {
        const zorvan_result_t result = zorvan_eval_path(default_path, &path);
        if (result != ZORVAN_SUCCESS) return trace.exit_result(result);
    }
    const zorvan_i_s3_text_t owned_path(path);
    return trace.exit_result(read_file(trace, owned_path.get()));
}

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
