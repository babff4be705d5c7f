/*
 * Stat of a bucket, stat of a path, listing of a directory.
 *
 * A directory is a key prefix that ends in "/": it exists when its placeholder object, an object below it, or
 * a common prefix of the listing does. Flow: each case makes its requests under the retry rule; their
 * handlers add the entries. Threads: everything runs on the stat's worker.
 */
#include "stat.h"

#include <cerrno>
#include <cstring>

namespace {
using request_t = zorvan_i_s3_stat_request_t;

request_t* request_of(void* callback_data) noexcept {
    return static_cast<request_t*>(callback_data);
}

/** The last component of a path as POSIX basename takes it. Throws when memory is exhausted. */
std::string last_component(std::string_view path) {
    if (path.empty()) return ".";
    while (path.size() > 1 && path.ends_with('/'))
        path.remove_suffix(1);
    if (path == "/") return "/";
    if (const size_t slash = path.rfind('/'); slash != std::string_view::npos) path.remove_prefix(slash + 1);
    return std::string(path);
}

/** Run a handler's body; exhausted memory becomes the request's error and ends the S3 request. */
template <class Body>
S3Status guarded(request_t* request, Body body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        if (request->result == ZORVAN_SUCCESS) request->result = zorvan_i_s3_malloc_error();
        return S3StatusOutOfMemory;
    }
}

/** The common completion: keep the first failure that is not one of the ignored statuses. */
void complete(const char* function, S3Status status, const S3ErrorDetails* error_details, request_t* request,
              std::initializer_list<S3Status> ignored) noexcept {
    zorvan_i_s3_trace_t trace(function);
    bool is_ignored = false;
    for (const S3Status candidate : ignored)
        is_ignored = is_ignored || candidate == status;
    if (!is_ignored) {
        zorvan_i_s3_record_failure(request, status, request->stat_info->pathname, error_details,
                                   zorvan_i_s3_keep_t::first);
    }
    trace.exit_status(status);
}

uint32_t bucket_hash(const request_t& request) noexcept {
    return zorvan_i_s3_stat_hash(request.bucket);
}

void add_directory(request_t* request, const char* name, const char* ino_text) noexcept {
    zorvan_i_s3_stat_add(
        request, zorvan_i_s3_stat_directory(name, bucket_hash(*request), zorvan_i_s3_stat_hash(ino_text)));
}

/** Add the listing's "." unless it is out already. */
void add_listed_directory(request_t* request, const char* ino_text) noexcept {
    if (request->found) return;
    request->found = true;
    add_directory(request, ".", ino_text);
}

/** A reply's last-modified time, -1 when unknown. */
int64_t modified(const S3ResponseProperties& properties) noexcept {
    return properties.lastModified < 0 ? -1 : properties.lastModified;
}

/** The modification time of an object: what its uploader said, else the store's. */
int64_t modification_time(const zorvan_i_s3_trace_t& trace, const request_t& request,
                          const S3ResponseProperties& properties) noexcept {
    for (int i = 0; i < properties.metaDataCount; ++i) {
        const S3NameValue& pair = properties.metaData[i];
        if (std::strcmp(pair.name, "mtime") != 0) continue;
        char* end = nullptr;
        errno = 0;
        const int64_t value = std::strtoll(pair.value, &end, 10);
        const bool consumed = end != pair.value && *end == '\0' && errno == 0;
        if ((consumed && value >= 1) || std::strcmp(pair.value, "0") == 0) {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_TRACE, "Object '/%s/%s' has metadata: mtime='%ld'\n",
                          request.bucket, zorvan_i_s3_printable(request.key), value);
            return value;
        }
        ZORVAN_S3_LOG(trace, ZORVAN_S3_TRACE, "Object '/%s/%s' has invalid metadata: mtime='%s'\n",
                      request.bucket, zorvan_i_s3_printable(request.key), pair.value);
        return -1;
    }
    return modified(properties);
}

