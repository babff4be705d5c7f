// Wrapped allocators, thread creation and sleeping behind faults.h.
//
// Counters are atomics, the rest is guarded by one mutex that is never held while foreign code runs.
#include "faults.h"

#include <zorvan_common.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

#include "call_trace.h"

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* memory, size_t size);
char* __real_strdup(const char* text);
char* __real_zorvan_libc_strdup(const char* text);
time_t __real_time(time_t* seconds);
int __real_MD5_Init(void* context);
int __real_MD5_Update(void* context, const void* bytes, size_t length);
int __real_MD5_Final(unsigned char* digest, void* context);
int __real_zorvan_thread_create(zorvan_thread_t* thread, const zorvan_threadattr_t* attr,
                                void* (*function)(void*), void* argument);
}

namespace module_test {
namespace {

thread_local bool in_module = false;

std::atomic<long> allocations_left{0};  // 0: none fails
std::atomic<long> allocations{0};
std::atomic<size_t> failing_size{0};
std::atomic<bool> refused{false};
std::atomic<Md5Step> failing_md5{Md5Step::none};

struct Body {
    void* (*function)(void*);
    void* argument;
};

std::mutex mutex;
ThreadMode thread_mode = ThreadMode::real;
int thread_errno = 0;
int thread_requests = 0;
std::function<void()> after_at_once;
std::function<int64_t()> own_clock;
std::vector<Body> kept;
std::vector<int64_t> wanted_sleeps;

// Whether this allocation is the one to refuse.
bool refuse(size_t size) {
    if (!in_module) return false;
    ++allocations;
    const size_t limit = failing_size.load();
    bool no = limit != 0 && size >= limit;
    if (allocations_left.load() > 0 && allocations_left.fetch_sub(1) == 1) no = true;
    if (no) {
        refused = true;
        errno = ENOMEM;
    }
    return no;
}

void* run_marked(void* argument) {
    const Body body = *static_cast<Body*>(argument);
    delete static_cast<Body*>(argument);
    const InModule inside;
    return body.function(body.argument);
}

}  // namespace

InModule::InModule() : before_(std::exchange(in_module, true)) {}
InModule::~InModule() {
    in_module = before_;
}
OutOfModule::OutOfModule() : before_(std::exchange(in_module, false)) {}
OutOfModule::~OutOfModule() {
    in_module = before_;
}

void faults_reset() {
    fail_allocation(0);
    fail_allocations_from(0);
    fail_md5(Md5Step::none);
    const std::lock_guard lock(mutex);
    thread_mode = ThreadMode::real;
    thread_errno = 0;
    thread_requests = 0;
    after_at_once = nullptr;
    own_clock = nullptr;
    kept.clear();
    wanted_sleeps.clear();
}

void fail_allocation(long nth) {
    refused = false;
    allocations = 0;
    allocations_left = nth;
}

void fail_allocations_from(size_t bytes) {
    refused = false;
    failing_size = bytes;
}

void fail_md5(Md5Step step) {
    failing_md5 = step;
}

bool allocation_failed() {
    return refused;
}
long allocations_made() {
    return allocations;
}

void set_thread_mode(ThreadMode mode) {
    const std::lock_guard lock(mutex);
    thread_mode = mode;
}

void fail_next_thread(int errno_value) {
    const std::lock_guard lock(mutex);
    thread_errno = errno_value;
}

void set_after_at_once(std::function<void()> hook) {
    const std::lock_guard lock(mutex);
    after_at_once = std::move(hook);
}

void set_clock(std::function<int64_t()> clock) {
    const std::lock_guard lock(mutex);
    own_clock = std::move(clock);
}

int run_deferred_threads() {
    int ran = 0;
    for (;;) {
        Body body{};
        {
            const std::lock_guard lock(mutex);
            if (kept.empty()) return ran;
            body = kept.front();
            kept.erase(kept.begin());
        }
        const InModule inside;
        body.function(body.argument);
        ++ran;
    }
}

int threads_asked_for() {
    const std::lock_guard lock(mutex);
    return thread_requests;
}

std::vector<int64_t> sleeps() {
    const std::lock_guard lock(mutex);
    return wanted_sleeps;
}

static int create_thread(zorvan_thread_t* thread, const zorvan_threadattr_t* attr, void* (*function)(void*),
                         void* argument) {
    const OutOfModule outside;
    trace_add("zorvan_thread_create");
    ThreadMode mode = ThreadMode::real;
    std::function<void()> hook;
    {
        const std::lock_guard lock(mutex);
        ++thread_requests;
        if (thread_errno != 0) return std::exchange(thread_errno, 0);
        mode = thread_mode;
        hook = after_at_once;
        if (mode == ThreadMode::deferred) {
            kept.push_back({function, argument});
            if (thread != nullptr) *thread = 1;
            return 0;
        }
    }
    auto* body = new Body{function, argument};
    if (mode == ThreadMode::at_once) {
        std::thread(run_marked, body).join();
        if (hook) hook();
        if (thread != nullptr) *thread = 1;
        return 0;
    }
    const int error = __real_zorvan_thread_create(thread, attr, run_marked, body);
    if (error != 0) delete body;
    return error;
}

static void record_sleep(int64_t microseconds) {
    const OutOfModule outside;
    trace_add("zorvan_libc_usleep");
    const std::lock_guard lock(mutex);
    wanted_sleeps.push_back(microseconds);
}

static time_t tell_time() {
    if (!in_module) return __real_time(nullptr);
    const OutOfModule outside;
    const std::lock_guard lock(mutex);
    return own_clock ? static_cast<time_t>(own_clock()) : __real_time(nullptr);
}

static bool refuse_allocation(size_t size) {
    return refuse(size);
}
static bool refuse_md5(Md5Step step) {
    return failing_md5 == step;
}

}  // namespace module_test

