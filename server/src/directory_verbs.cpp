/*
 * Verbs about directories: CWD, CDUP, PWD, MKD, RMD and their X-forms (RFC 775).
 */
#include <sys/stat.h>

#include "replies.h"
#include "server_log.h"
#include "session.h"
#include "text.h"
#include "verbs.h"

namespace zorvan::gridftp {

namespace {

task<void> change_directory(session& client, std::string_view typed) {
    const std::optional<resolved_path> target = co_await client.resolve(typed, 550);
    if (!target) co_return;
    operation_error error;
    const std::optional<stat_record> record = co_await client.stat_one(target->path, error);
    if (!record) {
        co_await client.send(error_reply(error, error_context::command));
    } else if (!S_ISDIR(record->mode)) {
        co_await client.answer(550, texts::not_a_directory);
    } else {
        client.parameters().directory = target->path;
        co_await client.answer(250, texts::cwd_done);
    }
}

}  // namespace

task<void> handle_cwd(session& client, std::string_view argument) {
    co_await change_directory(client, argument);
}

task<void> handle_cdup(session& client, std::string_view) {
    co_await change_directory(client, "..");
}

task<void> handle_pwd(session& client, std::string_view) {
    co_await client.answer(257, quoted_path(client.parameters().directory) + " is the current directory.");
}

task<void> handle_mkd(session& client, std::string_view argument) {
    const std::optional<resolved_path> target = co_await client.resolve(argument, 553);
    if (!target) co_return;
    const auto outcome = co_await client.simple_command(ZORVAN_GRIDFTP_SERVER_COMMAND_MKD, target->path);
    if (outcome) co_await client.answer(257, quoted_path(target->path) + " created.");
}

task<void> handle_rmd(session& client, std::string_view argument) {
    const std::optional<resolved_path> target = co_await client.resolve(argument, 550);
    if (!target) co_return;
    const auto outcome = co_await client.simple_command(ZORVAN_GRIDFTP_SERVER_COMMAND_RMD, target->path);
    if (outcome) co_await client.answer(250, texts::removed);
}

}  // namespace zorvan::gridftp