/** HEAD a key (null: the bucket) under the retry rule. */
void head(const zorvan_i_s3_trace_t& trace, request_t* request, const char* key,
          const S3ResponseHandler& handler) noexcept {
    request->try_count = 0;
    zorvan_i_s3_with_retries(
        trace, *request, "S3_head_object",
        [&] {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "REST: op=%p S3_head_object(bucket=%s, key=%s) try=%d\n",
                          zorvan_i_s3_pointer(request->op), request->bucket, zorvan_i_s3_printable(key),
                          request->try_count);
        },
        [&] { S3_head_object(&request->bucket_context, key, nullptr, 0, &handler, request); });
}

/** List one page below a prefix (null: the whole bucket) under the retry rule. */
void list_page(const zorvan_i_s3_trace_t& trace, request_t* request, const char* prefix, const char* marker,
               int maxkeys, const S3ListBucketHandler& handler) noexcept {
    request->try_count = 0;
    zorvan_i_s3_with_retries(
        trace, *request, "S3_list_bucket",
        [&] {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "REST: op=%p S3_list_bucket(bucket=%s, key=%s) try=%d\n",
                          zorvan_i_s3_pointer(request->op), request->bucket, prefix ? prefix : "<NULL>",
                          request->try_count);
        },
        [&] {
            S3_list_bucket(&request->bucket_context, prefix, marker, "/", maxkeys, nullptr, 0, &handler,
                           request);
        });
}

/* ------------------------------------------------------------ stat of a bucket */

S3Status zorvan_l_s3_stat_bucket_properties(const S3ResponseProperties*, void*) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    return trace.exit_status(S3StatusOK);
}

S3Status zorvan_l_s3_stat_bucket_dir_callback(int, const char*, int, const S3ListBucketContent*, int,
                                              const char**, void*) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    return trace.exit_status(S3StatusOK);
}

void zorvan_l_s3_stat_bucket_complete(S3Status status, const S3ErrorDetails* error_details,
                                      void* callback_data) noexcept {
    complete(__func__, status, error_details, request_of(callback_data), {});
}

/* -------------------------------------------- handlers that both cases share */

S3Status zorvan_l_s3_stat_list_dir_properties(const S3ResponseProperties*, void*) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    return trace.exit_status(S3StatusOK);
}

void zorvan_l_s3_stat_head_dir_complete(S3Status status, const S3ErrorDetails* error_details,
                                        void* callback_data) noexcept {
    complete(__func__, status, error_details, request_of(callback_data), {S3StatusHttpErrorNotFound});
}

/* -------------------------------------------------------------- stat of a path */

namespace stat_one {
S3Status zorvan_l_s3_stat_head_object_properties(const S3ResponseProperties* properties,
                                                 void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    request_t* const request = request_of(callback_data);
    if (properties) {
        zorvan_i_s3_stat_add(
            request,
            zorvan_i_s3_stat_file(request->key, properties->contentLength,
                                  modification_time(trace, *request, *properties), bucket_hash(*request),
                                  zorvan_i_s3_stat_hash(request->stat_info->pathname)));
    }
    return trace.exit_status(S3StatusOK);
}

void zorvan_l_s3_stat_head_object_complete(S3Status status, const S3ErrorDetails* error_details,
                                           void* callback_data) noexcept {
    /* A key that may not be read as an object may still be a directory. */
    complete(__func__, status, error_details, request_of(callback_data),
             {S3StatusHttpErrorForbidden, S3StatusHttpErrorNotFound});
}

S3Status zorvan_l_s3_stat_head_dir_properties(const S3ResponseProperties* properties,
                                              void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    request_t* const request = request_of(callback_data);
    if (properties) add_directory(request, ".", request->stat_info->pathname);
    return trace.exit_status(S3StatusOK);
}

S3Status zorvan_l_s3_stat_list_dir_callback(int, const char*, int contents_count,
                                            const S3ListBucketContent* contents, int common_prefixes_count,
                                            const char**, void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    request_t* const request = request_of(callback_data);
    const bool below =
        contents_count > 0 && std::string_view(contents[0].key).starts_with(request->directory_key);
    if (below || common_prefixes_count > 0) add_directory(request, ".", request->directory_key.c_str());
    return trace.exit_status(S3StatusOK);
}

void zorvan_l_s3_stat_list_dir_complete(S3Status status, const S3ErrorDetails* error_details,
                                        void* callback_data) noexcept {
    request_t* const request = request_of(callback_data);
    const bool nothing_there = status == S3StatusOK && request->stat_count == 0;
    complete(__func__, nothing_there ? S3StatusHttpErrorNotFound : status, error_details, request, {});
}
}  // namespace stat_one

