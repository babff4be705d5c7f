// A back end whose activation fails with a text of its own, after it has asked for its option string.
#include <zorvan_gridftp_server.h>

#include <cstdlib>

namespace {

zorvan_result_t activate() {
    char* options = nullptr;
    (void)zorvan_gridftp_server_get_config_string(nullptr, &options);
    const auto result = zorvan_error_put(zorvan_error_construct_error(
        nullptr, nullptr, ZORVAN_ERROR_TYPE_GENERIC, "refusing", "activate", __LINE__,
        "cannot use the options \"%s\"", options != nullptr ? options : "(none)"));
    std::free(options);
    return result;
}

}  // namespace

extern "C" {
extern ZORVAN_API const zorvan_module_descriptor_t zorvan_gridftp_server_refusing_module;
const zorvan_module_descriptor_t zorvan_gridftp_server_refusing_module = {
    "zorvan_gridftp_server_refusing", activate, nullptr, nullptr, nullptr, nullptr};
}
