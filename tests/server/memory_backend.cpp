// The in-memory back end. Every operation but the receive runs on a thread of its own; a receive is driven by
// its read callbacks alone and publishes the object as soon as it has the announced bytes.
#include "memory_backend.h"

#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zorvan_gridftp_server.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace {

using bytes = std::vector<unsigned char>;

struct entry {
    bool directory = false;
    std::shared_ptr<const bytes> content;
    std::int64_t mtime = 0;
};

struct store {
    std::mutex mutex;
    std::map<std::string, entry> entries;
    std::atomic<std::size_t> open_sessions{0};
    std::atomic<std::size_t> destroyed_sessions{0};
    std::atomic<int> batch{100};
    bool report_ranges = false;
    std::atomic<std::uint64_t> reported_bytes{0};
    bool hold_checksums = false;
    std::size_t held_checksums = 0;
    std::condition_variable released;
};

store& the_store() {
    static auto* made = new store;
    return *made;
}

struct session {
    std::string user;
};

// ------------------------------------------------------------------ errors

zorvan_result_t generic(const std::string& text) {
    return zorvan_error_put(zorvan_error_construct_error(nullptr, nullptr, ZORVAN_ERROR_TYPE_GENERIC,
                                                         "memory", __func__, __LINE__, "%s", text.c_str()));
}

zorvan_result_t response(int code, const char* word, const std::string& text) {
    return zorvan_error_put(
        zorvan_gfs_ftp_response_error_construct(nullptr, nullptr, code, word, "%s", text.c_str()));
}

zorvan_result_t system_error(int reason, const char* what) {
    return zorvan_error_put(zorvan_i_gfs_error_system(nullptr, reason, "%s", what));
}

zorvan_result_t not_found(const std::string& path) {
    return response(550, "PATH_NOT_FOUND", "No such file or directory: " + path);
}

// The failure that a path asks for.
std::optional<zorvan_result_t> asked_failure(const std::string& path) {
    const auto begin = path.find("/error-");
    if (begin == std::string::npos) {
        return std::nullopt;
    }
    const auto word = path.substr(begin + 7, path.find('/', begin + 1) - begin - 7);
    if (word == "plain") {
        return ZORVAN_FAILURE;
    }
    if (word == "system") {
        return system_error(EFBIG, "write");
    }
    if (word == "generic") {
        return generic("something generic");
    }
    const int code = std::atoi(word.c_str());
    return response(code >= 400 && code < 600 ? code : 550, "ASKED_FOR", "line one\nline two");
}

// ----------------------------------------------------------------- threads

struct job {
    std::function<void()> function;
};

void* run_job(void* argument) {
    const std::unique_ptr<job> owned(static_cast<job*>(argument));
    owned->function();
    return nullptr;
}

void on_thread(std::function<void()> function) {
    auto owned = std::make_unique<job>();
    owned->function = std::move(function);
    if (zorvan_thread_create(nullptr, nullptr, run_job, owned.get()) == 0) {
        (void)owned.release();
    } else {
        owned->function();
    }
}

// ------------------------------------------------------------------- paths

