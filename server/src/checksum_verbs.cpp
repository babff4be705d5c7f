/*
 * Verbs about checksums: SCKS announces one for the next upload, CKSM, HASH and XMD5 ask the back end for
 * one. MD5 is what object stores keep; the back end judges any other algorithm that CKSM names.
 */
#include <fmt/format.h>

#include "replies.h"
#include "session.h"
#include "text.h"
#include "verbs.h"

namespace zorvan::gridftp {

namespace {

/** Sends the back end's progress numbers as 113 replies. */
class progress_replies final : public progress_sink {
  public:
    explicit progress_replies(session& client) : client_(client) {}
    task<void> progress(std::string_view text) override { co_await client_.answer(113, text); }

  private:
    session& client_;
};

class no_progress final : public progress_sink {
  public:
    task<void> progress(std::string_view) override { co_return; }
};

struct checksum_question {
    std::string algorithm;
    std::string path;
    std::int64_t offset = 0;
    std::int64_t length = -1;
    bool wants_progress = false;
};

/** Ask the back end; answers errors. @return the sum */
task<std::optional<std::string>> ask_checksum(session& client, const checksum_question& question) {
    command_request request;
    request.command = ZORVAN_GRIDFTP_SERVER_COMMAND_CKSM;
    request.path = question.path;
    request.checksum_algorithm = question.algorithm;
    request.checksum_offset = question.offset;
    request.checksum_length = question.length;
    request.wants_progress = question.wants_progress;
    progress_replies replies(client);
    no_progress none;
    progress_sink& sink = question.wants_progress ? static_cast<progress_sink&>(replies) : none;
    const command_outcome outcome = co_await client.command(std::move(request), sink);
    if (outcome.error) {
        co_await client.send(error_reply(*outcome.error, error_context::command));
        co_return std::nullopt;
    }
    if (outcome.aborted && !outcome.text) {
        co_await client.answer(426, texts::transfer_aborted);
        co_return std::nullopt;
    }
    if (!outcome.text || outcome.text->empty()) {
        co_await client.answer(550, "No checksum is known.");
        co_return std::nullopt;
    }
    co_return outcome.text;
}

bool is_md5(std::string_view value) {
    return value.size() == 32 && value.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

}  // namespace

task<void> handle_scks(session& client, std::string_view argument) {
    const std::vector<std::string_view> words = split_words(argument);
    if (words.size() != 2) {
        co_await client.answer(501, texts::bad_argument);
    } else if (!equals_ignoring_case(words[0], "MD5")) {
        co_await client.answer(504, texts::bad_parameter);
    } else if (!is_md5(words[1])) {
        co_await client.answer(501, texts::bad_argument);
    } else {
        client.parameters().checksum_algorithm = words[0];
        client.parameters().checksum_value = ascii_lower(words[1]);
        co_await client.answer(200, texts::checksum_noted);
    }
}

task<void> handle_cksm(session& client, std::string_view argument) {
    const command_line algorithm = split_command_line(argument);
    const command_line offset = split_command_line(algorithm.argument);
    const command_line length = split_command_line(offset.argument);
    const auto first = parse_decimal(offset.verb);
    const auto count = length.verb == "-1" ? std::optional<std::int64_t>(-1) : parse_decimal(length.verb);
    if (!first || !count || length.argument.empty()) {
        co_await client.answer(501, texts::bad_argument);
        co_return;
    }
    const std::optional<resolved_path> target = co_await client.resolve_file(length.argument, 550);
    if (!target) co_return;
    checksum_question question;
    question.algorithm = algorithm.verb;
    question.path = target->path;
    question.offset = *first;
    question.length = *count;
    question.wants_progress = true;
    const std::optional<std::string> sum = co_await ask_checksum(client, question);
    if (sum) co_await client.answer(213, *sum);
}

task<void> handle_hash(session& client, std::string_view argument) {
    const std::optional<resolved_path> target = co_await client.resolve_file(argument, 550);
    if (!target) co_return;
    operation_error error;
    const std::optional<stat_record> record = co_await client.stat_one(target->path, error);
    if (!record) {
        co_await client.send(error_reply(error, error_context::command));
        co_return;
    }
    checksum_question question;
    question.algorithm = "MD5";
    question.path = target->path;
    const std::optional<std::string> sum = co_await ask_checksum(client, question);
    if (sum) co_await client.answer(213, fmt::format("MD5 0-{} {} {}", record->size, *sum, argument));
}

task<void> handle_xmd5(session& client, std::string_view argument) {
    // Names may come in double quotes, with the first byte and the one behind the last after them.
    std::string_view name = argument;
    checksum_question question;
    question.algorithm = "MD5";
    if (!argument.empty() && argument.front() == '"') {
        const std::size_t quote = argument.find('"', 1);
        if (quote == std::string_view::npos) {
            co_await client.answer(501, texts::bad_argument);
            co_return;
        }
        name = argument.substr(1, quote - 1);
        const std::vector<std::string_view> numbers = split_words(argument.substr(quote + 1));
        const auto begin = numbers.empty() ? std::optional<std::int64_t>(0) : parse_decimal(numbers[0]);
        const auto end = numbers.size() < 2 ? std::optional<std::int64_t>(-1) : parse_decimal(numbers[1]);
        if (numbers.size() > 2 || !begin || !end || (*end >= 0 && *end < *begin)) {
            co_await client.answer(501, texts::bad_argument);
            co_return;
        }
        question.offset = *begin;
        question.length = *end < 0 ? -1 : *end - *begin;
    }
    const std::optional<resolved_path> target = co_await client.resolve_file(name, 550);
    if (!target) co_return;
    question.path = target->path;
    const std::optional<std::string> sum = co_await ask_checksum(client, question);
    if (sum) co_await client.answer(250, *sum);
}

}  // namespace zorvan::gridftp
