// Questions and registrations that the scripted host refuses.
#pragma once

#include <string>

namespace module_test {

/// Let the question for configuration data fail, until host_reset().
void host_refuse_config_data();

/// Of the host's calls that may fail - registrations, the write range, the modification time, the two
/// configurations - let the nth (from 1) from now on fail, once or ever after. 0 lets none fail.
void host_refuse(long nth, bool ever_after);
/// The first call that was refused since the last host_refuse(), "" when there was none.
std::string host_refused_call();

}  // namespace module_test
