/*
 * Stat: classify the path, start a worker, gather its entries and hand them to the host.
 *
 * Threads: the entry runs on the host's thread and returns at once; each stat has a worker of its own, on
 * which all its requests and handlers run. Ownership: the request belongs to the entry until the worker runs,
 * then to the worker, which frees it after the host's finished call.
 */
#include "stat.h"

#include <sys/stat.h>
#include <algorithm>

namespace {
constexpr const char* source_file = "stat";
constexpr int hash_limit = 0x7FFFFFFF;

/** The type letter of a mode. */
char type_letter(uint32_t mode) noexcept {
    switch (mode & S_IFMT) {
        case S_IFIFO:
            return 'p';
        case S_IFCHR:
            return 'c';
        case S_IFDIR:
            return 'd';
        case S_IFBLK:
            return 'b';
        case S_IFREG:
            return '-';
        case S_IFLNK:
            return 'l';
        case S_IFSOCK:
            return 's';
        default:
            return '*';
    }
}

/** A mode in ten characters. The "r" for write bits of group and others and the set-group-id test in the last
 * place are what readers of these logs know. */
std::array<char, 11> mode_text(uint32_t mode) noexcept {
    const auto has = [mode](uint32_t bit) { return (mode & bit) != 0; };
    const auto special = [](bool set_id, bool execute) {
        if (set_id) return execute ? 's' : 'S';
        return execute ? 'x' : '-';
    };
    char others = '-';
    if (has(S_IXOTH))
        others = has(S_ISVTX) ? 't' : 'x';
    else if (has(S_ISGID))
        others = 'T';
    return {type_letter(mode),
            has(S_IRUSR) ? 'r' : '-',
            has(S_IWUSR) ? 'w' : '-',
            special(has(S_ISUID), has(S_IXUSR)),
            has(S_IRGRP) ? 'r' : '-',
            has(S_IWGRP) ? 'r' : '-',
            special(has(S_ISGID), has(S_IXGRP)),
            has(S_IROTH) ? 'r' : '-',
            has(S_IWOTH) ? 'r' : '-',
            others,
            '\0'};
}

/** Free the names of the batch and empty it. */
void clear_batch(zorvan_i_s3_stat_request_t* request) noexcept {
    for (size_t i = 0; i < request->stat_count; ++i) {
        std::free(const_cast<char*>(request->stats[i].name));
        request->stats[i] = {};
    }
    request->stat_count = 0;
}

void* zorvan_l_s3_stat_thread(void* argument) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const std::unique_ptr<zorvan_i_s3_stat_request_t> request(
        static_cast<zorvan_i_s3_stat_request_t*>(argument));
    switch (request->stat_case) {
        case zorvan_i_s3_stat_case_t::root:
            zorvan_i_s3_stat_root(request.get());
            break;
        case zorvan_i_s3_stat_case_t::bucket:
            zorvan_i_s3_stat_bucket(request.get());
            break;
        case zorvan_i_s3_stat_case_t::object:
            zorvan_i_s3_stat_object(request.get());
            break;
        case zorvan_i_s3_stat_case_t::list_buckets:
            zorvan_i_s3_stat_list_buckets(request.get());
            break;
        case zorvan_i_s3_stat_case_t::list_allowed:
            zorvan_i_s3_stat_list_allowed(request.get());
            break;
        case zorvan_i_s3_stat_case_t::list_objects:
            zorvan_i_s3_stat_list_objects(request.get());
            break;
    }
    zorvan_i_s3_log_result(trace.function(), request->result, ZORVAN_S3_INFO, ZORVAN_S3_INFO);
    const int count = static_cast<int>(request->stat_count);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "Finished stat. Count is %d\n", count);
    zorvan_gridftp_server_finished_stat(request->op, request->result, request->stats.data(), count);
    clear_batch(request.get());
    return nullptr;
}

/** Which of the cases a path is. */
zorvan_i_s3_stat_case_t classify(const zorvan_i_s3_stat_request_t& request) noexcept {
    const zorvan_i_s3_handle_t& s3_handle = *request.s3_handle;
    const bool file_only = request.stat_info->file_only != 0;
    if (*request.bucket) {
        if (!file_only) return zorvan_i_s3_stat_case_t::list_objects;
        return request.key ? zorvan_i_s3_stat_case_t::object : zorvan_i_s3_stat_case_t::bucket;
    }
    if (file_only) return zorvan_i_s3_stat_case_t::root;
    if (s3_handle.allowed_buckets) return zorvan_i_s3_stat_case_t::list_allowed;
    if (s3_handle.secret_access_key || s3_handle.security_token) return zorvan_i_s3_stat_case_t::list_buckets;
    return zorvan_i_s3_stat_case_t::list_allowed;
}

/** Fill the request's bucket context. */
zorvan_result_t resolve_context(zorvan_i_s3_stat_request_t* request) noexcept {
    zorvan_i_s3_handle_t* const s3_handle = request->s3_handle;
    const char* const pathname = request->stat_info->pathname;
    if (*request->bucket)
        return zorvan_i_s3_bucket_context(s3_handle, pathname, request->bucket, &request->bucket_context);
    const zorvan_i_s3_credentials_t* pair = nullptr;
    zorvan_i_s3_get_key_pair(s3_handle, "", pathname, &pair);
    request->bucket_context = zorvan_i_s3_session_context(*s3_handle, "", *pair);
    return ZORVAN_SUCCESS;
}

