// What an error object says, copied out of the runtime so that tests can look at it after its release.
#pragma once

#include <zorvan_common.h>

#include <memory>
#include <optional>
#include <string>

namespace module_test {

/// A copy of an error object and its causes. `present` is false for 0, the plain failure and unknown handles.
struct ErrorView {
    bool present = false;
    int type = 0;
    std::string source_file;
    std::string function;
    int line = 0;
    std::optional<std::string> text;
    int errno_value = 0;
    int ftp_code = 0;
    std::string ftp_word;
    std::string module;
    std::string friendly;
    std::shared_ptr<ErrorView> cause;
};

/// Copy an object; null gives an absent view.
ErrorView view_error(const zorvan_error_t* error);
/// Copy the object behind a handle; it stays in the table.
ErrorView view_result(zorvan_result_t result);
/// Take the object behind a result out of the table and free it; harmless for results without one.
void release_result(zorvan_result_t result);

}  // namespace module_test
