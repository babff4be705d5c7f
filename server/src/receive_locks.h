// One upload per name at a time: a fresh upload makes the store give up what an older one left, which may be
// just committing. Waiting is done by coroutines; a lock is let go from any thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "async.h"
#include "named_hold.h"

namespace zorvan::gridftp {

class receive_locks {
  public:
    /// Holds one name; lets it go when destroyed, on any thread.
    using holder = named_hold<receive_locks>;

    /// Wait for a name.
    /// @param event     the waiting coroutine's own event; notified when the name may be free
    /// @param give_up   checked after every notification of `event`: true ends the wait
    /// @return an empty holder when the time was over or `give_up` said so
    task<holder> acquire(std::string name, async_event event, std::chrono::milliseconds limit,
                         std::function<bool()> give_up);

    std::size_t held() const;

  private:
    friend holder;
    struct entry {
        std::vector<async_event> waiters;
    };
    bool take(const std::string& name, const async_event& event);
    void release(const std::string& name) noexcept;

    mutable std::mutex mutex_;
    std::unordered_map<std::string, entry> entries_;
};

}  // namespace zorvan::gridftp
