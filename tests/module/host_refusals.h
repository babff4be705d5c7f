// Questions that the scripted host refuses to answer.
#pragma once

namespace module_test {

/// Let the question for configuration data fail, until host_reset().
void host_refuse_config_data();

}  // namespace module_test
