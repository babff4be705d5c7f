// The error table under many threads. The thread sanitizer sees what these assertions cannot.

#include <array>
#include <atomic>
#include <thread>
#include <vector>

#include "support.h"

namespace {

using zorvan::test::consume;
using zorvan::test::friendly;
using zorvan::test::generic_error;

constexpr int kThreads = 8;

class ErrorThreadsTest : public zorvan::test::CommonTest {
  protected:
    template <class Body>
    static void run(Body body) {
        std::vector<std::thread> threads;
        for (int index = 0; index < kThreads; ++index) {
            threads.emplace_back(body, index);
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
};

TEST_F(ErrorThreadsTest, EveryThreadGetsItsOwnObjectsBack) {
    std::atomic<int> wrong = 0;
    run([&wrong](int index) {
        for (int round = 0; round < 500; ++round) {
            const std::string text = std::to_string(index) + "/" + std::to_string(round);
            zorvan_error_t* error = generic_error(text.c_str());
            const zorvan_result_t result = zorvan_error_put(error);
            if (zorvan_error_peek(result) != error) ++wrong;
            if (zorvan_error_table_count() == 0) ++wrong;
            if (consume(result) != text) ++wrong;
            if (zorvan_error_peek(result) != nullptr) ++wrong;
        }
    });
    EXPECT_EQ(wrong, 0);
}

TEST_F(ErrorThreadsTest, OneTakerWinsAnObject) {
    constexpr int kObjects = 200;
    std::vector<zorvan_result_t> results;
    for (int i = 0; i < kObjects; ++i) {
        results.push_back(zorvan_error_put(generic_error("raced for")));
    }
    std::atomic<int> taken = 0;
    run([&](int /*index*/) {
        for (const zorvan_result_t result : results) {
            if (zorvan_error_t* error = zorvan_error_get(result)) {
                ++taken;
                zorvan_error_free(error);
            }
        }
    });
    EXPECT_EQ(taken, kObjects);
}

TEST_F(ErrorThreadsTest, ObjectsMadeOnOneThreadAreReadOnAnother) {
    std::array<std::atomic<zorvan_result_t>, kThreads> slots{};
    std::atomic<int> wrong = 0;
    run([&](int index) {
        const auto mine = static_cast<size_t>(index);
        const size_t next = (mine + 1) % kThreads;
        slots[mine] =
            zorvan_error_put(generic_error("handed over", zorvan_i_gfs_error_system(nullptr, 5, "x")));
        slots[mine].notify_all();
        slots[next].wait(0);
        zorvan_error_t* error = zorvan_error_get(slots[next]);
        if (friendly(error) != "handed over\nx: Input/output error") ++wrong;
        zorvan_error_free(error);
    });
    EXPECT_EQ(wrong, 0);
}

}  // namespace
