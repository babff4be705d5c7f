/*
 * The registry of storage back ends: name to interface table.
 *
 * A back end adds itself when it is activated and is looked up by name. An entry is counted: the registry
 * holds one use of it while it is listed, and each look-up another; whoever gives back the last use frees the
 * entry. One mutex per registry guards its list and the counts. A handful of entries, so a list will do.
 */
#include <zorvan_common.h>

#include <cerrno>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>

struct zorvan_extension_handle_s {
    zorvan_extension_registry_t* registry;
    std::string name;
    void* data;
    size_t uses;
    zorvan_extension_handle_s* next;
};

/** Constant-initialised and without a destructor: usable before and after all other static objects. */
struct zorvan_extension_registry_s {
    std::mutex mutex;
    zorvan_extension_handle_s* entries = nullptr;

    /** The place where the entry of that name hangs, or the end of the list. The mutex is held. */
    zorvan_extension_handle_s** find_locked(std::string_view name) {
        zorvan_extension_handle_s** place = &entries;
        while (*place != nullptr && (*place)->name != name) {
            place = &(*place)->next;
        }
        return place;
    }
};

constinit zorvan_extension_registry_t zorvan_i_gfs_dsi_registry;

namespace {

using Entry = std::unique_ptr<zorvan_extension_handle_s>;

/** Gives one use back. @return the entry when that was the last one, to be freed once the mutex is open */
Entry drop_use_locked(zorvan_extension_handle_s* entry) {
    return Entry(--entry->uses == 0 ? entry : nullptr);
}

}  // namespace

zorvan_result_t zorvan_extension_registry_add(zorvan_extension_registry_t* registry, const char* name,
                                              const zorvan_module_descriptor_t* descriptor, void* data) {
    if (registry == nullptr || name == nullptr || descriptor == nullptr || data == nullptr) {
        return zorvan_error_put(zorvan_error_construct_error(
            descriptor, nullptr, ZORVAN_ERROR_TYPE_GENERIC, "registry", __func__, __LINE__,
            "An extension needs a registry, a name, a descriptor and data"));
    }
    try {
        Entry entry(new zorvan_extension_handle_s{registry, name, data, 1, nullptr});
        {
            const std::lock_guard lock(registry->mutex);
            zorvan_extension_handle_s** place = registry->find_locked(name);
            if (*place == nullptr) {
                *place = entry.release();
                return ZORVAN_SUCCESS;
            }
        }
        return zorvan_error_put(
            zorvan_error_construct_error(descriptor, nullptr, ZORVAN_ERROR_TYPE_GENERIC, "registry", __func__,
                                         __LINE__, "An extension named \"%s\" is registered already", name));
    } catch (const std::bad_alloc&) {
        return zorvan_error_put(zorvan_i_gfs_error_system(nullptr, ENOMEM, "System error in malloc"));
    }
}

void* zorvan_extension_registry_remove(zorvan_extension_registry_t* registry, const char* name) {
    if (registry == nullptr || name == nullptr) return nullptr;
    Entry last;
    const std::lock_guard lock(registry->mutex);
    zorvan_extension_handle_s** place = registry->find_locked(name);
    zorvan_extension_handle_s* entry = *place;
    if (entry == nullptr) return nullptr;
    *place = entry->next;
    void* data = entry->data;
    last = drop_use_locked(entry);
    return data;
}

void* zorvan_extension_registry_lookup(zorvan_extension_handle_t* handle,
                                       zorvan_extension_registry_t* registry, const char* name) {
    if (handle == nullptr) return nullptr;
    *handle = nullptr;
    if (registry == nullptr || name == nullptr) return nullptr;
    const std::lock_guard lock(registry->mutex);
    zorvan_extension_handle_s* entry = *registry->find_locked(name);
    if (entry == nullptr) return nullptr;
    ++entry->uses;
    *handle = entry;
    return entry->data;
}

void zorvan_extension_release(zorvan_extension_handle_t handle) {
    if (handle == nullptr) return;
    Entry last;
    const std::lock_guard lock(handle->registry->mutex);
    last = drop_use_locked(handle);
}