/** A request for a path, null when memory is exhausted. */
std::unique_ptr<zorvan_i_s3_stat_request_t> make_request(zorvan_gridftp_server_operation_t op,
                                                         const zorvan_gridftp_server_stat_info_t* stat_info,
                                                         zorvan_i_s3_handle_t* s3_handle) noexcept {
    try {
        auto request = std::make_unique<zorvan_i_s3_stat_request_t>();
        request->op = op;
        request->s3_handle = s3_handle;
        request->stat_info = stat_info;
        request->path = stat_info->pathname;
        const auto [bucket, key] = zorvan_i_s3_path_split(request->path.data());
        request->bucket = bucket;
        request->key = key;
        if (key) request->directory_key.append(key).append("/");
        return request;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
}  // namespace

uint32_t zorvan_i_s3_stat_hash(const char* text) noexcept {
    return static_cast<uint32_t>(zorvan_hashtable_string_hash(text, hash_limit));
}

zorvan_gridftp_server_stat_t zorvan_i_s3_stat_directory(const char* name, uint32_t dev,
                                                        uint32_t ino) noexcept {
    return {
        .mode = zorvan_i_s3_stat_directory_mode,
        .nlink = 1,
        .name = name,
        .symlink_target = nullptr,
        .uid = 0,
        .gid = 0,
        .size = 0,
        .atime = -1,
        .ctime = -1,
        .mtime = -1,
        .dev = dev,
        .ino = ino,
        .reserved = 0,
    };
}

zorvan_gridftp_server_stat_t zorvan_i_s3_stat_file(const char* name, uint64_t size, int64_t mtime,
                                                   uint32_t dev, uint32_t ino) noexcept {
    zorvan_gridftp_server_stat_t stat = zorvan_i_s3_stat_directory(name, dev, ino);
    stat.mode = zorvan_i_s3_stat_file_mode;
    stat.size = static_cast<int64_t>(std::min<uint64_t>(size, INT64_MAX)); /* no store has more */
    stat.mtime = mtime;
    return stat;
}

void zorvan_i_s3_stat_add(zorvan_i_s3_stat_request_t* request,
                          const zorvan_gridftp_server_stat_t& stat) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    char* const name = zorvan_libc_strdup(stat.name);
    if (!name) {
        if (request->result == ZORVAN_SUCCESS) request->result = zorvan_i_s3_malloc_error();
        return;
    }
    zorvan_gridftp_server_stat_t& slot = request->stats[request->stat_count];
    slot = stat;
    slot.name = name;
    ++request->stat_count;
    ZORVAN_S3_LOG(trace, ZORVAN_S3_TRACE, "Adding stat result for %s [mode=%s size=%ld]\n", name,
                  mode_text(stat.mode).data(), stat.size);
    if (request->stat_count < zorvan_i_s3_stat_batch_size) return;
    const int count = static_cast<int>(request->stat_count);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "calling finished_stat_partial stat_count=%d\n", count);
    zorvan_gridftp_server_finished_stat_partial(request->op, ZORVAN_SUCCESS, request->stats.data(), count);
    clear_batch(request);
}

void zorvan_i_s3_stat_root(zorvan_i_s3_stat_request_t* request) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const uint32_t root_hash = zorvan_i_s3_stat_hash("/");
    zorvan_i_s3_stat_add(request, zorvan_i_s3_stat_directory(".", root_hash, root_hash));
}

void zorvan_i_s3_stat(zorvan_gridftp_server_operation_t op,
                      const zorvan_gridftp_server_stat_info_t* stat_info, void* session_handle) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    auto* const s3_handle = static_cast<zorvan_i_s3_handle_t*>(session_handle);
    zorvan_assert_at(stat_info != nullptr, "stat_info != NULL", source_file, __LINE__);
    zorvan_assert_at(s3_handle != nullptr, "s3_handle != NULL", source_file, __LINE__);
    ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "command=stat path=%s file_only=%s\n", stat_info->pathname,
                  stat_info->file_only ? "true" : "false");

    zorvan_result_t result = ZORVAN_SUCCESS;
    auto request = make_request(op, stat_info, s3_handle);
    if (request) {
        s3_handle->current_op = op;
        request->stat_case = classify(*request);
        result = resolve_context(request.get());
    } else {
        result = zorvan_i_s3_malloc_error();
    }
    if (result == ZORVAN_SUCCESS) {
        if (zorvan_i_s3_start_worker(zorvan_l_s3_stat_thread, request.get()) == 0) {
            static_cast<void>(request.release());
            return;
        }
        result = ZORVAN_S3_GENERIC_ERROR(source_file, __func__, "%s", "zorvan_thread_create");
    }
    zorvan_i_s3_log_result(trace.function(), result);
    zorvan_gridftp_server_finished_stat(op, result, nullptr, 0);
}
