// How many of something one user may have at a time, over all sessions: places that are taken, and given back
// from any thread. Users count by name; a name that holds no place takes no memory.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_map>

#include "named_hold.h"

namespace zorvan::gridftp {

class user_limit {
  public:
    /// One place; gives it back when destroyed, on any thread.
    using place = named_hold<user_limit>;

    /// @param most  places of one user, at least 1
    explicit user_limit(std::size_t most) : most_(most) {}

    /// Take a place. @return an empty one when the user has as many as there may be
    place take(const std::string& user);

    std::size_t most() const noexcept { return most_; }
    /// Places taken by all users.
    std::size_t taken() const;

  private:
    friend place;
    void release(const std::string& user) noexcept;

    const std::size_t most_;
    mutable std::mutex mutex_;
    std::unordered_map<std::string, std::size_t> taken_;
};

}  // namespace zorvan::gridftp
