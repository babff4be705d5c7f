// Walks over the sorted index; see listing.h.
#include "listing.h"

namespace zorvan::devstore {
namespace {

// The first text that sorts after everything beginning with `prefix`.
std::string after_prefix(std::string prefix) {
    while (!prefix.empty()) {
        const auto last = static_cast<unsigned char>(prefix.back());
        if (last != 0xff) {
            prefix.back() = static_cast<char>(last + 1);
            return prefix;
        }
        prefix.pop_back();
    }
    return prefix;
}

// The part of a key up to and with the first delimiter after the prefix, or nothing.
std::optional<std::string> rolled_up(std::string_view key, std::string_view prefix,
                                     std::string_view delimiter) {
    if (delimiter.empty() || !key.starts_with(prefix)) return std::nullopt;
    const auto at = key.find(delimiter, prefix.size());
    if (at == std::string_view::npos) return std::nullopt;
    return std::string(key.substr(0, at + delimiter.size()));
}

}  // namespace

object_page list_page(const bucket& from, std::string_view prefix, std::string_view delimiter,
                      std::string_view after, std::size_t limit) {
    object_page out;
    if (limit == 0) return out;
    const auto& objects = from.objects();
    auto at = after < prefix ? objects.lower_bound(prefix) : objects.upper_bound(after);
    if (const auto passed = rolled_up(after, prefix, delimiter))
        at = objects.lower_bound(after_prefix(*passed));
    std::string last;
    while (at != objects.end() && at->first.starts_with(prefix)) {
        if (out.objects.size() + out.prefixes.size() == limit) {
            out.truncated = true;
            out.next = last;
            break;
        }
        if (auto group = rolled_up(at->first, prefix, delimiter)) {
            at = objects.lower_bound(after_prefix(*group));
            last = *group;
            out.prefixes.push_back(std::move(*group));
        } else {
            last = at->first;
            out.objects.emplace_back(at->first, at->second);
            ++at;
        }
    }
    return out;
}

upload_page list_upload_page(const bucket& from, const upload_query& query, bool aws) {
    upload_page out;
    const auto& uploads = from.uploads();
    auto at = uploads.begin();
    if (!query.key_marker.empty()) {
        if (!query.id_marker.empty()) {
            at = uploads.upper_bound({query.key_marker, query.id_marker});
        } else if (aws) {
            at = uploads.lower_bound({query.key_marker + '\0', std::string()});
        } else {
            at = uploads.lower_bound({query.key_marker, std::string()});
        }
    }
    for (; at != uploads.end(); ++at) {
        const auto& [key, id] = at->first;
        if (!key.starts_with(query.prefix)) continue;
        auto group = rolled_up(key, query.prefix, query.delimiter);
        if (group && !aws) continue;
        if (group && (!out.prefixes.empty() && out.prefixes.back() == *group)) continue;
        if (group && !query.key_marker.empty() && query.key_marker.starts_with(*group)) continue;
        if (out.uploads.size() + out.prefixes.size() == query.limit) {
            out.truncated = query.limit > 0;
            break;
        }
        out.next_key = group ? *group : key;
        out.next_id = group ? std::string() : id;
        if (group) {
            out.prefixes.push_back(std::move(*group));
        } else {
            out.uploads.push_back(&at->second);
        }
    }
    return out;
}

}  // namespace zorvan::devstore
