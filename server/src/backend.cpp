// Finding, loading and activating a back end. Runs on the main thread before any session; the objects opened
// here are never closed.
#include "backend.h"

#include <dlfcn.h>

#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "operation_error.h"

namespace zorvan::gridftp {
namespace {

std::mutex options_mutex;
std::optional<std::string> current_options;

void set_options(std::optional<std::string> options) {
    const std::lock_guard lock(options_mutex);
    current_options = std::move(options);
}

std::string friendly_text(zorvan_result_t result) {
    const auto failure = operation_error::take(result);
    std::string text;
    for (const auto& line : failure.friendly_lines) {
        text += text.empty() ? "" : ": ";
        text += line;
    }
    return text.empty() ? "failed without a reason" : text;
}

// dlerror() begins most of its texts with the file's name; the caller has said it already.
std::string loader_text(const std::string& file) {
    const char* text = ::dlerror();
    std::string reason = text != nullptr ? text : "unknown loader error";
    if (reason.rfind(file + ": ", 0) == 0) {
        reason.erase(0, file.size() + 2);
    }
    return reason;
}

bool valid_name(const std::string& name) {
    if (name.empty()) {
        return false;
    }
    for (const char c : name) {
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_')) {
            return false;
        }
    }
    return true;
}

}  // namespace

std::optional<std::string> backend_options() {
    const std::lock_guard lock(options_mutex);
    return current_options;
}

std::unique_ptr<backend> backend::load(const std::string& module_dir, const std::string& name,
                                       std::optional<std::string> options, std::string& error) {
    if (!valid_name(name)) {
        error = "back end \"" + name + "\": a name has letters, digits and underscores only";
        return nullptr;
    }
    const std::string file = module_dir + "/libzorvan_gridftp_server_" + name + ".so";
    std::error_code missing;
    if (!std::filesystem::exists(file, missing)) {
        error = file + ": no such file";
        return nullptr;
    }
    // All symbols now, so that an incomplete back end fails here and not in the middle of a transfer.
    void* object = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (object == nullptr) {
        error = file + ": " + loader_text(file);
        return nullptr;
    }
    const std::string symbol = "zorvan_gridftp_server_" + name + "_module";
    const auto* module = static_cast<const zorvan_module_descriptor_t*>(::dlsym(object, symbol.c_str()));
    if (module == nullptr) {
        error = file + ": it has no symbol " + symbol;
        return nullptr;
    }

    set_options(std::move(options));
    const zorvan_result_t result = zorvan_module_activate(module);
    if (result != ZORVAN_SUCCESS) {
        error = file + ": " + friendly_text(result);
        return nullptr;
    }
    std::unique_ptr<backend> loaded(new backend);
    loaded->name_ = name;
    loaded->module_ = module;
    loaded->active_ = true;
    loaded->table_ = static_cast<const zorvan_gridftp_server_dsi_t*>(
        zorvan_extension_registry_lookup(&loaded->registration_, &zorvan_i_gfs_dsi_registry, name.c_str()));
    if (loaded->table_ == nullptr) {
        loaded->deactivate();
        error = file + ": its activation added no interface table named \"" + name + "\"";
        return nullptr;
    }
    return loaded;
}

backend::~backend() {
    zorvan_extension_release(registration_);
}

void backend::deactivate() noexcept {
    if (!active_) {
        return;
    }
    active_ = false;
    zorvan_extension_release(registration_);
    registration_ = nullptr;
    release_result(zorvan_module_deactivate(module_));
}

bool backend::has(zorvan_gridftp_server_dsi_flag_e flag) const noexcept {
    return (table_->descriptor & static_cast<std::uintptr_t>(flag)) != 0;
}

}  // namespace zorvan::gridftp