/* ------------------------------------------------------ listing of a directory */

namespace list {
S3Status zorvan_l_s3_stat_head_dir_properties(const S3ResponseProperties* properties,
                                              void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    request_t* const request = request_of(callback_data);
    if (properties) add_listed_directory(request, request->directory_key.c_str());
    return trace.exit_status(S3StatusOK);
}

S3Status zorvan_l_s3_stat_list_dir_callback(int is_truncated, const char* next_marker, int contents_count,
                                            const S3ListBucketContent* contents, int common_prefixes_count,
                                            const char** common_prefixes, void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    request_t* const request = request_of(callback_data);
    return trace.exit_status(guarded(request, [&] {
        const std::string& directory_key = request->directory_key;
        const char* const ino_text = request->key ? directory_key.c_str() : "/";
        for (int i = 0; i < contents_count; ++i) {
            const S3ListBucketContent& object = contents[i];
            if (!std::string_view(object.key).starts_with(directory_key)) continue;
            add_listed_directory(request, ino_text);
            if (directory_key == object.key) continue;
            const std::string name = last_component(object.key);
            zorvan_i_s3_stat_add(
                request, zorvan_i_s3_stat_file(name.c_str(), object.size,
                                               object.lastModified < 0 ? -1 : object.lastModified,
                                               bucket_hash(*request), zorvan_i_s3_stat_hash(object.key)));
        }
        for (int i = 0; i < common_prefixes_count; ++i) {
            const char* const prefix = common_prefixes[i];
            if (!std::string_view(prefix).starts_with(directory_key)) continue;
            add_listed_directory(request, ino_text);
            if (directory_key == prefix) continue;
            const std::string name = last_component(prefix);
            if (name == "/") {
                ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "Dropping invalid entry '%s'.\n", prefix);
                continue;
            }
            add_directory(request, name.c_str(), prefix);
        }
        if (is_truncated && next_marker && *next_marker && !request->next_marker) {
            request->next_marker.reset(zorvan_libc_strdup(next_marker));
            if (!request->next_marker) throw std::bad_alloc();
        }
        return S3StatusOK;
    }));
}

void zorvan_l_s3_stat_list_dir_complete(S3Status status, const S3ErrorDetails* error_details,
                                        void* callback_data) noexcept {
    complete(__func__, status, error_details, request_of(callback_data), {S3StatusHttpErrorNotFound});
}

S3Status zorvan_l_s3_stat_head_object_properties(const S3ResponseProperties* properties,
                                                 void* callback_data) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    request_t* const request = request_of(callback_data);
    if (!properties) return trace.exit_status(S3StatusOK);
    const char* const pathname = request->stat_info->pathname;
    if (!request->key) {
        add_listed_directory(request, pathname);
        return trace.exit_status(S3StatusOK);
    }
    return trace.exit_status(guarded(request, [&] {
        const std::string name = last_component(request->key);
        zorvan_i_s3_stat_add(
            request, zorvan_i_s3_stat_file(name.c_str(), properties->contentLength, modified(*properties),
                                           bucket_hash(*request), zorvan_i_s3_stat_hash(pathname)));
        return S3StatusOK;
    }));
}

