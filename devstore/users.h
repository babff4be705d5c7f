// The store's users and their access keys. Filled at start and through the
// control port; looked up by every request. Thread-safe: users are immutable
// records handed out by shared ownership.
#pragma once

#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

namespace zorvan::devstore {

/// A key pair of a user.
struct access_key {
    std::string id;
    std::string secret;
};

/// One user. `uid` may be "tenant$name".
struct user {
    std::string uid;
    std::string display_name;
    std::string email;
    bool admin = false;  ///< has the capabilities of a user administrator
    bool suspended = false;
    std::vector<access_key> keys;
};

using user_ptr = std::shared_ptr<const user>;

/// All users.
class user_registry {
  public:
    /// Adds a user or replaces the one of the same uid with all its keys. Throws std::invalid_argument for an
    /// empty uid, an empty key id or a key id that belongs to another user.
    void put(user entry);
    /// Reads {"users":[{"uid":..,"display_name":..,"email":..,"keys":[["ID","SECRET"],..],"admin":false,
    /// "suspended":false}]}. Throws std::invalid_argument naming what is wrong.
    void load_json(std::string_view text);
    /// Null when there is none.
    [[nodiscard]] user_ptr find(std::string_view uid) const;
    /// The owner of an access key, null when there is none; `secret` gets the key's secret.
    user_ptr find_by_key(std::string_view key_id, std::string& secret) const;
    /// All uids in order.
    [[nodiscard]] std::vector<std::string> uids() const;

  private:
    mutable std::shared_mutex mutex_;
    std::map<std::string, user_ptr, std::less<>> users_;
    std::map<std::string, user_ptr, std::less<>> by_key_;
};

}  // namespace zorvan::devstore
