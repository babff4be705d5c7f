// A loaded storage back end: shared object, activated module and interface table.
//
// Loaded once at start-up by the main thread; never unloaded from memory, because a back end may have left
// threads or thread-local destructors behind. Constant afterwards, so any thread may read it.
#pragma once

#include <zorvan_common.h>
#include <zorvan_gridftp_server.h>

#include <memory>
#include <optional>
#include <string>

namespace zorvan::gridftp {

class backend {
  public:
    backend(const backend&) = delete;
    backend& operator=(const backend&) = delete;
    /// Gives the registry entry back; does not deactivate: see deactivate().
    ~backend();

    /// Load libzorvan_gridftp_server_NAME.so from `module_dir`, activate it and look its table up.
    /// @param options  the option string that the back end may ask for (also while it is activated)
    /// @param error    on failure one line: file and reason, or the module's own friendly text
    /// @return the back end, or null
    static std::unique_ptr<backend> load(const std::string& module_dir, const std::string& name,
                                         std::optional<std::string> options, std::string& error);

    /// Run the module's deactivation. Only after host::wait_idle() said true; once.
    void deactivate() noexcept;

    const std::string& name() const noexcept { return name_; }
    const zorvan_gridftp_server_dsi_t& table() const noexcept { return *table_; }
    /// Is a bit of the descriptor slot (zorvan_gridftp_server_dsi_flag_e) set?
    bool has(zorvan_gridftp_server_dsi_flag_e flag) const noexcept;

  private:
    backend() = default;

    std::string name_;
    const zorvan_module_descriptor_t* module_ = nullptr;
    zorvan_extension_handle_t registration_ = nullptr;
    const zorvan_gridftp_server_dsi_t* table_ = nullptr;
    bool active_ = false;
};

/// The option string of the back end being loaded or loaded; none = no string.
std::optional<std::string> backend_options();

}  // namespace zorvan::gridftp
