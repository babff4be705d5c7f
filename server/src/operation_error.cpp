// Reading an error object into a value, once, so that nothing later depends on the error table.
#include "operation_error.h"

#include <cerrno>
#include <cstdlib>
#include <memory>

namespace zorvan::gridftp {
namespace {

// CR LF, LF and CR end a line; NUL cannot come in from a C string. A final line end makes no empty line.
std::vector<std::string> split_lines(std::string_view text) {
    std::vector<std::string> lines;
    std::string line;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r' || text[i] == '\n') {
            if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') {
                ++i;
            }
            lines.push_back(std::move(line));
            line.clear();
        } else if (text[i] != '\0') {
            line += text[i];
        }
    }
    if (!line.empty()) {
        lines.push_back(std::move(line));
    }
    return lines;
}

operation_error read(const zorvan_error_t* object) {
    operation_error error;
    if (object == nullptr) {
        error.plain_failure = true;
        return error;
    }
    error.type = zorvan_error_get_type(object);
    error.errno_value = zorvan_error_get_errno(object);
    error.ftp_code = zorvan_error_get_ftp_code(object);
    if (const char* word = zorvan_error_get_ftp_word(object)) {
        error.ftp_word = word;
    }
    if (const char* text = zorvan_error_get_text(object)) {
        error.text_lines = split_lines(text);
    }
    const std::unique_ptr<char, void (*)(void*)> friendly(zorvan_error_print_friendly(object), std::free);
    if (friendly) {
        error.friendly_lines = split_lines(friendly.get());
    }
    const zorvan_error_t* cause = zorvan_error_get_cause(object);
    const char* cause_text = zorvan_error_get_text(cause);
    if (cause_text != nullptr) {
        auto lines = split_lines(cause_text);
        if (!lines.empty()) {
            error.cause_first_line = std::move(lines.front());
        }
    }
    return error;
}

}  // namespace

operation_error operation_error::take(zorvan_result_t result) {
    const std::unique_ptr<zorvan_error_t, void (*)(zorvan_error_t*)> object(zorvan_error_get(result),
                                                                            zorvan_error_free);
    return read(object.get());
}

operation_error operation_error::peek(zorvan_result_t result) {
    return read(zorvan_error_peek(result));
}

operation_error operation_error::out_of_memory() noexcept {
    operation_error error;
    error.origin = error_origin::server;
    error.type = ZORVAN_ERROR_TYPE_SYSTEM;
    error.errno_value = ENOMEM;
    return error;
}

operation_error operation_error::channel(int code, std::string_view text) {
    auto error = server(code, {}, text);
    error.origin = error_origin::data_channel;
    return error;
}

operation_error operation_error::server(int code, std::string_view word, std::string_view text) {
    operation_error error;
    error.origin = error_origin::server;
    error.type = ZORVAN_ERROR_TYPE_FTP_RESPONSE;
    error.ftp_code = code;
    error.ftp_word = word;
    error.text_lines = split_lines(text);
    error.friendly_lines = error.text_lines;
    return error;
}

zorvan_result_t operation_error::to_result() const {
    if (plain_failure) {
        return ZORVAN_FAILURE;
    }
    std::string text;
    for (const auto& line : text_lines) {
        text += text.empty() ? "" : "\n";
        text += line;
    }
    const char* word = !ftp_word.empty() ? ftp_word.c_str() : "DATA_CHANNEL";
    return zorvan_error_put(zorvan_gfs_ftp_response_error_construct(
        nullptr, nullptr, ftp_code != 0 ? ftp_code : 451, word, "%s", text.c_str()));
}

void release_result(zorvan_result_t result) noexcept {
    if (result != ZORVAN_SUCCESS) {
        zorvan_error_free(zorvan_error_get(result));
    }
}

}  // namespace zorvan::gridftp
