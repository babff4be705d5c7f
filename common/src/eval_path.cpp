/*
 * Paths with ${NAME} in them: the installation's own folders, or any environment variable.
 *
 * The folders are fixed when the software is configured and move together when ZORVAN_PREFIX is set, so
 * that a build runs from any folder. A value is not expanded again. Reads the environment and otherwise keeps
 * no state: any thread may call it as long as nobody changes the environment meanwhile.
 */
#include <zorvan_common.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include "relocate.h"

namespace {

struct Folder {
    std::string_view name;
    std::string_view path;
};

constexpr std::string_view kInstallPrefix = ZORVAN_INSTALL_PREFIX;

constexpr std::array kFolders{
    Folder{.name = "prefix", .path = kInstallPrefix},
    Folder{.name = "sysconfdir", .path = ZORVAN_INSTALL_SYSCONFDIR},
    Folder{.name = "localstatedir", .path = ZORVAN_INSTALL_LOCALSTATEDIR},
    Folder{.name = "datadir", .path = ZORVAN_INSTALL_DATADIR},
    Folder{.name = "bindir", .path = ZORVAN_INSTALL_BINDIR},
    Folder{.name = "libdir", .path = ZORVAN_INSTALL_LIBDIR},
};

std::optional<std::string> value_of(const std::string& name) {
    for (const Folder& folder : kFolders) {
        if (folder.name != name) continue;
        const char* prefix = std::getenv("ZORVAN_PREFIX");
        if (prefix == nullptr || *prefix == '\0') return std::string(folder.path);
        return zorvan::common::relocate(folder.path, kInstallPrefix, prefix);
    }
    const char* value = std::getenv(name.c_str());
    if (value == nullptr) return std::nullopt;
    return value;
}

zorvan_result_t out_of_memory() {
    return zorvan_error_put(zorvan_i_gfs_error_system(nullptr, ENOMEM, "System error in malloc"));
}

zorvan_result_t failure(int line, const std::string& text) {
    return zorvan_error_put(zorvan_error_construct_error(nullptr, nullptr, ZORVAN_ERROR_TYPE_GENERIC,
                                                         "eval_path", "zorvan_eval_path", line, "%s",
                                                         text.c_str()));
}

}  // namespace

zorvan_result_t zorvan_eval_path(const char* text, char** out) {
    if (out != nullptr) *out = nullptr;
    try {
        if (out == nullptr) return failure(__LINE__, "No place for the evaluated path");
        if (text == nullptr) return failure(__LINE__, "No path to evaluate");
        constexpr std::string_view kOpen = "${";
        std::string path;
        std::string_view rest = text;
        for (size_t open = rest.find(kOpen); open != std::string_view::npos; open = rest.find(kOpen)) {
            const size_t close = rest.find('}', open);
            if (close == std::string_view::npos) {
                return failure(__LINE__, "Unclosed \"${\" in path \"" + std::string(text) + "\"");
            }
            const std::string name(rest.substr(open + kOpen.size(), close - open - kOpen.size()));
            const std::optional<std::string> value = value_of(name);
            if (!value) {
                return failure(__LINE__, "\"${" + name + "}\" is not set, in path \"" + text + "\"");
            }
            path.append(rest.substr(0, open)).append(*value);
            rest.remove_prefix(close + 1);
        }
        path.append(rest);
        *out = zorvan_libc_strdup(path.c_str());
        return *out != nullptr ? ZORVAN_SUCCESS : out_of_memory();
    } catch (const std::bad_alloc&) {
        return out_of_memory();
    }
}
