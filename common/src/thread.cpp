/*
 * Detached worker threads and their number.
 *
 * Nobody joins a worker; a shutdown waits until the number is zero instead. A thread is counted from before
 * it starts until its function has returned, also when it leaves by pthread_exit, and what libraries keep for
 * each thread was freed: whoever waits for the threads may end the process then. The mutex guards the number
 * alone.
 */
#include <zorvan_common.h>

#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>

#include "never_destroyed.h"

namespace {

struct Running {
    std::mutex mutex;
    std::condition_variable changed;
    size_t count = 0;

    void enter() {
        const std::lock_guard lock(mutex);
        ++count;
    }
    void leave() {
        const std::lock_guard lock(mutex);
        --count;
        changed.notify_all();
    }
};

Running& running() {
    static zorvan::common::NeverDestroyed<Running> instance;
    return instance.value;
}

struct Start {
    void* (*function)(void*);
    void* argument;
};

extern "C" void zorvan_thread_ended(void* value);

/**
 * A key of which every worker has a value, so that its destructor counts the worker out. Destructors of keys
 * run in rounds, and a key whose destructor gives it a value again has another turn in the next one: the
 * third comes after those of all others that need no more than two.
 */
class EndKey {
  public:
    EndKey() : error_(pthread_key_create(&key_, zorvan_thread_ended)) {}

    /** @return false when the thread's end will not be noticed */
    bool set(intptr_t turn) const {
        return error_ == 0 && pthread_setspecific(key_, reinterpret_cast<void*>(turn)) == 0;
    }

    static constexpr intptr_t kLastTurn = 3;
    static_assert(kLastTurn < PTHREAD_DESTRUCTOR_ITERATIONS);

    static const EndKey& instance() {
        static const EndKey key;
        return key;
    }

  private:
    pthread_key_t key_{};
    int error_;
};

extern "C" void zorvan_thread_ended(void* value) {
    const auto turn = reinterpret_cast<intptr_t>(value);
    if (turn < EndKey::kLastTurn && EndKey::instance().set(turn + 1)) return;
    running().leave();
}

extern "C" void* zorvan_thread_body(void* opaque) {
    struct Leave {
        const bool noticed = EndKey::instance().set(1);
        ~Leave() {
            if (!noticed) running().leave();
        }
    } leave;
    const Start start = *std::unique_ptr<Start>(static_cast<Start*>(opaque));
    start.function(start.argument);
    return nullptr;
}

/** Thread attributes that say "detached". */
class DetachedAttribute {
  public:
    DetachedAttribute() : error_(pthread_attr_init(&attribute_)) {
        if (error_ == 0) pthread_attr_setdetachstate(&attribute_, PTHREAD_CREATE_DETACHED);
    }
    DetachedAttribute(const DetachedAttribute&) = delete;
    DetachedAttribute& operator=(const DetachedAttribute&) = delete;
    ~DetachedAttribute() {
        if (error_ == 0) pthread_attr_destroy(&attribute_);
    }

    int error() const { return error_; }
    const pthread_attr_t* get() const { return &attribute_; }

  private:
    pthread_attr_t attribute_;
    int error_;
};

}  // namespace

int zorvan_thread_create(zorvan_thread_t* thread, const zorvan_threadattr_t* /*attr*/,
                         void* (*function)(void*), void* argument) {
    if (function == nullptr) return EINVAL;
    std::unique_ptr<Start> start(new (std::nothrow) Start{function, argument});
    if (!start) return ENOMEM;
    const DetachedAttribute detached;
    if (detached.error() != 0) return detached.error();

    running().enter();
    pthread_t id;
    const int error = pthread_create(&id, detached.get(), zorvan_thread_body, start.get());
    if (error != 0) {
        running().leave();
        return error;
    }
    static_cast<void>(start.release());  // the thread frees it
    if (thread != nullptr) *thread = id;
    return 0;
}

size_t zorvan_thread_count(void) {
    Running& threads = running();
    const std::lock_guard lock(threads.mutex);
    return threads.count;
}

int zorvan_thread_wait_all(int64_t milliseconds) {
    // Longer waits are waits without bound; adding them to the clock could overflow.
    constexpr int64_t kLongest = int64_t{1000} * 3600 * 24 * 365;
    Running& threads = running();
    const auto none_left = [&threads] { return threads.count == 0; };
    std::unique_lock lock(threads.mutex);
    if (milliseconds < 0 || milliseconds > kLongest) {
        threads.changed.wait(lock, none_left);
        return 1;
    }
    return threads.changed.wait_for(lock, std::chrono::milliseconds(milliseconds), none_left) ? 1 : 0;
}

void zorvan_libc_usleep(int64_t microseconds) {
    constexpr int64_t kPerSecond = 1'000'000;
    constexpr long kNanosecondsPerSecond = 1'000'000'000;
    if (microseconds <= 0) return;
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += microseconds / kPerSecond;
    until.tv_nsec += static_cast<long>(microseconds % kPerSecond) * 1000;
    if (until.tv_nsec >= kNanosecondsPerSecond) {
        until.tv_nsec -= kNanosecondsPerSecond;
        ++until.tv_sec;
    }
    // An absolute end, so that signals neither shorten nor lengthen the sleep.
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}
