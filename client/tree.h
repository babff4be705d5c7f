// What is in a folder and the folders in it, here and on the server.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "session.h"

namespace zorvan::copy {

struct tree_item {
    std::string path;     ///< relative to the folder; "" is the folder itself
    bool folder = false;  ///< one that holds nothing; the others show in their files' paths
    bool operator==(const tree_item&) const = default;
};

/// Deeper folders are taken for an error: links, and servers, can make endless ones.
constexpr std::size_t deepest_folder = 200;

/// Symbolic links are followed. Restart files of this program are left out.
/// @param unreadable  gets what cannot be read, or is neither file nor folder; the walk goes on
std::vector<tree_item> walk_local(const std::string& folder,
                                  const std::function<void(const failure&)>& unreadable);

/// @throws failure
std::vector<tree_item> walk_remote(session& with, const std::string& folder);

}  // namespace zorvan::copy
