// The growing pool. A thread is started when there are more tasks than idle threads.
#include "callback_pool.h"

#include <cstring>
#include <thread>
#include <utility>

#include "server_log.h"

namespace zorvan::gridftp {
namespace {

// Between two tries to start a pool's only thread.
constexpr std::chrono::milliseconds thread_pause{10};

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
    const std::optional<pthread_t> last = ended_;
    lock.unlock();
    if (last) pthread_join(*last, nullptr);
}

void callback_pool::submit(std::function<void()> function) {
    submit(std::make_shared<function_task>(std::move(function)));
}

void callback_pool::submit(std::shared_ptr<pool_task> task) noexcept {
    std::unique_lock lock(mutex_);
    auto* added = task.get();
    (last_ != nullptr ? last_->next_ : first_) = std::move(task);
    last_ = added;
    ++queued_;
    if (queued_ <= idle_) {
        lock.unlock();
        work_.notify_one();
        return;
    }
    ++threads_;
    lock.unlock();
    while (!start_thread()) {
        lock.lock();
        if (threads_ > 1) {
            --threads_;
            gone_.notify_all();
            return;
        }
        // Nobody else would ever come to it.
        lock.unlock();
        std::this_thread::sleep_for(thread_pause);
    }
}

bool callback_pool::start_thread() noexcept {
    pthread_t thread{};
    const int error = pthread_create(
        &thread, nullptr,
        [](void* pool) -> void* {
            static_cast<callback_pool*>(pool)->serve();
            return nullptr;
        },
        this);
    if (error == 0) return true;
    log_line(ZORVAN_GFS_LOG_ERROR, "no thread for a back end");
    log_line(ZORVAN_GFS_LOG_ERROR, std::strerror(error));
    return false;
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
        if (queued_ == 0 && !stopping_) {
            ++idle_;
            work_.wait_for(lock, idle_time_, [this] { return queued_ != 0 || stopping_; });
            --idle_;
        }
        if (queued_ == 0) {
            break;
        }
        auto task = std::move(first_);
        first_ = std::move(task->next_);
        last_ = first_ ? last_ : nullptr;
        --queued_;
        lock.unlock();
        task->run();
        // What the task held may need the pool again when it goes.
        task.reset();
        lock.lock();
    }
    --threads_;
    const std::optional<pthread_t> previous = std::exchange(ended_, pthread_self());
    // Under the lock: the destructor must not return before this thread has let go of the pool.
    gone_.notify_all();
    lock.unlock();
    if (previous) pthread_join(*previous, nullptr);
}

}  // namespace zorvan::gridftp
