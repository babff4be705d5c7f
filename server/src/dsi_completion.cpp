// The calls with which a back end ends an operation or reports its progress. Any thread. Everything handed
// over is copied here. No exception leaves: what could not be copied makes a failure of the operation, which
// ends all the same; of a progress report it is dropped.
#include <zorvan_gridftp_server.h>

#include "operation.h"
#include "out_of_memory.h"

using namespace zorvan::gridftp;

namespace {

std::optional<std::string> optional_text(const char* text) {
    return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

std::vector<stat_record> copy_records(const zorvan_gridftp_server_stat_t* stats, int count) {
    std::vector<stat_record> records;
    if (stats == nullptr || count <= 0) {
        return records;
    }
    records.reserve(static_cast<std::size_t>(count));
    for (const auto& stat : std::span(stats, static_cast<std::size_t>(count))) {
        stat_record record;
        record.mode = stat.mode;
        record.nlink = stat.nlink;
        record.name = stat.name != nullptr ? stat.name : "";
        record.symlink_target = optional_text(stat.symlink_target);
        record.uid = stat.uid;
        record.gid = stat.gid;
        record.size = stat.size;
        record.atime = stat.atime;
        record.ctime = stat.ctime;
        record.mtime = stat.mtime;
        record.dev = stat.dev;
        record.ino = stat.ino;
        records.push_back(std::move(record));
    }
    return records;
}

// An operation that has ended needs nothing but its error object released. `fill` copies what was handed
// over.
template <class Fill>
void finish(zorvan_gridftp_server_operation_t handle, zorvan_result_t result, Fill fill) noexcept {
    if (auto op = operation::find(handle)) {
        operation::finish_values values;
        values.incomplete = !run_without_throwing([&] { fill(values); });
        op->finish(result, std::move(values));
    } else {
        release_result(result);
    }
}

}  // namespace

extern "C" {

void zorvan_gridftp_server_finished_session_start(zorvan_gridftp_server_operation_t op,
                                                  zorvan_result_t result, void* session_handle,
                                                  const char* user_name, const char* home_directory) {
    finish(op, result, [&](operation::finish_values& values) {
        values.session_handle = session_handle;
        values.user_name = optional_text(user_name);
        values.home_directory = optional_text(home_directory);
    });
}

void zorvan_gridftp_server_finished_command(zorvan_gridftp_server_operation_t op, zorvan_result_t result,
                                            const char* text) {
    finish(op, result, [&](operation::finish_values& values) { values.text = optional_text(text); });
}

void zorvan_gridftp_server_intermediate_command(zorvan_gridftp_server_operation_t op, zorvan_result_t result,
                                                const char* text) {
    release_result(result);
    if (auto found = operation::find(op)) {
        // A report more or less: there is no harm in losing one.
        (void)run_without_throwing([&] { found->add_progress(text != nullptr ? text : ""); });
    }
}

void zorvan_gridftp_server_finished_stat(zorvan_gridftp_server_operation_t op, zorvan_result_t result,
                                         const zorvan_gridftp_server_stat_t* stats, int count) {
    finish(op, result,
           [&](operation::finish_values& values) { values.entries = copy_records(stats, count); });
}

void zorvan_gridftp_server_finished_stat_partial(zorvan_gridftp_server_operation_t op, zorvan_result_t result,
                                                 const zorvan_gridftp_server_stat_t* stats, int count) {
    if (auto found = operation::find(op)) {
        std::vector<stat_record> entries;
        const bool copied = run_without_throwing([&] { entries = copy_records(stats, count); });
        found->add_entries(result, std::move(entries), !copied);
    } else {
        release_result(result);
    }
}

void zorvan_gridftp_server_finished_transfer(zorvan_gridftp_server_operation_t op, zorvan_result_t result) {
    finish(op, result, [](operation::finish_values&) {});
}

}  // extern "C"
