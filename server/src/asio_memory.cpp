// The memory of what Asio begins: it is waited for.
//
// A read, a wait, a posted function and a coroutine's frame all have their memory from aligned_alloc, which
// only Asio calls here. An operation that gets none does not fail where its coroutine could see it: the
// coroutine is destroyed instead, with everything that relied on it to come to its end - a session, a back
// end's lent buffers -, and Asio's own cleaning up, which posts, would end the process. These blocks are
// small and used again and again, so a short wait is all that it takes. The function is this library's alone:
// back ends and other libraries keep the system's.
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <thread>

namespace {

constexpr std::chrono::milliseconds memory_pause{10};

}  // namespace

// Under another name here, because the system's declaration of it is not a hidden one.
extern "C" [[gnu::visibility("hidden")]] void* zorvan_patient_alloc(
    std::size_t alignment, std::size_t size) __asm__("aligned_alloc");

void* zorvan_patient_alloc(std::size_t alignment, std::size_t size) {
    if (alignment > alignof(std::max_align_t)) {
        return nullptr;  // Asio has nothing of that kind
    }
    void* block = std::malloc(size);
    while (block == nullptr) {
        std::this_thread::sleep_for(memory_pause);
        block = std::malloc(size);
    }
    return block;
}
