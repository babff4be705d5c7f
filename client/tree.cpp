// Folder walks; see tree.h.
#include "tree.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "local_file.h"
#include "restart_file.h"
#include "text.h"

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

class local_walk {
  public:
    local_walk(const std::string& top, const std::function<void(const failure&)>& unreadable)
        : top_(top), unreadable_(unreadable) {
        struct stat status{};
        if (::stat(top.c_str(), &status) == 0) around_.emplace_back(status.st_dev, status.st_ino);
    }

    void folder(const std::string& folder, std::size_t depth) {
        const auto here = folder.empty() ? top_ : join(top_, folder);
        std::vector<std::string> names;
        try {
            if (depth > deepest_folder) throw read_problem(here, ELOOP);
            names = names_in(here);
        } catch (const failure& error) {
            unreadable_(error);
            return;
        }
        if (names.empty()) found.push_back({folder, true});
        for (const auto& name : names) {
            try {
                entry(join(here, name), below(folder, name), depth);
            } catch (const failure& error) {
                unreadable_(error);
            }
        }
    }

    std::vector<tree_item> found;

  private:
    void entry(const std::string& path, const std::string& relative, std::size_t depth) {
        struct stat status{};
        if (::stat(path.c_str(), &status) != 0) throw read_problem(path, errno);
        if (S_ISDIR(status.st_mode)) {
            const std::pair identity(status.st_dev, status.st_ino);
            if (std::find(around_.begin(), around_.end(), identity) != around_.end()) {
                throw failure(exit_status::read_failed,
                              gridftp::printable(path) + " leads back to a folder that it is in");
            }
            around_.push_back(identity);
            folder(relative, depth + 1);
            around_.pop_back();
        } else if (!S_ISREG(status.st_mode)) {
            throw failure(exit_status::read_failed,
                          gridftp::printable(path) + " is neither a file nor a folder");
        } else if (!is_leftover(path)) {
            found.push_back({relative, false});
        }
    }

    const std::string& top_;
    const std::function<void(const failure&)>& unreadable_;
    std::vector<std::pair<dev_t, ino_t>> around_;  // the folders that the walk is in
};

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

std::vector<tree_item> walk_local(const std::string& folder,
                                  const std::function<void(const failure&)>& unreadable) {
    local_walk walking(folder, unreadable);
    walking.folder({}, 0);
    return std::move(walking.found);
}

std::vector<tree_item> walk_remote(session& with, const std::string& folder) {
    std::vector<tree_item> found;
    walk(with, folder, {}, 0, found);
    return found;
}

}  // namespace zorvan::copy
