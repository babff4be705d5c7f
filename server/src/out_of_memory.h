// What the server does when memory runs out where nothing may be thrown: at the C border, on a back end's
// thread, in a destructor. Calls that can fail do; what must happen is repeated until it can. Any thread.
#pragma once

#include <chrono>
#include <exception>
#include <new>
#include <thread>

namespace zorvan::gridftp {

/// Run a function that may throw where no exception may leave. @return false: it threw
template <class Function>
bool run_without_throwing(Function&& function) noexcept {
    try {
        function();
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

/// Run what cannot be refused and undoes itself when it throws: again and again until there is memory for it.
template <class Function>
void run_until_memory(Function&& function) noexcept {
    constexpr std::chrono::milliseconds pause{10};
    for (;;) {
        try {
            function();
            return;
        } catch (const std::bad_alloc&) {
            std::this_thread::sleep_for(pause);
        }
    }
}

}  // namespace zorvan::gridftp
