// Counting by user; see user_limit.h.
#include "user_limit.h"

#include <utility>

namespace zorvan::gridftp {

user_limit::place user_limit::take(const std::string& user) {
    place taken;
    std::string name = user;
    {
        const std::lock_guard lock(mutex_);
        auto& count = taken_[name];
        if (count < most_) {
            ++count;
            taken = place(*this, std::move(name));
        }
    }
    return taken;
}

std::size_t user_limit::taken() const {
    const std::lock_guard lock(mutex_);
    std::size_t sum = 0;
    for (const auto& [user, count] : taken_) {
        sum += count;
    }
    return sum;
}

void user_limit::release(const std::string& user) noexcept {
    const std::lock_guard lock(mutex_);
    const auto position = taken_.find(user);
    if (position != taken_.end() && --position->second == 0) {
        taken_.erase(position);
    }
}

}  // namespace zorvan::gridftp
