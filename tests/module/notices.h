// Where the debug log stands at a certain moment: at a call of the module, or at an assertion.
#pragma once

#include <cstdio>
#include <functional>
#include <string_view>

#include "zorvan_s3.h"

namespace module_test {

/// Runs at each call that the module makes of its surroundings, in the calling thread, with the call's name
/// as in the call trace. Ends with an empty one and with trace_reset().
void at_each_call(std::function<void(std::string_view)> hook);

/// In a process that is about to die: lines of level INFO go to standard error, in order with the
/// assertion's.
inline void tell_notices_on_standard_error() {
    zorvan_i_ZORVAN_S3_debug_handle.file = stderr;
    zorvan_i_ZORVAN_S3_debug_handle.levels = ZORVAN_S3_INFO;
}

}  // namespace module_test
