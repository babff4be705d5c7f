// The growing pool. A thread is started when there are more tasks than idle threads.
#include "callback_pool.h"

#include <system_error>
#include <thread>
#include <utility>

#include "server_log.h"

namespace zorvan::gridftp {
namespace {

class function_task final : public pool_task {
  public:
    explicit function_task(std::function<void()> function) : function_(std::move(function)) {}
    void run() noexcept override { function_(); }

  private:
    std::function<void()> function_;
};

}  // namespace

callback_pool::~callback_pool() {
    std::unique_lock lock(mutex_);
    stopping_ = true;
    work_.notify_all();
    gone_.wait(lock, [this] { return threads_ == 0; });
}

void callback_pool::submit(std::function<void()> function) {
    submit(std::make_shared<function_task>(std::move(function)));
}

void callback_pool::submit(std::shared_ptr<pool_task> task) {
    bool grow = false;
    {
        const std::lock_guard lock(mutex_);
        queue_.push_back(std::move(task));
        grow = queue_.size() > idle_;
        if (grow) {
            ++threads_;
        }
    }
    if (!grow) {
        work_.notify_one();
        return;
    }
    try {
        std::thread([this] { serve(); }).detach();
    } catch (const std::system_error& failure) {
        log_line(ZORVAN_GFS_LOG_ERROR, std::string("no thread for a back end: ") + failure.what());
        const std::lock_guard lock(mutex_);
        --threads_;
        gone_.notify_all();
    }
}

std::size_t callback_pool::threads() const {
    const std::lock_guard lock(mutex_);
    return threads_;
}

std::size_t callback_pool::busy_threads() const {
    const std::lock_guard lock(mutex_);
    return threads_ - idle_;
}

void callback_pool::serve() noexcept {
    std::unique_lock lock(mutex_);
    for (;;) {
        if (queue_.empty() && !stopping_) {
            ++idle_;
            work_.wait_for(lock, idle_time_, [this] { return !queue_.empty() || stopping_; });
            --idle_;
        }
        if (queue_.empty()) {
            break;
        }
        auto task = std::move(queue_.front());
        queue_.pop_front();
        lock.unlock();
        task->run();
        // What the task held may need the pool again when it goes.
        task.reset();
        lock.lock();
    }
    --threads_;
    // Under the lock: the destructor must not return before this thread has let go of the pool.
    gone_.notify_all();
}

}  // namespace zorvan::gridftp
