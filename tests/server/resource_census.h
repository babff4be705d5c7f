// Counts what a process holds - descriptors, threads, error objects, files in a directory - so that every
// test can assert that it left nothing behind.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <zorvan_common.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "host.h"

namespace zorvan::gridftp::testing_support {

/// Counted when it is made; check_nothing_added() compares.
class resource_census {
  public:
    /// Everything that the test made must be gone: call it last. Threads that are detached may need a moment
    /// after their last deed.
    void check_nothing_added() const {
        EXPECT_EQ(zorvan_error_table_count(), errors_);
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds{30};
        while (entries_of("/proc/self/task") > threads_ && std::chrono::steady_clock::now() < limit) {
            std::this_thread::yield();
        }
        EXPECT_LE(entries_of("/proc/self/task"), threads_);
        EXPECT_EQ(entries_of("/proc/self/fd"), descriptors_);
    }

  private:
    static std::size_t entries_of(const char* directory) {
        std::error_code ignored;
        const std::filesystem::directory_iterator all(directory, ignored);
        return static_cast<std::size_t>(std::distance(begin(all), end(all)));
    }
    const std::size_t errors_ = zorvan_error_table_count();
    // The thread sanitizer begins a thread of its own beside the first one of the program's.
    static std::size_t threads_now() {
#ifdef __SANITIZE_THREAD__
        std::thread([] {}).join();
#endif
        return entries_of("/proc/self/task");
    }
    const std::size_t threads_ = threads_now();
    const std::size_t descriptors_ = entries_of("/proc/self/fd");
};

/// A directory of the test's own, which must be empty again at the end.
class empty_directory {
  public:
    empty_directory() {
        path_ = ::testing::TempDir() + "zorvan-test-XXXXXX";
        if (::mkdtemp(path_.data()) == nullptr) {
            ADD_FAILURE() << "mkdtemp " << path_;
        }
    }
    empty_directory(const empty_directory&) = delete;
    empty_directory& operator=(const empty_directory&) = delete;
    ~empty_directory() {
        std::error_code ignored;
        EXPECT_TRUE(std::filesystem::is_empty(path_, ignored)) << path_;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

/// No session, operation, lent buffer, spooled byte, lock or thread of the pool inside a back end.
inline void expect_nothing_alive(const host_counters& counts) {
    EXPECT_EQ(counts.sessions, 0U);
    EXPECT_EQ(counts.operations, 0U);
    EXPECT_EQ(counts.callbacks, 0U);
    EXPECT_EQ(counts.spool_bytes, 0U);
    EXPECT_EQ(counts.receive_locks, 0U);
}

}  // namespace zorvan::gridftp::testing_support
