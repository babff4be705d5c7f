// Many requests, many threads, and the library's life while they run: nothing grows, nothing is left over.
#include <dirent.h>
#include <malloc.h>

#include <atomic>
#include <barrier>
#include <cstdio>
#include <iostream>
#include <thread>

#include "fast_server.h"
#include "options.h"
#include "pool.h"
#include "recorder.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Part of the sanitizers' runtime; g++ ships no header for it.
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kManyRequests = 10'000;
size_t bytes_in_use() {
    return __sanitizer_get_current_allocated_bytes();
}
#else
constexpr int kManyRequests = 100'000;
size_t bytes_in_use() {
    return mallinfo2().uordblks;
}
#endif

int open_descriptors() {
    DIR* const folder = opendir("/proc/self/fd");
    int count = 0;
    while (folder != nullptr && readdir(folder) != nullptr)
        ++count;
    if (folder != nullptr) closedir(folder);
    return count;
}

// Handlers that count and keep nothing, so that whatever grows is the library's.
struct Count {
    std::atomic<int> completed = 0;
    std::atomic<int> as_expected = 0;
    std::atomic<int> unready = 0;
    S3Status expected = S3StatusOK;
};

S3Status on_properties(const S3ResponseProperties*, void*) {
    return S3StatusOK;
}
void on_complete(S3Status status, const S3ErrorDetails*, void* data) {
    auto& count = *static_cast<Count*>(data);
    ++count.completed;
    if (status == count.expected) ++count.as_expected;
    if (status == S3StatusFailedToInitializeRequest) ++count.unready;
}
S3Status on_data(int, const char*, void*) {
    return S3StatusOK;
}
int on_body(int size, char* buffer, void*) {
    std::memset(buffer, 'b', static_cast<size_t>(size));
    return size;
}
S3Status on_page(int, const char*, int, const S3ListBucketContent*, int, const char**, void*) {
    return S3StatusOK;
}

constexpr S3ResponseHandler kResponse{&on_properties, &on_complete};
constexpr S3GetObjectHandler kGet{kResponse, &on_data};
constexpr S3PutObjectHandler kPut{kResponse, &on_body};
constexpr S3ListBucketHandler kList{kResponse, &on_page};

class Endurance : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(S3_initialize("endurance", S3_INIT_ALL, host_.c_str()), S3StatusOK); }
    void TearDown() override { S3_deinitialize(); }

    // One request; which one follows from number.
    void request(int number, Count& count) const {
        S3BucketContext where{};
        where.hostName = host_.c_str();
        where.bucketName = "bucket";
        where.protocol = S3ProtocolHTTP;
        where.uriStyle = S3UriStylePath;
        where.accessKeyId = "A";
        where.secretAccessKey = "S";
        switch (number % 6) {
            case 0:
                return S3_head_object(&where, "key", nullptr, 0, &kResponse, &count);
            case 1:
                return S3_put_object(&where, "key", 100, nullptr, nullptr, 0, &kPut, &count);
            case 2:
                return S3_get_object(&where, "key", nullptr, 0, 0, nullptr, 0, &kGet, &count);
            case 3:
                return S3_delete_object(&where, "key", nullptr, 0, &kResponse, &count);
            case 4:
                return S3_list_bucket(&where, nullptr, nullptr, "/", 0, nullptr, 0, &kList, &count);
            default: {
                Count missing;
                missing.expected = S3StatusErrorNoSuchKey;
                S3_get_object(&where, "error", nullptr, 0, 0, nullptr, 0, &kGet, &missing);
                ++count.completed;
                if (missing.as_expected == 1) ++count.as_expected;
            }
        }
    }

    s3test::FastServer server_;
    std::string host_ = server_.host();
};

TEST_F(Endurance, ManyRequestsLeaveNothingBehind) {
    Count count;
    for (int i = 0; i < 600; ++i)
        request(i, count);
    const size_t bytes_before = bytes_in_use();
    const int descriptors_before = open_descriptors();
    for (int i = 0; i < kManyRequests; ++i)
        request(i, count);
    EXPECT_EQ(open_descriptors(), descriptors_before);
    // Half of what a leak of 16 bytes per request would come to.
    const size_t bytes_after = bytes_in_use();
    EXPECT_LT(bytes_after, bytes_before + size_t{kManyRequests} * 16 / 2);
    EXPECT_EQ(count.completed, kManyRequests + 600);
    EXPECT_EQ(count.as_expected, kManyRequests + 600);
    EXPECT_EQ(server_.requests(), kManyRequests + 600);
    EXPECT_EQ(server_.connections(), 1);
    std::cout << kManyRequests << " requests, " << static_cast<long>(bytes_after - bytes_before)
              << " bytes more in use, " << open_descriptors() - descriptors_before << " descriptors more\n";
}

TEST_F(Endurance, NoMoreConnectionsThanActiveRequests) {
    constexpr int kThreads = 64;
    constexpr int kRounds = 30;
    Count count;
    std::barrier together(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                together.arrive_and_wait();
                request(t + i, count);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(count.as_expected, kThreads * kRounds);
    EXPECT_EQ(server_.requests(), kThreads * kRounds);
    EXPECT_LE(server_.connections(), kThreads);
    const size_t idle = s3::library_state(host_).pool->idle_count();
    EXPECT_EQ(idle, static_cast<size_t>(server_.connections()));
    // A few at once afterwards take from what is there.
    const int connections = server_.connections();
    for (int i = 0; i < 100; ++i)
        request(i, count);
    EXPECT_EQ(server_.connections(), connections);
}

// Between an end and a beginning there is no library to run a request; that is all that may go wrong.
TEST_F(Endurance, TheLibraryEndsAndBeginsWhileRequestsRun) {
    constexpr int kThreads = 8;
    constexpr int kRequests = 200;
    Count count;
    std::atomic<int> refused_beginnings = 0;
    std::atomic<int> running = kThreads;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRequests; ++i)
                request((t + i) % 5, count);
            --running;
        });
    }
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&] {
            while (running > 0) {
                S3_deinitialize();
                if (S3_initialize(nullptr, S3_INIT_ALL, host_.c_str()) != S3StatusOK) ++refused_beginnings;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(refused_beginnings, 0);
    EXPECT_EQ(count.completed, kThreads * kRequests);
    EXPECT_EQ(count.as_expected + count.unready, kThreads * kRequests);
    Count last;
    request(0, last);
    EXPECT_EQ(last.as_expected, 1);
}

TEST_F(Endurance, EndingAndBeginningLeavesNothingBehind) {
    const auto life = [&] {
        Count count;
        request(2, count);
        EXPECT_EQ(count.as_expected, 1);
        S3_deinitialize();
        ASSERT_EQ(S3_initialize("endurance", S3_INIT_ALL, host_.c_str()), S3StatusOK);
    };
    // So many that what a connection thread of the server still holds while it ends does not matter.
    constexpr int kLives = 4000;
    for (int i = 0; i < 20; ++i)
        life();
    server_.wait_until_all_left();
    const int descriptors = open_descriptors();
    const size_t bytes = bytes_in_use();
    for (int i = 0; i < kLives; ++i)
        life();
    server_.wait_until_all_left();
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_LT(bytes_in_use(), bytes + size_t{kLives} * 16 / 2);
}

}  // namespace
