// Faults that tests inject below the module: memory, threads, time.
//
// The test executable is linked with --wrap for malloc and its kin, zorvan_thread_create and
// zorvan_libc_usleep, and replaces operator new. Only what happens inside the module counts: InModule marks a
// thread's way into it (entries, worker bodies, callbacks), OutOfModule the way out (host and S3 functions).
// Everything here may be called from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace module_test {

/// Marks the calling thread as running the module's code, until the end of the scope.
class InModule {
  public:
    InModule();
    ~InModule();
    InModule(const InModule&) = delete;
    InModule& operator=(const InModule&) = delete;

  private:
    bool before_;
};

/// Marks the calling thread as running the tests' code, until the end of the scope.
class OutOfModule {
  public:
    OutOfModule();
    ~OutOfModule();
    OutOfModule(const OutOfModule&) = delete;
    OutOfModule& operator=(const OutOfModule&) = delete;

  private:
    bool before_;
};

/// Back to: nothing fails, threads are real, nothing recorded.
void faults_reset();

/// Let the nth allocation (from 1) that the module makes from now on fail, once. 0 lets none fail.
void fail_allocation(long nth);
/// Let every allocation of the module of at least so many bytes fail until told otherwise. 0 ends it.
void fail_allocations_from(size_t bytes);
/// Whether an allocation was refused since the last fail_allocation*().
bool allocation_failed();
/// How many allocations the module made since the last fail_allocation().
long allocations_made();

/// Begin (forgetting what was noted) or end to note the memory that the module takes.
void watch_memory(bool watch);
/// How many pieces of the memory noted since are still taken, whoever should have given them back.
size_t memory_taken();

/// Which step of computing an MD5 fails from now on.
enum class Md5Step { none, init, update, finalize };
void fail_md5(Md5Step step);

/// What time() tells the module; an empty function = the real time.
void set_clock(std::function<int64_t()> clock);

/// How zorvan_thread_create behaves.
enum class ThreadMode {
    real,      ///< starts a thread
    deferred,  ///< keeps the body for run_deferred_threads()
    at_once,   ///< runs the body to its end, on a thread of its own, before it returns
};
void set_thread_mode(ThreadMode mode);
/// The nth thread creation (from 1) from now on fails with that errno value, once. 0 lets none fail.
void fail_thread(int nth, int errno_value);
/// The next thread creation fails with that errno value.
void fail_next_thread(int errno_value);
/// Whether a thread was refused since the last fail_thread().
bool thread_failed();
/// Called after an at_once body has ended and before zorvan_thread_create returns.
void set_after_at_once(std::function<void()> hook);
/// Run the kept bodies on the calling thread; @return how many ran.
int run_deferred_threads();
/// How many threads were asked for, refused ones included.
int threads_asked_for();

/// What the module wanted to sleep, in microseconds, in order. It never really slept.
std::vector<int64_t> sleeps();

}  // namespace module_test
