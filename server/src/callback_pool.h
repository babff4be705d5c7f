// The threads that run back-end code: interface-table entries and callbacks.
//
// A task may block for minutes, so the pool grows whenever no thread is free; a thread that finds nothing to
// do for a while ends. Tasks are started in the order of submission. The pool holds its lock only for its own
// book-keeping.
//
// Every thread is joined, by the one that ends after it and at last by the destructor: when the pool is gone,
// so is what libraries keep for each of its threads, and the process may end.
#pragma once

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace zorvan::gridftp {

/// Something that a pool thread runs. In the queue once at a time; it may be submitted again when run() has
/// begun.
class pool_task {
  public:
    virtual ~pool_task() = default;
    /// Runs once per submission, on a thread that serves nothing else meanwhile.
    virtual void run() noexcept = 0;

  private:
    friend class callback_pool;
    std::shared_ptr<pool_task> next_;  // so that queueing needs no memory
};

class callback_pool {
  public:
    explicit callback_pool(std::chrono::milliseconds idle_time) : idle_time_(idle_time) {}
    callback_pool(const callback_pool&) = delete;
    callback_pool& operator=(const callback_pool&) = delete;
    /// Runs what is queued and waits for every thread.
    ~callback_pool();

    /// Queue a task; any thread; cannot fail. The task is kept until it has run. When no further thread can
    /// be had the task waits for one that becomes free; only when there is none at all does the caller wait.
    void submit(std::shared_ptr<pool_task> task) noexcept;

    /// The same for a function. Throws when there is no memory for it.
    void submit(std::function<void()> function);

    std::size_t threads() const;
    std::size_t busy_threads() const;

  private:
    void serve() noexcept;
    bool start_thread() noexcept;

    const std::chrono::milliseconds idle_time_;
    mutable std::mutex mutex_;
    std::condition_variable work_;
    std::condition_variable gone_;
    std::shared_ptr<pool_task> first_;
    pool_task* last_ = nullptr;
    std::size_t queued_ = 0;
    std::size_t threads_ = 0;
    std::size_t idle_ = 0;
    bool stopping_ = false;
    std::optional<pthread_t> ended_;  // the thread that ended last, not joined yet
};

}  // namespace zorvan::gridftp
