// The buffer pool of a transfer.
#include <cerrno>
#include <cstdint>

#include "module_fixture.h"

using namespace module_test;

namespace {

class BufferPool : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        activate();
        op.block_size = 262144;
        pool.op = &op;
    }
    void TearDown() override {
        if (pool.current != nullptr) zorvan_i_s3_buffer_release(&pool, std::exchange(pool.current, nullptr));
        zorvan_i_s3_buffer_free_list(&pool.free_list);
        EXPECT_EQ(pool.free_list, nullptr);
        op.finishes.emplace_back();  // this operation is no operation of the module's
        ModuleTest::TearDown();
    }
    zorvan_i_s3_buffer_t* take(uint64_t size) {
        const InModule inside;
        return zorvan_i_s3_buffer_get(&pool, size);
    }
    Operation op;
    zorvan_i_s3_buffer_pool_t pool;
};

TEST_F(BufferPool, DataFollowsTheHeaderWithoutAGap) {
    auto* buffer = take(1);
    EXPECT_EQ(static_cast<void*>(buffer->data()), static_cast<void*>(buffer + 1));
    EXPECT_EQ(sizeof *buffer, 32u);
}

TEST_F(BufferPool, SmallRequestsGetABlock) {
    auto* buffer = take(1);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->capacity, 262144u);
    EXPECT_EQ(buffer->buffer_used, 0u);
    EXPECT_EQ(buffer->offset, -1);
    EXPECT_EQ(buffer->next, nullptr);
    EXPECT_EQ(pool.current, buffer);
    EXPECT_TRUE(logged("TRACE", "zorvan_i_s3_buffer_get", "no current buffer"));
    EXPECT_TRUE(logged("TRACE", "zorvan_i_s3_buffer_get", "no free buffers"));
    EXPECT_TRUE(logged("TRACE", "requested_size=1 optimal_size=262144"));
    EXPECT_TRUE(logged("DEBUG", "new_buffer=" + pointer_text(buffer) +
                                    " size=262144 buffer=" + pointer_text(buffer->data())))
        << log_text();
}

TEST_F(BufferPool, LargeRequestsGetExactlyWhatTheyAskFor) {
    auto* buffer = take(300001);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->capacity, 300001u);
    EXPECT_FALSE(log_holds("requested_size="));
    buffer->data()[300000] = 7;  // the address sanitizer guards what lies behind
}

TEST_F(BufferPool, RequestOfABlockIsNotCalledSmaller) {
    auto* buffer = take(262144);
    EXPECT_EQ(buffer->capacity, 262144u);
    EXPECT_FALSE(log_holds("requested_size="));
}

TEST_F(BufferPool, SecondCallReturnsTheSameBuffer) {
    auto* buffer = take(1);
    EXPECT_EQ(take(999999), buffer);
    EXPECT_EQ(buffer->capacity, 262144u);
}

TEST_F(BufferPool, ReleasedBufferComesBackEmptyWithItsCapacity) {
    auto* buffer = take(300000);
    buffer->buffer_used = 55;
    pool.current = nullptr;
    zorvan_i_s3_buffer_release(&pool, buffer);
    EXPECT_EQ(pool.free_list, buffer);
    EXPECT_EQ(take(1), buffer);
    EXPECT_EQ(buffer->buffer_used, 0u);
    EXPECT_EQ(buffer->capacity, 300000u);
    EXPECT_EQ(buffer->next, nullptr);
    EXPECT_EQ(pool.free_list, nullptr);
}

TEST_F(BufferPool, ReusedBufferIsNotEnlarged) {
    auto* buffer = take(1);
    pool.current = nullptr;
    zorvan_i_s3_buffer_release(&pool, buffer);
    EXPECT_EQ(take(9999999), buffer);
    EXPECT_EQ(buffer->capacity, 262144u);
}

TEST_F(BufferPool, FreeListIsLastInFirstOut) {
    auto* first = take(1);
    pool.current = nullptr;
    auto* second = take(1);
    pool.current = nullptr;
    EXPECT_NE(first, second);
    zorvan_i_s3_buffer_release(&pool, first);
    zorvan_i_s3_buffer_release(&pool, second);
    EXPECT_EQ(take(1), second);
    EXPECT_EQ(second->next, nullptr);
    pool.current = nullptr;
    EXPECT_EQ(take(1), first);
    pool.current = nullptr;
    zorvan_i_s3_buffer_release(&pool, first);
    zorvan_i_s3_buffer_release(&pool, second);
}

TEST_F(BufferPool, FailedAllocationIsNullAndLogged) {
    fail_allocations_from(1000);
    EXPECT_EQ(take(1), nullptr);
    fail_allocations_from(0);
    EXPECT_EQ(pool.current, nullptr);
    EXPECT_EQ(pool.free_list, nullptr);
    EXPECT_TRUE(logged("WARN", "zorvan_i_s3_buffer_get", "error allocating buffer"));
    EXPECT_NE(take(1), nullptr);
}

TEST_F(BufferPool, LargestSizesDoNotOverflow) {
    EXPECT_EQ(take(UINT64_MAX), nullptr);
    EXPECT_EQ(pool.current, nullptr);
    EXPECT_TRUE(logged("WARN", "error allocating buffer"));
    EXPECT_TRUE(log_says("new_buffer=(nil) size=-33 buffer=(nil)\n")) << "2^64 - 33: " << log_text();
}

using BufferPoolDeathTest = BufferPool;

TEST_F(BufferPoolDeathTest, ReleaseOfNullIsAnAssertion) {
    EXPECT_DEATH(zorvan_i_s3_buffer_release(&pool, nullptr),
                 "Assertion s3_buffer != NULL failed in file buffer_release at line [0-9]+\n");
}

}  // namespace
