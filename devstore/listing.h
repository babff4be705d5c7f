// Paging through the keys of a bucket and through its uploads: pure functions
// on the index, called under its lock. Order is by byte value of the key.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "bucket_index.h"

namespace zorvan::devstore {

/// One page of objects.
struct object_page {
    std::vector<std::pair<std::string, object_ptr>> objects;
    std::vector<std::string> prefixes;
    bool truncated = false;
    std::string next;  ///< the last key or prefix of the page, when truncated
};

/// Keys after `after` that start with `prefix`, at most `limit` keys and rolled-up prefixes together. A
/// marker inside a rolled-up prefix skips all of that prefix.
object_page list_page(const bucket& from, std::string_view prefix, std::string_view delimiter,
                      std::string_view after, std::size_t limit);

/// One page of uploads; the pointers are valid under the lock only.
struct upload_page {
    std::vector<const upload_record*> uploads;
    std::vector<std::string> prefixes;
    bool truncated = false;
    std::string next_key;
    std::string next_id;
};

/// What a listing of uploads asks for.
struct upload_query {
    std::string prefix;
    std::string delimiter;
    std::string key_marker;
    std::string id_marker;
    std::size_t limit = 1000;
};

/// Uploads sorted by key, then id. As the RADOS Gateway has it, deeper uploads are dropped when a delimiter
/// is given and a key marker alone includes the marker's own uploads; with `aws` they are rolled up and left
/// out.
upload_page list_upload_page(const bucket& from, const upload_query& query, bool aws);

}  // namespace zorvan::devstore