std::string parent_of(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string name_of(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

bool is_directory_locked(const std::string& path) {
    if (path == "/") {
        return true;
    }
    const auto found = the_store().entries.find(path);
    return found != the_store().entries.end() && found->second.directory;
}

zorvan_gridftp_server_stat_t describe(const entry& described, const char* name) {
    zorvan_gridftp_server_stat_t record{};
    record.mode = described.directory ? (S_IFDIR | 0755) : (S_IFREG | 0644);
    record.nlink = 1;
    record.name = name;
    record.size = described.content ? static_cast<std::int64_t>(described.content->size()) : 0;
    record.atime = record.ctime = record.mtime = described.mtime;
    return record;
}

// --------------------------------------------------------------- operations

void session_start(zorvan_gridftp_server_operation_t op, const zorvan_gridftp_server_session_info_t* info) {
    on_thread([op, info] {
        const std::string user = info->user_name;
        if (user == "refused") {
            zorvan_gridftp_server_finished_session_start(op, generic("no keys for this user"), nullptr,
                                                         nullptr, nullptr);
            return;
        }
        if (user == "nosession") {
            zorvan_gridftp_server_finished_session_start(op, ZORVAN_SUCCESS, nullptr, nullptr, nullptr);
            return;
        }
        ++the_store().open_sessions;
        zorvan_gridftp_server_finished_session_start(op, ZORVAN_SUCCESS, new session{user}, nullptr, "/");
    });
}

void session_destroy(void* handle) {
    delete static_cast<session*>(handle);
    --the_store().open_sessions;
    ++the_store().destroyed_sessions;
}

void list(zorvan_gridftp_server_operation_t op, const std::string& path) {
    struct listed {
        std::string name;
        entry what;
    };
    std::vector<listed> found{{".", {true, nullptr, 0}}};
    {
        const std::lock_guard lock(the_store().mutex);
        const std::string prefix = path == "/" ? "/" : path + "/";
        for (auto at = the_store().entries.lower_bound(prefix);
             at != the_store().entries.end() && at->first.compare(0, prefix.size(), prefix) == 0; ++at) {
            if (at->first.find('/', prefix.size()) == std::string::npos) {
                found.push_back({at->first.substr(prefix.size()), at->second});
            }
        }
    }
    const auto batch = static_cast<std::size_t>(std::max(1, the_store().batch.load()));
    std::vector<zorvan_gridftp_server_stat_t> records;
    for (const auto& each : found) {
        records.push_back(describe(each.what, each.name.c_str()));
        if (records.size() == batch) {
            zorvan_gridftp_server_finished_stat_partial(op, ZORVAN_SUCCESS, records.data(),
                                                        static_cast<int>(records.size()));
            records.clear();
        }
    }
    zorvan_gridftp_server_finished_stat(op, ZORVAN_SUCCESS, records.data(), static_cast<int>(records.size()));
}

void stat_entry(zorvan_gridftp_server_operation_t op, const zorvan_gridftp_server_stat_info_t* info,
                void* /*session_handle*/) {
    on_thread([op, info] {
        const std::string path = info->pathname;
        if (path.find("/hang") != std::string::npos) {
            zorvan_gfs_log_message(ZORVAN_GFS_LOG_ERROR, "a stat hangs");
            for (;;) {
                (void)::pause();
            }
        }
        if (auto failure = asked_failure(path)) {
            zorvan_gridftp_server_finished_stat(op, *failure, nullptr, 0);
            return;
        }
        entry found;
        {
            const std::lock_guard lock(the_store().mutex);
            const auto position = the_store().entries.find(path);
            if (path == "/") {
                found.directory = true;
            } else if (position != the_store().entries.end()) {
                found = position->second;
            } else {
                zorvan_gridftp_server_finished_stat(op, not_found(path), nullptr, 0);
                return;
            }
        }
        if (found.directory && info->file_only == 0) {
            list(op, path);
            return;
        }
        const std::string name = path == "/" ? "/" : name_of(path);
        const auto record = describe(found, name.c_str());
        zorvan_gridftp_server_finished_stat(op, ZORVAN_SUCCESS, &record, 1);
    });
}

std::string md5_of(const unsigned char* data, std::size_t size) {
    unsigned char sum[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(data, size, sum, &length, EVP_md5(), nullptr);
    std::string text;
    for (unsigned int i = 0; i < length; ++i) {
        char digits[3];
        (void)std::snprintf(digits, sizeof digits, "%02x", sum[i]);
        text += digits;
    }
    return text;
}

// The work of a command. @return its result; `text` may be set
zorvan_result_t do_command(zorvan_gridftp_server_operation_t op,
                           const zorvan_gridftp_server_command_info_t& info,
                           std::optional<std::string>& text) {
    const std::string path = info.pathname;
    if (auto failure = asked_failure(path)) {
        return *failure;
    }
    auto& entries = the_store().entries;
    std::unique_lock lock(the_store().mutex);
    const auto found = entries.find(path);
    switch (info.command) {
        case ZORVAN_GRIDFTP_SERVER_COMMAND_MKD:
            if (found != entries.end()) {
                return response(553, "PATH_EXISTS", "It exists: " + path);
            }
            if (!is_directory_locked(parent_of(path))) {
                return not_found(parent_of(path));
            }
            entries[path] = {true, nullptr, std::time(nullptr)};
            return ZORVAN_SUCCESS;
        case ZORVAN_GRIDFTP_SERVER_COMMAND_RMD: {
            if (found == entries.end() || !found->second.directory) {
                return not_found(path);
            }
            const auto below = entries.lower_bound(path + "/");
            if (below != entries.end() && below->first.compare(0, path.size() + 1, path + "/") == 0) {
                return response(550, "DIRECTORY_NOT_EMPTY", "Not empty: " + path);
            }
            entries.erase(found);
            return ZORVAN_SUCCESS;
        }
        case ZORVAN_GRIDFTP_SERVER_COMMAND_DELE:
            if (found == entries.end() || found->second.directory) {
                return not_found(path);
            }
            entries.erase(found);
            return ZORVAN_SUCCESS;
        case ZORVAN_GRIDFTP_SERVER_COMMAND_RNTO: {
            const std::string source = info.from_pathname != nullptr ? info.from_pathname : "";
            const auto from = entries.find(source);
            if (from == entries.end()) {
                return not_found(source);
            }
            auto moved = from->second;
            entries.erase(from);
            entries[path] = std::move(moved);
            return ZORVAN_SUCCESS;
        }
        case ZORVAN_GRIDFTP_SERVER_COMMAND_CKSM: {
            if (found == entries.end() || found->second.directory) {
                return not_found(path);
            }
            const auto content = found->second.content;
            ++the_store().held_checksums;
            the_store().released.wait(lock, [] { return !the_store().hold_checksums; });
            --the_store().held_checksums;
            lock.unlock();
            int interval = -1;
            (void)zorvan_gridftp_server_get_update_interval(op, &interval);
            if (interval > 0) {
                zorvan_gridftp_server_intermediate_command(op, ZORVAN_SUCCESS,
                                                           std::to_string(content->size()).c_str());
            }
            const auto size = static_cast<std::int64_t>(content->size());
            const std::int64_t begin = std::clamp<std::int64_t>(info.cksm_offset, 0, size);
            const std::int64_t length =
                info.cksm_length < 0 ? size - begin : std::min(info.cksm_length, size - begin);
            text = md5_of(content->data() + begin, static_cast<std::size_t>(length));
            return ZORVAN_SUCCESS;
        }
        case ZORVAN_GRIDFTP_SERVER_COMMAND_CUSTOM:
            if (found == entries.end()) {
                return not_found(path);
            }
            text = "250 staged " + path + "\r\n";
            return ZORVAN_SUCCESS;
        default:
            return ZORVAN_FAILURE;
    }
}

void command_entry(zorvan_gridftp_server_operation_t op, const zorvan_gridftp_server_command_info_t* info,
                   void* /*session_handle*/) {
    on_thread([op, info] {
        std::optional<std::string> text;
        const auto result = do_command(op, *info, text);
        zorvan_gridftp_server_finished_command(op, result, text ? text->c_str() : nullptr);
    });
}

// ----------------------------------------------------------------- download

struct download {
    std::mutex mutex;
    std::condition_variable changed;
    int outstanding = 0;
    bool failed = false;
};

void write_done(zorvan_gridftp_server_operation_t /*op*/, zorvan_result_t result, unsigned char* buffer,
                size_t /*nbytes*/, void* argument) {
    delete[] buffer;
    auto& state = *static_cast<download*>(argument);
    const std::lock_guard lock(state.mutex);
    --state.outstanding;
    state.failed = state.failed || result != ZORVAN_SUCCESS;
    state.changed.notify_all();
}

void send_object(zorvan_gridftp_server_operation_t op, const std::string& path) {
    std::shared_ptr<const bytes> content;
    {
        const std::lock_guard lock(the_store().mutex);
        const auto found = the_store().entries.find(path);
        if (found == the_store().entries.end() || found->second.directory) {
            zorvan_gridftp_server_finished_transfer(op, not_found(path));
            return;
        }
        content = found->second.content;
    }
    zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
    size_t block = 0;
    int concurrency = 0;
    (void)zorvan_gridftp_server_get_block_size(op, &block);
    (void)zorvan_gridftp_server_get_optimal_concurrency(op, &concurrency);
    download state;
    zorvan_result_t result = ZORVAN_SUCCESS;
    std::unique_lock lock(state.mutex);
    for (;;) {
        zorvan_off_t offset = 0;
        zorvan_off_t length = 0;
        if (zorvan_gridftp_server_get_read_range(op, &offset, &length) != ZORVAN_SUCCESS || length == 0) {
            break;
        }
        const auto size = static_cast<zorvan_off_t>(content->size());
        const bool to_the_end = length < 0 || length > size - std::min(offset, size);
        const zorvan_off_t end = to_the_end ? size : offset + length;
        while (offset < end && result == ZORVAN_SUCCESS && !state.failed) {
            state.changed.wait(lock, [&] { return state.outstanding < concurrency; });
            const auto part =
                static_cast<size_t>(std::min<zorvan_off_t>(end - offset, static_cast<zorvan_off_t>(block)));
            auto buffer = std::make_unique<unsigned char[]>(part);
            std::memcpy(buffer.get(), content->data() + offset, part);
            result =
                zorvan_gridftp_server_register_write(op, buffer.get(), part, offset, -1, write_done, &state);
            if (result == ZORVAN_SUCCESS) {
                (void)buffer.release();
                ++state.outstanding;
                offset += static_cast<zorvan_off_t>(part);
            }
        }
    }
    state.changed.wait(lock, [&] { return state.outstanding == 0; });
    if (result == ZORVAN_SUCCESS && state.failed) {
        result = generic("the client did not take the data");
    }
    lock.unlock();
    zorvan_gridftp_server_finished_transfer(op, result);
}

void send_entry(zorvan_gridftp_server_operation_t op, const zorvan_gridftp_server_transfer_info_t* info,
                void* /*session_handle*/) {
    if (auto failure = asked_failure(info->pathname)) {
        zorvan_gridftp_server_finished_command(op, *failure, nullptr);
        return;
    }
    on_thread([op, info] { send_object(op, info->pathname); });
}

// ------------------------------------------------------------------- upload

struct upload {
    std::mutex mutex;
    std::string path;
    std::int64_t begin = 0;
    std::int64_t announced = 0;
    std::int64_t mtime = -1;
    std::map<std::int64_t, bytes> blocks;
    std::int64_t received = 0;
    int outstanding = 0;
    int concurrency = 1;
    size_t block = 1;
    bool ended = false;
    bool published = false;
    zorvan_result_t result = ZORVAN_SUCCESS;
};

void read_done(zorvan_gridftp_server_operation_t op, zorvan_result_t result, unsigned char* buffer,
               size_t nbytes, zorvan_off_t offset, int eof, void* argument);

void publish_locked(upload& state) {
    auto content = std::make_shared<bytes>();
    const std::lock_guard lock(the_store().mutex);
    const auto old = the_store().entries.find(state.path);
    if (state.begin > 0 && old != the_store().entries.end() && old->second.content) {
        *content = *old->second.content;
    }
    content->resize(static_cast<size_t>(state.begin + state.received));
    for (const auto& [offset, data] : state.blocks) {
        std::copy(data.begin(), data.end(), content->begin() + offset);
    }
    the_store().entries[state.path] = {false, std::move(content),
                                       state.mtime >= 0 ? state.mtime : std::time(nullptr)};
    state.published = true;
}

// Keep reads outstanding. The mutex is held.
void register_reads_locked(zorvan_gridftp_server_operation_t op, upload& state) {
    while (!state.ended && state.result == ZORVAN_SUCCESS && state.outstanding < state.concurrency) {
        auto buffer = std::make_unique<unsigned char[]>(state.block);
        const auto result =
            zorvan_gridftp_server_register_read(op, buffer.get(), state.block, read_done, &state);
        if (result != ZORVAN_SUCCESS) {
            state.result = result;
            return;
        }
        (void)buffer.release();
        ++state.outstanding;
    }
}

// Finish when nothing is outstanding any more. Takes the lock over; the state may be gone afterwards.
void finish_if_done(zorvan_gridftp_server_operation_t op, upload& state, std::unique_lock<std::mutex> lock) {
    if (state.outstanding > 0) {
        return;
    }
    if (state.result == ZORVAN_SUCCESS && !state.published) {
        if (state.received == state.announced) {
            publish_locked(state);
        } else {
            state.result = response(550, "SIZE_MISMATCH", "The upload does not have the announced size.");
        }
    }
    const auto result = state.result;
    lock.unlock();
    delete &state;
    zorvan_gridftp_server_finished_transfer(op, result);
}

void read_done(zorvan_gridftp_server_operation_t op, zorvan_result_t result, unsigned char* buffer,
               size_t nbytes, zorvan_off_t offset, int eof, void* argument) {
    const std::unique_ptr<unsigned char[]> owned(buffer);
    auto& state = *static_cast<upload*>(argument);
    std::unique_lock lock(state.mutex);
    --state.outstanding;
    state.ended = state.ended || eof != 0;
    if (result != ZORVAN_SUCCESS) {
        state.result = state.result == ZORVAN_SUCCESS ? result : state.result;
    } else if (nbytes > 0) {
        zorvan_gridftp_server_update_bytes_recvd(op, static_cast<zorvan_off_t>(nbytes), offset);
        state.received += static_cast<std::int64_t>(nbytes);
        if (offset - state.begin + static_cast<zorvan_off_t>(nbytes) > state.announced) {
            if (state.result == ZORVAN_SUCCESS) {
                state.result = system_error(EFBIG, "write");
            }
        } else {
            state.blocks[offset].assign(buffer, buffer + nbytes);
            if (the_store().report_ranges) {
                zorvan_gridftp_server_update_range_recvd(op, offset, static_cast<zorvan_off_t>(nbytes));
                the_store().reported_bytes += nbytes;
            }
        }
        if (state.result == ZORVAN_SUCCESS && state.received == state.announced) {
            publish_locked(state);
        }
    }
    register_reads_locked(op, state);
    finish_if_done(op, state, std::move(lock));
}

void recv_entry(zorvan_gridftp_server_operation_t op, const zorvan_gridftp_server_transfer_info_t* info,
                void* /*session_handle*/) {
    if (auto failure = asked_failure(info->pathname)) {
        zorvan_gridftp_server_finished_transfer(op, *failure);
        return;
    }
    auto* state = new upload;
    state->path = info->pathname;
    state->announced = info->alloc_size;
    zorvan_off_t length = 0;
    (void)zorvan_gridftp_server_get_write_range(op, &state->begin, &length);
    (void)zorvan_gridftp_server_get_recv_modification_time(op, &state->mtime);
    (void)zorvan_gridftp_server_get_block_size(op, &state->block);
    (void)zorvan_gridftp_server_get_optimal_concurrency(op, &state->concurrency);
    std::unique_lock lock(state->mutex);
    {
        const std::lock_guard store_lock(the_store().mutex);
        if (!is_directory_locked(parent_of(state->path)) || is_directory_locked(state->path)) {
            state->result = not_found(parent_of(state->path));
        }
    }
    constexpr std::int64_t room = 1LL << 30;
    if (state->result == ZORVAN_SUCCESS && state->begin > room) {
        state->result = system_error(EFBIG, "write");
    }
    if (state->result == ZORVAN_SUCCESS) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        register_reads_locked(op, *state);
    }
    finish_if_done(op, *state, std::move(lock));
}

// ------------------------------------------------------------------- module

zorvan_gridftp_server_dsi_t interface_table() {
    zorvan_gridftp_server_dsi_t table{};
    table.descriptor = ZORVAN_GRIDFTP_SERVER_DSI_SENDER | ZORVAN_GRIDFTP_SERVER_DSI_OWN_THREADS;
    table.session_start = session_start;
    table.session_destroy = session_destroy;
    table.send = send_entry;
    table.recv = recv_entry;
    table.command = command_entry;
    table.stat = stat_entry;
    return table;
}

zorvan_gridftp_server_dsi_t the_table = interface_table();

void clear() {
    const std::lock_guard lock(the_store().mutex);
    the_store().entries.clear();
    the_store().entries["/bucket"] = {true, nullptr, std::time(nullptr)};
}

zorvan_result_t activate();
zorvan_result_t deactivate();

}  // namespace

extern "C" {

extern ZORVAN_API const zorvan_module_descriptor_t zorvan_gridftp_server_memory_module;
const zorvan_module_descriptor_t zorvan_gridftp_server_memory_module = {
    "zorvan_gridftp_server_memory", activate, deactivate, nullptr, nullptr, nullptr};

extern ZORVAN_API const zorvan_memory_backend_s zorvan_memory_backend;
const zorvan_memory_backend_s zorvan_memory_backend = {
    clear,
    [](const char* path, const void* data, std::size_t size) {
        const auto* first = static_cast<const unsigned char*>(data);
        const std::lock_guard lock(the_store().mutex);
        the_store().entries[path] = {false, std::make_shared<bytes>(first, first + size), std::time(nullptr)};
    },
    [](const char* path, void* data, std::size_t room) -> std::int64_t {
        const std::lock_guard lock(the_store().mutex);
        const auto found = the_store().entries.find(path);
        if (found == the_store().entries.end() || !found->second.content) {
            return -1;
        }
        const auto& content = *found->second.content;
        if (room > 0) {
            std::memcpy(data, content.data(), std::min(room, content.size()));
        }
        return static_cast<std::int64_t>(content.size());
    },
    [](const char* path) {
        const std::lock_guard lock(the_store().mutex);
        the_store().entries[path] = {true, nullptr, std::time(nullptr)};
    },
    [] { return the_store().open_sessions.load(); },
    [] { return the_store().destroyed_sessions.load(); },
    [](int entries) { the_store().batch = entries; },
    [](int hold) {
        const std::lock_guard lock(the_store().mutex);
        the_store().hold_checksums = hold != 0;
        the_store().released.notify_all();
    },
    [] {
        const std::lock_guard lock(the_store().mutex);
        return the_store().held_checksums;
    },
    [](int report, int durable) {
        the_store().report_ranges = report != 0;
        constexpr std::uintptr_t flag = ZORVAN_GRIDFTP_SERVER_DSI_DURABLE_RANGES;
        the_table.descriptor = durable != 0 ? the_table.descriptor | flag : the_table.descriptor & ~flag;
    },
    [] { return the_store().reported_bytes.load(); },
};
}

namespace {

zorvan_result_t activate() {
    clear();
    return zorvan_extension_registry_add(&zorvan_i_gfs_dsi_registry, "memory",
                                         &zorvan_gridftp_server_memory_module, &the_table);
}

zorvan_result_t deactivate() {
    (void)zorvan_extension_registry_remove(&zorvan_i_gfs_dsi_registry, "memory");
    return ZORVAN_SUCCESS;
}

}  // namespace
