// Copies of error objects, see error_view.h.
#include "error_view.h"

#include <cstdlib>

namespace module_test {
namespace {

std::string text_of(const char* text) {
    return text == nullptr ? std::string() : std::string(text);
}

}  // namespace

ErrorView view_error(const zorvan_error_t* error) {
    ErrorView view;
    if (error == nullptr) return view;
    view.present = true;
    view.type = zorvan_error_get_type(error);
    view.source_file = text_of(zorvan_error_get_source_file(error));
    view.function = text_of(zorvan_error_get_function(error));
    view.line = zorvan_error_get_line(error);
    if (const char* text = zorvan_error_get_text(error); text != nullptr) view.text = text;
    view.errno_value = zorvan_error_get_errno(error);
    view.ftp_code = zorvan_error_get_ftp_code(error);
    view.ftp_word = text_of(zorvan_error_get_ftp_word(error));
    if (const auto* module = zorvan_error_get_module(error); module != nullptr)
        view.module = text_of(module->name);
    char* friendly = zorvan_error_print_friendly(error);
    view.friendly = text_of(friendly);
    std::free(friendly);
    if (const auto* cause = zorvan_error_get_cause(error); cause != nullptr)
        view.cause = std::make_shared<ErrorView>(view_error(cause));
    return view;
}

ErrorView view_result(zorvan_result_t result) {
    return view_error(zorvan_error_peek(result));
}

void release_result(zorvan_result_t result) {
    zorvan_error_free(zorvan_error_get(result));
}

}  // namespace module_test
