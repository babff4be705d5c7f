// The threads that run back-end code: interface-table entries and callbacks.
//
// A task may block for minutes, so the pool grows whenever no thread is free; a thread that finds nothing to
// do for a while ends. Tasks are started in the order of submission. The pool holds its lock only for its own
// book-keeping.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

namespace zorvan::gridftp {

/// Something that a pool thread runs.
class pool_task {
  public:
    virtual ~pool_task() = default;
    /// Runs once per submission, on a thread that serves nothing else meanwhile.
    virtual void run() noexcept = 0;
};

class callback_pool {
  public:
    explicit callback_pool(std::chrono::milliseconds idle_time) : idle_time_(idle_time) {}
    callback_pool(const callback_pool&) = delete;
    callback_pool& operator=(const callback_pool&) = delete;
    /// Runs what is queued and waits for every thread.
    ~callback_pool();

    /// Queue a task; any thread; does not block. The task is kept until it has run. When no thread can be had
    /// the task waits for one that becomes free.
    void submit(std::shared_ptr<pool_task> task);

    /// The same for a function.
    void submit(std::function<void()> function);

    std::size_t threads() const;
    std::size_t busy_threads() const;

  private:
    void serve() noexcept;

    const std::chrono::milliseconds idle_time_;
    mutable std::mutex mutex_;
    std::condition_variable work_;
    std::condition_variable gone_;
    std::deque<std::shared_ptr<pool_task>> queue_;
    std::size_t threads_ = 0;
    std::size_t idle_ = 0;
    bool stopping_ = false;
};

}  // namespace zorvan::gridftp
