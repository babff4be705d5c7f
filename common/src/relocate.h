/*
 * How ZORVAN_PREFIX moves an installed folder. Apart from the path evaluation because it depends on nothing
 * else.
 */
#ifndef ZORVAN_COMMON_SRC_RELOCATE_H
#define ZORVAN_COMMON_SRC_RELOCATE_H

#include <string>
#include <string_view>

namespace zorvan::common {

/**
 * Where an installed folder is when everything was moved below another prefix: its part behind the install
 * prefix, or all of it when it lies elsewhere (/etc of an installation in /usr), below the new one.
 * @param folder   absolute path at install time
 * @param from,to  the install prefix and the one that takes its place; trailing slashes do not count
 * @throws std::bad_alloc
 */
inline std::string relocate(std::string_view folder, std::string_view from, std::string_view to) {
    const auto without_slashes = [](std::string_view path) {
        while (path.ends_with('/')) {
            path.remove_suffix(1);
        }
        return path;
    };
    from = without_slashes(from);
    if (folder.starts_with(from) && (folder.size() == from.size() || folder[from.size()] == '/')) {
        folder.remove_prefix(from.size());
    }
    std::string moved(without_slashes(to));
    moved += folder;
    return moved.empty() ? "/" : moved;
}

}  // namespace zorvan::common

#endif
