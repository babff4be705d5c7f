// The ordered list of calls behind call_trace.h; one mutex for it and its hook.
#include "call_trace.h"

#include <algorithm>
#include <mutex>
#include <utility>

#include "notices.h"

namespace module_test {
namespace {

std::mutex mutex;
std::vector<std::string> calls;
std::function<void(std::string_view)> hook;

}  // namespace

void trace_reset() {
    const std::lock_guard lock(mutex);
    calls.clear();
    hook = nullptr;
}

void at_each_call(std::function<void(std::string_view)> wanted) {
    const std::lock_guard lock(mutex);
    hook = std::move(wanted);
}

void trace_add(std::string_view call) {
    std::function<void(std::string_view)> wanted;
    {
        const std::lock_guard lock(mutex);
        calls.emplace_back(call);
        wanted = hook;
    }
    if (wanted) wanted(call);
}

std::vector<std::string> trace() {
    const std::lock_guard lock(mutex);
    return calls;
}

int trace_position(std::string_view call) {
    const std::lock_guard lock(mutex);
    const auto found = std::find(calls.begin(), calls.end(), call);
    return found == calls.end() ? -1 : static_cast<int>(found - calls.begin());
}

int trace_count(std::string_view call) {
    const std::lock_guard lock(mutex);
    return static_cast<int>(std::count(calls.begin(), calls.end(), call));
}

}  // namespace module_test
