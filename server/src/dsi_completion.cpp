// The calls with which a back end ends an operation or reports its progress. Any thread. Everything handed
// over is copied here; no exception leaves: out of memory ends the process with a message.
#include <zorvan_gridftp_server.h>

#include "operation.h"

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

// An operation that has ended needs nothing but its error object released.
void finish(zorvan_gridftp_server_operation_t handle, zorvan_result_t result,
            operation::finish_values values) {
    if (auto op = operation::find(handle)) {
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
    operation::finish_values values;
    values.session_handle = session_handle;
    values.user_name = optional_text(user_name);
    values.home_directory = optional_text(home_directory);
    finish(op, result, std::move(values));
}

void zorvan_gridftp_server_finished_command(zorvan_gridftp_server_operation_t op, zorvan_result_t result,
                                            const char* text) {
    operation::finish_values values;
    values.text = optional_text(text);
    finish(op, result, std::move(values));
}

void zorvan_gridftp_server_intermediate_command(zorvan_gridftp_server_operation_t op, zorvan_result_t result,
                                                const char* text) {
    if (auto found = operation::find(op)) {
        found->add_progress(result, text != nullptr ? text : "");
    } else {
        release_result(result);
    }
}

void zorvan_gridftp_server_finished_stat(zorvan_gridftp_server_operation_t op, zorvan_result_t result,
                                         const zorvan_gridftp_server_stat_t* stats, int count) {
    operation::finish_values values;
    values.entries = copy_records(stats, count);
    finish(op, result, std::move(values));
}

void zorvan_gridftp_server_finished_stat_partial(zorvan_gridftp_server_operation_t op, zorvan_result_t result,
                                                 const zorvan_gridftp_server_stat_t* stats, int count) {
    if (auto found = operation::find(op)) {
        found->add_entries(result, copy_records(stats, count));
    } else {
        release_result(result);
    }
}

void zorvan_gridftp_server_finished_transfer(zorvan_gridftp_server_operation_t op, zorvan_result_t result) {
    finish(op, result, {});
}

}  // extern "C"
