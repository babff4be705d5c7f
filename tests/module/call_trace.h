// One list of everything the module asked of its surroundings, in order.
//
// The scripted host and the scripted S3 layer add a line per call; tests read the list to assert orders that
// cross the two ("the client library is initialised before the thread is made"). Any thread may add.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace module_test {

/// Forget everything.
void trace_reset();
/// Append one call's name.
void trace_add(std::string_view call);
/// The calls so far.
std::vector<std::string> trace();
/// Position of the first call of that name, -1 when there was none.
int trace_position(std::string_view call);
/// How many calls of that name there were.
int trace_count(std::string_view call);

}  // namespace module_test
