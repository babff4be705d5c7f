/*
 * Module activation, counted per descriptor.
 *
 * One recursive mutex is held while an entry runs: whoever activates a module that another thread is just
 * activating waits for the outcome, and an entry may activate the modules that it builds on. One mutex for
 * all modules, because with one each, two modules that activate each other from two threads would wait for
 * ever.
 */
#include <zorvan_common.h>

#include <cerrno>
#include <mutex>
#include <new>
#include <unordered_map>

#include "never_destroyed.h"

namespace {

struct Modules {
    std::recursive_mutex mutex;
    /** The active modules; nodes stay where they are while entries add others. */
    std::unordered_map<const zorvan_module_descriptor_t*, size_t> counts;
};

Modules& modules() {
    static zorvan::common::NeverDestroyed<Modules> instance;
    return instance.value;
}

}  // namespace

zorvan_result_t zorvan_module_activate(const zorvan_module_descriptor_t* descriptor) {
    if (descriptor == nullptr) return ZORVAN_FAILURE;
    try {
        Modules& active = modules();
        const std::lock_guard lock(active.mutex);
        // Counted before the entry runs, so that an entry that comes round to its own module finds it active.
        if (active.counts[descriptor]++ > 0) return ZORVAN_SUCCESS;
        const zorvan_result_t result =
            descriptor->activate != nullptr ? descriptor->activate() : ZORVAN_SUCCESS;
        if (result != ZORVAN_SUCCESS) active.counts.erase(descriptor);
        return result;
    } catch (const std::bad_alloc&) {
        return zorvan_error_put(zorvan_i_gfs_error_system(nullptr, ENOMEM, "System error in malloc"));
    }
}

zorvan_result_t zorvan_module_deactivate(const zorvan_module_descriptor_t* descriptor) {
    Modules& active = modules();
    const std::lock_guard lock(active.mutex);
    const auto found = active.counts.find(descriptor);
    if (found == active.counts.end()) return ZORVAN_FAILURE;
    if (--found->second > 0) return ZORVAN_SUCCESS;
    active.counts.erase(found);
    return descriptor->deactivate != nullptr ? descriptor->deactivate() : ZORVAN_SUCCESS;
}
