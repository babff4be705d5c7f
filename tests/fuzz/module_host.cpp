// What the module's parsers ask of the rest of it and of the host, without either: error objects from the
// common runtime, and the path of the configuration file.
#include <zorvan_gridftp_server.h>

#include <cerrno>
#include <cstring>

#include "memory_file.h"
#include "s3_error.h"

zorvan_result_t zorvan_i_s3_system_error(int errno_value, const char* call) noexcept {
    return ZORVAN_S3_GENERIC_ERROR("fuzz", "system_error", "System error in %s: %d", call, errno_value);
}

zorvan_result_t zorvan_i_s3_malloc_error() noexcept {
    return zorvan_i_s3_system_error(ENOMEM, "malloc");
}

extern "C" zorvan_result_t zorvan_gridftp_server_get_config_string(zorvan_gridftp_server_operation_t,
                                                                   char** config) {
    *config = ::strdup(fuzz::MemoryFile::path);
    return ZORVAN_SUCCESS;
}
