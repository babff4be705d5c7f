// See the header. The replaced operators serve the whole program, the wrapped functions what it links
// statically.

#include "failing_system.h"

#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

constexpr long kNever = -1;

thread_local long allocations_left = kNever;
thread_local long failures_left = kNever;  // kNever: no end to them
thread_local bool refused = false;
std::atomic<int> thread_error = 0;
std::atomic<int> threads_refused = 0;
std::atomic<long> blocks = 0;

thread_local bool marked = false;
std::atomic<long> marked_first = kNever;  // number of the first allocation of marked threads that fails
std::atomic<long> marked_end = kNever;
std::atomic<long> marked_count = 0;
std::atomic<bool> marked_refused = false;

bool marked_allocation_fails() {
    if (!marked || marked_first == kNever) return false;
    const long number = marked_count++;
    if (number < marked_first || number >= marked_end) return false;
    marked_refused = true;
    return true;
}

bool allocation_fails() {
    if (marked_allocation_fails()) return true;
    if (allocations_left == kNever) return false;
    if (allocations_left > 0) {
        --allocations_left;
        return false;
    }
    if (failures_left == 0) return false;
    if (failures_left > 0) --failures_left;
    refused = true;
    return true;
}

}  // namespace

extern "C" {
void* __real_malloc(size_t size);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*function)(void*),
                          void* argument);

void* __wrap_malloc(size_t size) {
    return allocation_fails() ? nullptr : __real_malloc(size);
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*function)(void*),
                          void* argument) {
    const int error = thread_error;
    if (error == 0) return __real_pthread_create(thread, attr, function, argument);
    ++threads_refused;
    return error;
}
}

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    if (allocation_fails()) return nullptr;
    void* block = __real_malloc(size > 0 ? size : 1);
    if (block != nullptr) ++blocks;
    return block;
}

void* operator new(size_t size) {
    void* block = operator new(size, std::nothrow);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

void* operator new[](size_t size) {
    return operator new(size);
}
void* operator new[](size_t size, const std::nothrow_t& tag) noexcept {
    return operator new(size, tag);
}

void operator delete(void* block) noexcept {
    if (block != nullptr) --blocks;
    std::free(block);
}

void operator delete(void* block, size_t) noexcept {
    operator delete(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    operator delete(block);
}
void operator delete[](void* block) noexcept {
    operator delete(block);
}
void operator delete[](void* block, size_t) noexcept {
    operator delete(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    operator delete(block);
}

namespace zorvan::test {

FailingAllocations::FailingAllocations(long after, long how_many) {
    refused = false;
    failures_left = how_many;
    allocations_left = after;
}

FailingAllocations::~FailingAllocations() {
    allocations_left = kNever;
}

bool FailingAllocations::failed() const {
    return refused;
}

void mark_this_thread() {
    marked = true;
}

FailingMarkedThreads::FailingMarkedThreads(long after, long how_many) {
    marked_count = 0;
    marked_refused = false;
    marked_end = after + how_many;
    marked_first = after;
}

FailingMarkedThreads::~FailingMarkedThreads() {
    marked_first = kNever;
}

bool FailingMarkedThreads::failed() const {
    return marked_refused;
}

FailingThreads::FailingThreads(int error) {
    threads_refused = 0;
    thread_error = error;
}

FailingThreads::~FailingThreads() {
    thread_error = 0;
}

int FailingThreads::refused() const {
    return threads_refused;
}

long live_blocks() {
    return blocks;
}

}  // namespace zorvan::test
