// The registry of users and the reader of the users file; see users.h.
#include "users.h"

#include <jansson.h>

#include <algorithm>
#include <mutex>
#include <stdexcept>

#include "json.h"

namespace zorvan::devstore {

void user_registry::put(user entry) {
    if (entry.uid.empty()) throw std::invalid_argument("a user needs a uid");
    // Listings of keys are sorted by the key's id.
    std::sort(entry.keys.begin(), entry.keys.end(),
              [](const access_key& a, const access_key& b) { return a.id < b.id; });
    const std::unique_lock lock(mutex_);
    for (const auto& key : entry.keys) {
        if (key.id.empty()) throw std::invalid_argument("empty access key of user " + entry.uid);
        const auto at = by_key_.find(key.id);
        if (at != by_key_.end() && at->second->uid != entry.uid)
            throw std::invalid_argument("access key " + key.id + " belongs to user " + at->second->uid);
    }
    std::erase_if(by_key_, [&](const auto& item) { return item.second->uid == entry.uid; });
    const auto shared = std::make_shared<const user>(std::move(entry));
    for (const auto& key : shared->keys)
        by_key_[key.id] = shared;
    users_[shared->uid] = shared;
}

void user_registry::load_json(std::string_view text) {
    const auto root = parse_json(text);
    json_t* const list = json_object_get(root.get(), "users");
    if (!json_is_array(list)) throw std::invalid_argument("no list \"users\"");
    std::size_t index = 0;
    json_t* item = nullptr;
    json_array_foreach(list, index, item) {
        user entry;
        entry.uid = json_text(item, "uid");
        entry.display_name = json_text(item, "display_name");
        if (entry.display_name.empty()) entry.display_name = entry.uid;
        entry.email = json_text(item, "email");
        entry.admin = json_is_true(json_object_get(item, "admin"));
        entry.suspended = json_is_true(json_object_get(item, "suspended"));
        std::size_t number = 0;
        json_t* key = nullptr;
        json_array_foreach(json_object_get(item, "keys"), number, key) {
            const char* id = json_string_value(json_array_get(key, 0));
            const char* secret = json_string_value(json_array_get(key, 1));
            if (!id || !secret)
                throw std::invalid_argument("a key of user " + entry.uid + " is no pair of strings");
            entry.keys.push_back({id, secret});
        }
        put(std::move(entry));
    }
}

user_ptr user_registry::find(std::string_view uid) const {
    const std::shared_lock lock(mutex_);
    const auto at = users_.find(uid);
    return at == users_.end() ? nullptr : at->second;
}

user_ptr user_registry::find_by_key(std::string_view key_id, std::string& secret) const {
    const std::shared_lock lock(mutex_);
    const auto at = by_key_.find(key_id);
    if (at == by_key_.end()) return nullptr;
    for (const auto& key : at->second->keys)
        if (key.id == key_id) secret = key.secret;
    return at->second;
}

std::vector<std::string> user_registry::uids() const {
    const std::shared_lock lock(mutex_);
    std::vector<std::string> out;
    out.reserve(users_.size());
    for (const auto& [uid, entry] : users_)
        out.push_back(uid);
    return out;
}

}  // namespace zorvan::devstore