void zorvan_l_s3_stat_head_object_complete(S3Status status, const S3ErrorDetails* error_details,
                                           void* callback_data) noexcept {
    complete(__func__, status, error_details, request_of(callback_data), {});
}
}  // namespace list
}  // namespace

void zorvan_i_s3_stat_bucket(zorvan_i_s3_stat_request_t* request) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const S3ListBucketHandler handler{
        .responseHandler = {.propertiesCallback = zorvan_l_s3_stat_bucket_properties,
                            .completeCallback = zorvan_l_s3_stat_bucket_complete},
        .listBucketCallback = zorvan_l_s3_stat_bucket_dir_callback,
    };
    request->try_count = 0;
    zorvan_i_s3_with_retries(
        trace, *request, "S3_list_bucket",
        [&] {
            ZORVAN_S3_LOG(trace, ZORVAN_S3_INFO, "REST: op=%p S3_list_bucket(bucket=%s) try=%d\n",
                          zorvan_i_s3_pointer(request->op), request->bucket, request->try_count);
        },
        [&] {
            S3_list_bucket(&request->bucket_context, nullptr, nullptr, "/", 1, nullptr, 0, &handler, request);
        });
    if (request->result == ZORVAN_SUCCESS) add_directory(request, ".", request->bucket);
}

void zorvan_i_s3_stat_object(zorvan_i_s3_stat_request_t* request) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const auto undecided = [request] {
        return request->result == ZORVAN_SUCCESS && request->stat_count == 0;
    };
    const char* const directory_key = request->directory_key.c_str();

    head(trace, request, request->key,
         {.propertiesCallback = stat_one::zorvan_l_s3_stat_head_object_properties,
          .completeCallback = stat_one::zorvan_l_s3_stat_head_object_complete});
    if (!undecided()) return;

    ZORVAN_S3_LOG(trace, ZORVAN_S3_DEBUG, "trying to use the aws key %s for %s %s\n",
                  zorvan_i_s3_printable(request->bucket_context.accessKeyId), request->bucket, directory_key);
    head(trace, request, directory_key,
         {.propertiesCallback = stat_one::zorvan_l_s3_stat_head_dir_properties,
          .completeCallback = zorvan_l_s3_stat_head_dir_complete});
    if (!undecided()) return;

    list_page(trace, request, directory_key, nullptr, 1,
              {.responseHandler = {.propertiesCallback = zorvan_l_s3_stat_list_dir_properties,
                                   .completeCallback = stat_one::zorvan_l_s3_stat_list_dir_complete},
               .listBucketCallback = stat_one::zorvan_l_s3_stat_list_dir_callback});
}

void zorvan_i_s3_stat_list_objects(zorvan_i_s3_stat_request_t* request) noexcept {
    zorvan_i_s3_trace_t trace(__func__);
    const char* const prefix = request->key ? request->directory_key.c_str() : nullptr;
    if (prefix) {
        head(trace, request, prefix,
             {.propertiesCallback = list::zorvan_l_s3_stat_head_dir_properties,
              .completeCallback = zorvan_l_s3_stat_head_dir_complete});
        if (request->result != ZORVAN_SUCCESS) return;
    }

    const S3ListBucketHandler handler{
        .responseHandler = {.propertiesCallback = zorvan_l_s3_stat_list_dir_properties,
                            .completeCallback = list::zorvan_l_s3_stat_list_dir_complete},
        .listBucketCallback = list::zorvan_l_s3_stat_list_dir_callback,
    };
    do {
        const zorvan_i_s3_text_t marker = std::move(request->next_marker);
        list_page(trace, request, prefix, marker.get(), 0, handler);
    } while (request->result == ZORVAN_SUCCESS && request->next_marker);
    if (request->result != ZORVAN_SUCCESS || request->found) return;

    head(trace, request, request->key,
         {.propertiesCallback = list::zorvan_l_s3_stat_head_object_properties,
          .completeCallback = list::zorvan_l_s3_stat_head_object_complete});
}
