/*
 * Verbs about checksums: SCKS announces one for the next upload, CKSM, HASH and XMD5 ask the back end for
 * one. MD5 is what object stores keep; the back end judges any other algorithm that CKSM names.
 */
#include <fmt/format.h>
#include <sys/stat.h>

#include "digest.h"
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

/** The sum of no bytes at all, of a file that has to be there; answers errors. */
task<std::optional<std::string>> sum_of_nothing(session& client, const checksum_question& question) {
    operation_error error;
    const std::optional<stat_record> record = co_await client.stat_one(question.path, error);
    if (!record) {
        co_await client.send(error_reply(error, error_context::command));
        co_return std::nullopt;
    }
    if (S_ISDIR(record->mode) || question.offset > record->size) {
        co_await client.answer(550, S_ISDIR(record->mode) ? texts::not_a_file : texts::behind_the_end);
        co_return std::nullopt;
    }
    co_return md5_digest().finish();
}

/** Ask the back end; answers errors. @return the sum */
task<std::optional<std::string>> ask_checksum(session& client, const checksum_question& question) {
    // A range of no bytes cannot be asked for in HTTP, and stores' clients take the length 0 for "to the
    // end".
    if (question.length == 0 && is_md5(question.algorithm)) {
        co_return co_await sum_of_nothing(client, question);
    }
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

bool is_md5_sum(std::string_view value) {
    return value.size() == 32 && value.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

/** A name as it stood in double quotes. Some clients double the quotes in it (RFC 959 does for 257), others
 * do not: when every one has its neighbour, they were doubled. */
std::string unquoted(std::string_view name) {
    std::string text;
    for (std::size_t at = 0; at < name.size(); ++at) {
        text += name[at];
        if (name[at] != '"') continue;
        if (at + 1 == name.size() || name[at + 1] != '"') return std::string(name);
        ++at;
    }
    return text;
}

/**
 * The argument of XMD5, a command without a standard: a name as it is, or one in double quotes with, if
 * wanted, the first byte and the one behind the last after them.
 * @return nothing for anything else; the path is as typed
 */
std::optional<checksum_question> parse_xmd5(std::string_view argument) {
    checksum_question question;
    question.algorithm = "MD5";
    if (!argument.starts_with('"')) {
        question.path = argument;
        return question;
    }
    // Numbers hold no quotes, names may: the last one ends the name.
    const std::size_t quote = argument.rfind('"');
    const std::string_view rest = argument.substr(quote + 1);
    if (quote == 0 || (!rest.empty() && rest.front() != ' ')) return std::nullopt;
    question.path = unquoted(argument.substr(1, quote - 1));
    const std::vector<std::string_view> numbers = split_words(rest);
    if (numbers.size() > 2) return std::nullopt;
    if (!numbers.empty()) {
        const auto begin = parse_decimal(numbers[0]);
        if (!begin) return std::nullopt;
        question.offset = *begin;
    }
    if (numbers.size() == 2) {
        const auto end = parse_decimal(numbers[1]);
        if (!end || *end < question.offset) return std::nullopt;
        question.length = *end - question.offset;
    }
    return question;
}

}  // namespace

task<void> handle_scks(session& client, std::string_view argument) {
    const std::vector<std::string_view> words = split_words(argument);
    if (words.size() != 2) {
        co_await client.answer(501, texts::bad_argument);
    } else if (!equals_ignoring_case(words[0], "MD5")) {
        co_await client.answer(504, texts::bad_parameter);
    } else if (!is_md5_sum(words[1])) {
        co_await client.answer(501, texts::bad_argument);
    } else {
        client.parameters().checksum_algorithm = words[0];
        client.parameters().checksum_value = ascii_lower(words[1]);
        co_await client.answer(
            200, client.parameters().extended_mode ? texts::checksum_recorded : texts::checksum_noted);
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
    std::optional<checksum_question> question = parse_xmd5(argument);
    if (!question) {
        co_await client.answer(501, texts::bad_argument);
        co_return;
    }
    std::optional<resolved_path> target = co_await client.resolve_file(question->path, 550);
    if (!target) co_return;
    question->path = std::move(target->path);
    const std::optional<std::string> sum = co_await ask_checksum(client, *question);
    if (sum) co_await client.answer(250, *sum);
}

}  // namespace zorvan::gridftp
