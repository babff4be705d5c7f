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
#include <unordered_set>
#include <utility>

#include "call_trace.h"

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* memory, size_t size);
char* __real_strdup(const char* text);
void __real_free(void* memory);
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
int threads_left = 0;  // 0: none fails
bool thread_refused = false;
int thread_requests = 0;
std::function<void()> after_at_once;
std::function<int64_t()> own_clock;
std::vector<Body> kept;
std::vector<int64_t> wanted_sleeps;

std::atomic<bool> watching{false};
thread_local bool noting = false;  // the notes take and give back memory themselves
std::mutex notes_mutex;
std::unordered_set<void*>& notes() {
    static auto* const all = new std::unordered_set<void*>;  // outlives whatever is freed at the end
    return *all;
}

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

// Memory that the module was given.
static void* note(void* memory) {
    if (memory == nullptr || !watching || !in_module) return memory;
    const OutOfModule outside;
    noting = true;
    {
        const std::lock_guard lock(notes_mutex);
        notes().insert(memory);
    }
    noting = false;
    return memory;
}

// Memory that is about to be given back.
static void forget(void* memory) {
    if (memory == nullptr || !watching || noting) return;
    const OutOfModule outside;
    noting = true;
    {
        const std::lock_guard lock(notes_mutex);
        notes().erase(memory);
    }
    noting = false;
}

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
    watch_memory(false);
    fail_thread(0, 0);
    const std::lock_guard lock(mutex);
    thread_mode = ThreadMode::real;
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

void watch_memory(bool watch) {
    watching = false;
    noting = true;
    {
        const std::lock_guard lock(notes_mutex);
        notes().clear();
    }
    noting = false;
    watching = watch;
}

size_t memory_taken() {
    const std::lock_guard lock(notes_mutex);
    return notes().size();
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

void fail_thread(int nth, int errno_value) {
    const std::lock_guard lock(mutex);
    threads_left = nth;
    thread_errno = errno_value;
    thread_refused = false;
}

void fail_next_thread(int errno_value) {
    fail_thread(1, errno_value);
}

bool thread_failed() {
    const std::lock_guard lock(mutex);
    return thread_refused;
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
        if (threads_left > 0 && --threads_left == 0) {
            thread_refused = true;
            return thread_errno;
        }
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
static void* noted(void* memory) {
    return note(memory);
}
static void about_to_free(void* memory) {
    forget(memory);
}
static bool refuse_md5(Md5Step step) {
    return failing_md5 == step;
}

}  // namespace module_test

// A sanitizer's runtime may refer to the wrapped allocators: they must not be hidden.
#pragma GCC visibility push(default)
extern "C" {

void* __wrap_malloc(size_t size) {
    return module_test::refuse_allocation(size) ? nullptr : module_test::noted(__real_malloc(size));
}

void __wrap_free(void* memory) {
    module_test::about_to_free(memory);
    __real_free(memory);
}

void* __wrap_calloc(size_t count, size_t size) {
    return module_test::refuse_allocation(count * size) ? nullptr
                                                        : module_test::noted(__real_calloc(count, size));
}

void* __wrap_realloc(void* memory, size_t size) {
    if (module_test::refuse_allocation(size)) return nullptr;
    module_test::about_to_free(memory);
    return module_test::noted(__real_realloc(memory, size));
}

char* __wrap_strdup(const char* text) {
    if (module_test::refuse_allocation(std::strlen(text) + 1)) return nullptr;
    return static_cast<char*>(module_test::noted(__real_strdup(text)));
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
    void* memory = operator new(size, std::nothrow);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void* operator new[](size_t size) {
    return operator new(size);
}

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    if (module_test::refuse_allocation(size)) return nullptr;
    return module_test::noted(__real_malloc(size == 0 ? 1 : size));
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
