// Threads are started, counted until their function has returned, and waited for; sleeping is not cut short.

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <latch>

#include "support.h"

namespace {

int64_t monotonic_microseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
}

class ThreadTest : public zorvan::test::CommonTest {
  protected:
    void SetUp() override {
        CommonTest::SetUp();
        ASSERT_EQ(zorvan_thread_count(), 0U);
    }
    void TearDown() override {
        EXPECT_EQ(zorvan_thread_wait_all(60'000), 1);
        CommonTest::TearDown();
    }
};

struct Shared {
    std::latch started{1};
    std::latch may_end{1};
    std::atomic<int> ended{0};
    std::atomic<zorvan_thread_t> id{0};
};

void* body(void* opaque) {
    auto* shared = static_cast<Shared*>(opaque);
    shared->id = pthread_self();
    shared->started.count_down();
    shared->may_end.wait();
    ++shared->ended;
    return opaque;
}

TEST_F(ThreadTest, RunsTheFunctionAndCountsItUntilItReturned) {
    Shared shared;
    zorvan_thread_t id = 0;
    ASSERT_EQ(zorvan_thread_create(&id, nullptr, body, &shared), 0);
    EXPECT_EQ(zorvan_thread_count(), 1U);  // from before it runs
    shared.started.wait();
    EXPECT_EQ(zorvan_thread_count(), 1U);
    EXPECT_EQ(zorvan_thread_wait_all(0), 0);
    EXPECT_EQ(zorvan_thread_wait_all(20), 0);
    EXPECT_EQ(shared.id, id);
    shared.may_end.count_down();
    EXPECT_EQ(zorvan_thread_wait_all(-1), 1);
    EXPECT_EQ(shared.ended, 1);
    EXPECT_EQ(zorvan_thread_count(), 0U);
}

TEST_F(ThreadTest, TheIdIsOptionalAndTheFunctionIsNot) {
    Shared shared;
    shared.may_end.count_down();
    EXPECT_EQ(zorvan_thread_create(nullptr, nullptr, body, &shared), 0);
    EXPECT_EQ(zorvan_thread_wait_all(-1), 1);
    EXPECT_EQ(shared.ended, 1);
    EXPECT_EQ(zorvan_thread_create(nullptr, nullptr, nullptr, nullptr), EINVAL);
    EXPECT_EQ(zorvan_thread_count(), 0U);
}

TEST_F(ThreadTest, ManyThreadsStartThreads) {
    static std::atomic<int> ran;
    ran = 0;
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(zorvan_thread_create(
                      nullptr, nullptr,
                      +[](void*) -> void* {
                          ++ran;
                          const int error = zorvan_thread_create(
                              nullptr, nullptr,
                              +[](void*) -> void* {
                                  ++ran;
                                  return nullptr;
                              },
                              nullptr);
                          zorvan_assert(error == 0);
                          return nullptr;
                      },
                      nullptr),
                  0);
    }
    EXPECT_EQ(zorvan_thread_wait_all(int64_t{1} << 62), 1);  // as good as without bound
    EXPECT_EQ(ran, 40);
}

TEST_F(ThreadTest, AThreadThatLeavesByPthreadExitIsCountedOut) {
    ASSERT_EQ(
        zorvan_thread_create(nullptr, nullptr, +[](void*) -> void* { pthread_exit(nullptr); }, nullptr), 0);
    EXPECT_EQ(zorvan_thread_wait_all(60'000), 1);
}

TEST_F(ThreadTest, WaitingForNoThreadsReturnsAtOnce) {
    EXPECT_EQ(zorvan_thread_wait_all(0), 1);
    EXPECT_EQ(zorvan_thread_wait_all(-1), 1);
}

TEST_F(ThreadTest, SleepLastsAtLeastAsLongAsAsked) {
    const int64_t before = monotonic_microseconds();
    zorvan_libc_usleep(20'000);
    EXPECT_GE(monotonic_microseconds() - before, 20'000);
}

TEST_F(ThreadTest, SleepingForNothingOrLessReturns) {
    zorvan_libc_usleep(0);
    zorvan_libc_usleep(-1);
    zorvan_libc_usleep(INT64_MIN);
}

TEST_F(ThreadTest, CountedUntilItsThreadSpecificValuesAreGone) {
    struct Values {
        pthread_key_t key{};
        std::atomic<int> turns{0};
        std::latch in_destructor{1};
        std::latch may_end{1};
    };
    static Values* values;
    Values here;
    values = &here;
    // Has a value once more after its first turn, as one library's destructor may bring another's value back.
    ASSERT_EQ(pthread_key_create(
                  &here.key,
                  +[](void* value) {
                      if (++values->turns == 1) {
                          pthread_setspecific(values->key, value);
                          return;
                      }
                      values->in_destructor.count_down();
                      values->may_end.wait();
                  }),
              0);
    ASSERT_EQ(zorvan_thread_create(
                  nullptr, nullptr,
                  +[](void* opaque) -> void* {
                      EXPECT_EQ(pthread_setspecific(static_cast<Values*>(opaque)->key, opaque), 0);
                      return nullptr;
                  },
                  &here),
              0);
    here.in_destructor.wait();
    EXPECT_EQ(zorvan_thread_count(), 1U);
    EXPECT_EQ(zorvan_thread_wait_all(0), 0);
    here.may_end.count_down();
    EXPECT_EQ(zorvan_thread_wait_all(60'000), 1);
    EXPECT_EQ(here.turns, 2);
    ASSERT_EQ(pthread_key_delete(here.key), 0);
}

std::atomic<int> signals_seen;

TEST_F(ThreadTest, SignalsDoNotShortenASleep) {
    constexpr int64_t kSleep = 200'000;
    struct sigaction counting{};
    counting.sa_handler = +[](int) { ++signals_seen; };
    struct sigaction old{};
    ASSERT_EQ(sigaction(SIGUSR1, &counting, &old), 0);
    signals_seen = 0;

    struct Sleeper {
        std::atomic<pthread_t> id{0};
        std::atomic<int64_t> slept{0};
        std::latch started{1};
        std::latch may_end{1};
    } sleeper;
    ASSERT_EQ(zorvan_thread_create(
                  nullptr, nullptr,
                  +[](void* opaque) -> void* {
                      auto* self = static_cast<Sleeper*>(opaque);
                      self->id = pthread_self();
                      self->started.count_down();
                      const int64_t before = monotonic_microseconds();
                      zorvan_libc_usleep(kSleep);
                      self->slept = monotonic_microseconds() - before;
                      self->may_end.wait();
                      return nullptr;
                  },
                  &sleeper),
              0);
    sleeper.started.wait();
    while (sleeper.slept == 0) {  // until the sleep is over, however long that takes
        ASSERT_EQ(pthread_kill(sleeper.id, SIGUSR1), 0);
        zorvan_libc_usleep(5'000);
    }
    EXPECT_GE(sleeper.slept, kSleep);
    EXPECT_GT(signals_seen, 0);
    sleeper.may_end.count_down();
    EXPECT_EQ(zorvan_thread_wait_all(60'000), 1);
    ASSERT_EQ(sigaction(SIGUSR1, &old, nullptr), 0);
}

}  // namespace
