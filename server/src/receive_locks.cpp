// A table of held names. Whoever waits leaves its event with the name; a release wakes them all and the first
// one to come takes it.
#include "receive_locks.h"

#include <utility>

namespace zorvan::gridftp {

task<receive_locks::holder> receive_locks::acquire(std::string name, async_event event,
                                                   std::chrono::milliseconds limit,
                                                   std::function<bool()> give_up) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        if (give_up()) {
            co_return holder{};
        }
        if (take(name, event)) {
            co_return holder{*this, std::move(name)};
        }
        if (!co_await event.wait_until(deadline) && std::chrono::steady_clock::now() >= deadline) {
            co_return holder{};
        }
    }
}

std::size_t receive_locks::held() const {
    const std::lock_guard lock(mutex_);
    return entries_.size();
}

bool receive_locks::take(const std::string& name, const async_event& event) {
    const std::lock_guard lock(mutex_);
    const auto [position, is_new] = entries_.try_emplace(name);
    if (!is_new) {
        position->second.waiters.push_back(event);
    }
    return is_new;
}

void receive_locks::release(const std::string& name) noexcept {
    entry freed;
    {
        const std::lock_guard lock(mutex_);
        const auto position = entries_.find(name);
        if (position == entries_.end()) {
            return;
        }
        freed = std::move(position->second);
        entries_.erase(position);
    }
    for (const auto& waiter : freed.waiters) {
        waiter.notify();
    }
}

}  // namespace zorvan::gridftp
