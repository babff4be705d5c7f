// Folder walks; see tree.h.
#include "tree.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "local_file.h"
#include "restart_file.h"

namespace zorvan::copy {
namespace {

constexpr std::string_view restart_suffix = ".restart";

std::string below(const std::string& folder, const std::string& name) {
    return folder.empty() ? name : join(folder, name);
}

failure read_problem(const std::string& path, int error) {
    return {exit_status::read_failed, file_problem("cannot read", path, error)};
}

std::vector<std::string> names_in(const std::string& folder) {
    struct closer {
        void operator()(DIR* open) const noexcept { ::closedir(open); }
    };
    const std::unique_ptr<DIR, closer> open(::opendir(folder.c_str()));
    if (!open) throw read_problem(folder, errno);
    std::vector<std::string> names;
    errno = 0;
    while (const auto* entry = ::readdir(open.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    if (errno != 0) throw read_problem(folder, errno);
    std::sort(names.begin(), names.end());
    return names;
}

bool is_leftover(const std::string& path) {
    return path.ends_with(restart_suffix) && is_restart_file(path);
}

void walk(const std::string& top, const std::string& folder, std::size_t depth,
          std::vector<tree_item>& found) {
    const auto here = folder.empty() ? top : join(top, folder);
    if (depth > deepest_folder) throw read_problem(here, ELOOP);
    const auto names = names_in(here);
    if (names.empty()) found.push_back({folder, true});
    for (const auto& name : names) {
        const auto path = join(here, name);
        struct stat status{};
        if (::stat(path.c_str(), &status) != 0) throw read_problem(path, errno);
        if (S_ISDIR(status.st_mode)) {
            walk(top, below(folder, name), depth + 1, found);
        } else if (!S_ISREG(status.st_mode)) {
            throw failure(exit_status::read_failed,
                          file_problem("cannot read", path, EINVAL) + " (neither a file nor a folder)");
        } else if (!is_leftover(path)) {
            found.push_back({below(folder, name), false});
        }
    }
}

void walk(session& with, const std::string& top, const std::string& folder, std::size_t depth,
          std::vector<tree_item>& found) {
    if (depth > deepest_folder) {
        throw failure(exit_status::weird_reply, "the remote folder has too many folders in each other");
    }
    auto names = with.list(folder.empty() ? top : join(top, folder));
    std::sort(names.begin(), names.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
    if (names.empty()) found.push_back({folder, true});
    for (const auto& each : names) {
        if (each.folder) {
            walk(with, top, below(folder, each.name), depth + 1, found);
        } else {
            found.push_back({below(folder, each.name), false});
        }
    }
}

}  // namespace

std::vector<tree_item> walk_local(const std::string& folder) {
    std::vector<tree_item> found;
    walk(folder, {}, 0, found);
    return found;
}

std::vector<tree_item> walk_remote(session& with, const std::string& folder) {
    std::vector<tree_item> found;
    walk(with, folder, {}, 0, found);
    return found;
}

}  // namespace zorvan::copy