// A sanitizer's runtime may refer to the wrapped allocators: they must not be hidden.
#pragma GCC visibility push(default)
extern "C" {

void* __wrap_malloc(size_t size) {
    return module_test::refuse_allocation(size) ? nullptr : __real_malloc(size);
}

void* __wrap_calloc(size_t count, size_t size) {
    return module_test::refuse_allocation(count * size) ? nullptr : __real_calloc(count, size);
}

void* __wrap_realloc(void* memory, size_t size) {
    return module_test::refuse_allocation(size) ? nullptr : __real_realloc(memory, size);
}

char* __wrap_strdup(const char* text) {
    return module_test::refuse_allocation(std::strlen(text) + 1) ? nullptr : __real_strdup(text);
}

time_t __wrap_time(time_t* seconds) {
    const time_t now = module_test::tell_time();
    if (seconds != nullptr) *seconds = now;
    return now;
}

int __wrap_MD5_Init(void* context) {
    return module_test::refuse_md5(module_test::Md5Step::init) ? 0 : __real_MD5_Init(context);
}

int __wrap_MD5_Update(void* context, const void* bytes, size_t length) {
    if (module_test::refuse_md5(module_test::Md5Step::update)) return 0;
    return __real_MD5_Update(context, bytes, length);
}

int __wrap_MD5_Final(unsigned char* digest, void* context) {
    return module_test::refuse_md5(module_test::Md5Step::finalize) ? 0 : __real_MD5_Final(digest, context);
}

char* __wrap_zorvan_libc_strdup(const char* text) {
    return module_test::refuse_allocation(1) ? nullptr : __real_zorvan_libc_strdup(text);
}

char* __wrap_zorvan_common_create_string(const char* format, ...) {
    if (module_test::refuse_allocation(1)) return nullptr;
    va_list arguments;
    va_start(arguments, format);
    char* text = zorvan_common_v_create_string(format, arguments);
    va_end(arguments);
    return text;
}

int __wrap_zorvan_thread_create(zorvan_thread_t* thread, const zorvan_threadattr_t* attr,
                                void* (*function)(void*), void* argument) {
    return module_test::create_thread(thread, attr, function, argument);
}

void __wrap_zorvan_libc_usleep(int64_t microseconds) {
    module_test::record_sleep(microseconds);
}

}  // extern "C"
#pragma GCC visibility pop

void* operator new(size_t size) {
    void* memory = module_test::refuse_allocation(size) ? nullptr : __real_malloc(size == 0 ? 1 : size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void* operator new[](size_t size) {
    return operator new(size);
}

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return module_test::refuse_allocation(size) ? nullptr : __real_malloc(size == 0 ? 1 : size);
}

void* operator new[](size_t size, const std::nothrow_t& tag) noexcept {
    return operator new(size, tag);
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}

// An allocation that cannot succeed is answered with null, as without a sanitizer.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
    return "allocator_may_return_null=1:detect_leaks=1";
}
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {
    return "allocator_may_return_null=1:halt_on_error=1:second_deadlock_stack=1";
}
