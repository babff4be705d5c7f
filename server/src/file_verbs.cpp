/*
 * Verbs about one file: transfers (RFC 959, RFC 3659), ERET and ESTO (GFD.20), times and sizes, deletion and
 * renaming. What REST, ALLO, MFMT and SCKS have set for the next transfer is taken, and so forgotten, before
 * anything can fail.
 */
#include <fmt/format.h>
#include <sys/stat.h>

#include <limits>

#include "ftp_time.h"
#include "replies.h"
#include "server_log.h"
#include "session.h"
#include "text.h"
#include "verbs.h"

namespace zorvan::gridftp {

namespace {

/** Take what was set up for one upload. `path` and `write_offset` are the caller's. */
receive_request take_upload_parameters(session& client, bool binds_size) {
    session_parameters& parameters = client.parameters();
    receive_request request;
    const std::uint64_t size = std::exchange(parameters.announced_size, 0);
    if (binds_size && size > 0 && parameters.type == representation_type::image)
        request.announced_size = size;
    request.expected_checksum_algorithm = std::exchange(parameters.checksum_algorithm, {});
    std::string value = std::exchange(parameters.checksum_value, {});
    if (!request.expected_checksum_algorithm.empty()) request.expected_checksum = std::move(value);
    return request;
}

/** Add the time that MFMT gave for this path. */
void take_time(session& client, receive_request& request) {
    session_parameters& parameters = client.parameters();
    const std::string path = std::exchange(parameters.time_path, {});
    const std::int64_t value = std::exchange(parameters.time_value, -1);
    if (path == request.path && value != -1) request.modification_time = value;
}

/** Where an upload goes on whose first part is there. Nothing when what is there is not one first part. */
std::optional<std::int64_t> restart_offset(const range_list& there) {
    if (there.empty()) return 0;
    const std::uint64_t end = there.run_end(0);
    if (end == 0 || there.size() != 1) return std::nullopt;
    return static_cast<std::int64_t>(end);
}

/** What is missing, to the end of the file. */
std::vector<byte_range> missing(const range_list& there) {
    std::vector<byte_range> ranges;
    std::uint64_t begin = 0;
    for (const auto& [first, last] : there.ranges()) {
        if (first > begin) {
            ranges.push_back({static_cast<std::int64_t>(begin), static_cast<std::int64_t>(first - begin)});
        }
        begin = last;
    }
    ranges.push_back({static_cast<std::int64_t>(begin), -1});
    return ranges;
}

/** How an upload is written. */
enum class store_kind { plain, adjusted, append };

task<void> store(session& client, std::string_view typed, std::int64_t offset, store_kind kind) {
    const bool append = kind == store_kind::append;
    receive_request request = take_upload_parameters(client, !append);
    std::optional<resolved_path> target = co_await client.resolve_file(typed, 553);
    if (!target) co_return;
    request.path = std::move(target->path);
    // A client that has named the place with REST needs no look at what is there.
    request.append = append && offset == 0;
    request.write_offset = offset;
    // An adjusted store takes the blocks' offsets from where it begins.
    if (kind == store_kind::adjusted) request.offset_shift = static_cast<std::uint64_t>(offset);
    take_time(client, request);
    co_await client.upload(std::move(request));
}

task<void> retrieve(session& client, std::string_view typed, std::vector<byte_range> ranges,
                    std::int64_t shift) {
    std::optional<resolved_path> target = co_await client.resolve_file(typed, 553);
    if (!target) co_return;
    send_request request;
    request.path = std::move(target->path);
    request.ranges = std::move(ranges);
    request.offset_shift = static_cast<std::uint64_t>(shift);
    co_await client.download(std::move(request));
}

/** Stat a path that must be a regular file; answers errors. */
task<std::optional<stat_record>> stat_typed(session& client, std::string_view typed, std::string& path) {
    std::optional<resolved_path> target = co_await client.resolve(typed, 550);
    if (!target) co_return std::nullopt;
    path = target->path;
    operation_error error;
    std::optional<stat_record> record = co_await client.stat_one(path, error);
    if (!record) co_await client.send(error_reply(error, error_context::command));
    co_return record;
}

}  // namespace

task<void> handle_retr(session& client, std::string_view argument) {
    const range_list there = std::exchange(client.parameters().restart, {});
    co_await retrieve(client, argument, missing(there), 0);
}

task<void> handle_eret(session& client, std::string_view argument) {
    client.parameters().restart = {};
    const command_line module = split_command_line(argument);
    const command_line first = split_command_line(module.argument);
    const command_line second = split_command_line(first.argument);
    if (!equals_ignoring_case(module.verb, "P")) {
        co_await client.answer(504, texts::bad_parameter);
        co_return;
    }
    const auto offset = parse_decimal(first.verb);
    const auto length = parse_decimal(second.verb);
    const bool fits = offset && length && *length <= std::numeric_limits<std::int64_t>::max() - *offset;
    if (!fits || second.argument.empty()) {
        co_await client.answer(501, texts::bad_argument);
        co_return;
    }
    std::vector<byte_range> part{byte_range{*offset, *length}};
    co_await retrieve(client, second.argument, std::move(part), *offset);
}

task<void> handle_stor(session& client, std::string_view argument) {
    const std::optional<std::int64_t> offset = restart_offset(std::exchange(client.parameters().restart, {}));
    if (!offset) {
        (void)take_upload_parameters(client, true);
        co_await client.answer(553, texts::bad_restart);
        co_return;
    }
    co_await store(client, argument, *offset, store_kind::plain);
}

task<void> handle_esto(session& client, std::string_view argument) {
    client.parameters().restart = {};
    const command_line module = split_command_line(argument);
    const command_line first = split_command_line(module.argument);
    if (!equals_ignoring_case(module.verb, "A")) {
        co_await client.answer(504, texts::bad_parameter);
        co_return;
    }
    const auto offset = parse_decimal(first.verb);
    if (!offset || first.argument.empty()) {
        co_await client.answer(501, texts::bad_argument);
        co_return;
    }
    co_await store(client, first.argument, *offset, store_kind::adjusted);
}

task<void> handle_appe(session& client, std::string_view argument) {
    const std::optional<std::int64_t> offset = restart_offset(std::exchange(client.parameters().restart, {}));
    if (client.parameters().extended_mode) {
        // The blocks' offsets would have to be those of a place that the client does not know.
        (void)take_upload_parameters(client, false);
        co_await client.answer(504, texts::append_in_stream);
        co_return;
    }
    if (!offset) {
        (void)take_upload_parameters(client, false);
        co_await client.answer(553, texts::bad_restart);
        co_return;
    }
    co_await store(client, argument, *offset, store_kind::append);
}

task<void> handle_stou(session& client, std::string_view) {
    co_await client.answer(502, texts::not_implemented);
}

task<void> handle_abor(session& client, std::string_view) {
    // The operation, if there was one, was failed when the line came in and has answered by now.
    client.parameters().connector.reset();
    co_await client.answer(226, texts::abort_done);
}

task<void> handle_size(session& client, std::string_view argument) {
    std::string path;
    const std::optional<stat_record> record = co_await stat_typed(client, argument, path);
    if (!record) co_return;
    if (S_ISDIR(record->mode)) {
        co_await client.answer(550, texts::not_a_file);
    } else {
        co_await client.answer(213, std::to_string(record->size));
    }
}

task<void> handle_mdtm(session& client, std::string_view argument) {
    std::string path;
    const std::optional<stat_record> record = co_await stat_typed(client, argument, path);
    if (!record) co_return;
    const std::optional<std::string> time = format_time_value(record->mtime);
    if (!time) {
        co_await client.answer(550, texts::time_unknown);
    } else {
        co_await client.answer(213, *time);
    }
}

task<void> handle_mfmt(session& client, std::string_view argument) {
    const command_line parts = split_command_line(argument);
    const std::optional<std::int64_t> time = parse_time_value(parts.verb);
    if (!time || parts.argument.empty()) {
        co_await client.answer(501, texts::bad_argument);
        co_return;
    }
    const std::optional<resolved_path> target = co_await client.resolve_file(parts.argument, 550);
    if (!target) co_return;
    operation_error error;
    const std::optional<stat_record> record = co_await client.stat_one(target->path, error);
    if (record) {
        co_await client.answer(504, texts::time_fixed);
        co_return;
    }
    if (error_reply_code(error, error_context::command) != 550) {
        co_await client.send(error_reply(error, error_context::command));
        co_return;
    }
    client.parameters().time_path = target->path;
    client.parameters().time_value = *time;
    co_await client.answer(
        213, fmt::format("Modify={}; {}", format_time_value(*time).value_or(""), parts.argument));
}

task<void> handle_dele(session& client, std::string_view argument) {
    const std::optional<resolved_path> target = co_await client.resolve_file(argument, 550);
    if (!target) co_return;
    const auto outcome = co_await client.simple_command(ZORVAN_GRIDFTP_SERVER_COMMAND_DELE, target->path);
    if (outcome) co_await client.answer(250, texts::deleted);
}

task<void> handle_rnfr(session& client, std::string_view argument) {
    client.parameters().rename_from.reset();
    std::optional<resolved_path> source = co_await client.resolve(argument, 550);
    if (!source) co_return;
    // Nothing is asked here: whether the source is there shows when it is copied.
    client.parameters().rename_from = std::move(source->path);
    co_await client.answer(350, texts::rename_pending);
}

task<void> handle_rnto(session& client, std::string_view argument) {
    const std::optional<std::string> from = std::exchange(client.parameters().rename_from, std::nullopt);
    if (!from) {
        co_await client.answer(503, texts::need_rnfr);
        co_return;
    }
    const std::optional<resolved_path> target = co_await client.resolve(argument, 553);
    if (!target) co_return;
    const auto outcome =
        co_await client.simple_command(ZORVAN_GRIDFTP_SERVER_COMMAND_RNTO, target->path, from);
    if (outcome) co_await client.answer(250, texts::renamed);
}

}  // namespace zorvan::gridftp
