/*
 * A system that fails on demand: the n-th allocation of the library, or every start of a thread.
 *
 * The test links the library's objects and routes their malloc, operator new and pthread_create through here
 * (linker option --wrap). Only calls of the thread that asked for failures fail, or of those that are marked;
 * all allocations are counted.
 */
#ifndef ZORVAN_TESTS_COMMON_FAILING_SYSTEM_H
#define ZORVAN_TESTS_COMMON_FAILING_SYSTEM_H

namespace zorvan::test {

/** While it lives, this thread's allocation number `after` (0 = the next) fails, and all later ones or
 * `how_many` in all. */
class FailingAllocations {
  public:
    explicit FailingAllocations(long after, long how_many = -1);
    FailingAllocations(const FailingAllocations&) = delete;
    FailingAllocations& operator=(const FailingAllocations&) = delete;
    ~FailingAllocations();

    /** Whether any allocation was refused so far. */
    bool failed() const;
};

/** The calling thread is one of those whose allocations FailingMarkedThreads is about. */
void mark_this_thread();

/** While it lives, the allocation number `after` (0 = the next) that any marked thread makes fails, and the
 * next ones, `how_many` in all. Only one at a time. */
class FailingMarkedThreads {
  public:
    explicit FailingMarkedThreads(long after, long how_many = 1);
    FailingMarkedThreads(const FailingMarkedThreads&) = delete;
    FailingMarkedThreads& operator=(const FailingMarkedThreads&) = delete;
    ~FailingMarkedThreads();

    /** Whether any allocation was refused so far. */
    bool failed() const;
};

/** While it lives, pthread_create answers with this errno value. */
class FailingThreads {
  public:
    explicit FailingThreads(int error);
    FailingThreads(const FailingThreads&) = delete;
    FailingThreads& operator=(const FailingThreads&) = delete;
    ~FailingThreads();

    /** How many starts were refused so far. */
    int refused() const;
};

/** How many blocks of operator new are allocated now. */
long live_blocks();

}  // namespace zorvan::test

#endif
