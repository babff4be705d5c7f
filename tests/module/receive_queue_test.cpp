// The receive core by itself: the queue in offset order, the assertions, and what no upload can bring about.
#include <gtest/gtest.h>

#include <vector>

#include "receive.h"
#include "transfer_fixture.h"

using namespace module_test;

namespace {

class ReceiveQueue : public TransferTest {
  protected:
    static zorvan_i_s3_buffer_t* buffer(int64_t offset, uint64_t used) {
        constexpr size_t capacity = 64;
        auto* const made =
            static_cast<zorvan_i_s3_buffer_t*>(std::malloc(sizeof(zorvan_i_s3_buffer_t) + capacity));
        *made = {.capacity = capacity, .buffer_used = used, .offset = offset, .next = nullptr};
        return made;
    }
    /// The queue's buffers as (offset, bytes); it is empty afterwards.
    static std::vector<std::pair<int64_t, uint64_t>> drain(zorvan_i_s3_buffer_queue_t& queue) {
        std::vector<std::pair<int64_t, uint64_t>> found;
        while (auto* const head = queue.pop()) {
            EXPECT_EQ(head->next, nullptr);
            found.emplace_back(head->offset, head->buffer_used);
            std::free(head);
        }
        EXPECT_TRUE(queue.empty());
        EXPECT_EQ(queue.count(), 0);
        return found;
    }
    static zorvan_i_s3_receive_rules_t rules() {
        zorvan_i_s3_receive_rules_t rules{};
        rules.source_file = "recv_single";
        rules.read_line_end = "\n";
        rules.register_function = "r";
        rules.read_function = "f";
        return rules;
    }
};

using Places = std::vector<std::pair<int64_t, uint64_t>>;

TEST_F(ReceiveQueue, ABlockGoesBeforeTheFirstThatEndsBehindItsBeginning) {
    const std::vector<std::pair<Places, Places>> cases{
        {{{0, 10}, {10, 10}, {20, 10}}, {{0, 10}, {10, 10}, {20, 10}}},
        {{{20, 10}, {10, 10}, {0, 10}}, {{0, 10}, {10, 10}, {20, 10}}},
        {{{10, 10}, {20, 10}, {0, 10}}, {{0, 10}, {10, 10}, {20, 10}}},
        {{{0, 10}, {20, 10}, {10, 10}}, {{0, 10}, {10, 10}, {20, 10}}},
        // What ends where the new one begins stays before it; what reaches one byte further does not.
        {{{0, 10}, {10, 1}}, {{0, 10}, {10, 1}}},
        {{{0, 11}, {10, 1}}, {{10, 1}, {0, 11}}},
        // The same place twice: the newer first.
        {{{5, 2}, {5, 3}}, {{5, 3}, {5, 2}}},
    };
    for (const auto& [inserted, expected] : cases) {
        zorvan_i_s3_buffer_queue_t queue;
        for (const auto& [offset, used] : inserted)
            queue.insert_by_offset(buffer(offset, used));
        EXPECT_EQ(queue.count(), static_cast<int>(inserted.size()));
        EXPECT_EQ(drain(queue), expected);
    }
}

TEST_F(ReceiveQueue, AnEmptiedQueueBeginsAnew) {
    zorvan_i_s3_buffer_queue_t queue;
    EXPECT_EQ(queue.pop(), nullptr);
    for (int round = 0; round < 3; ++round) {
        queue.append(buffer(1, 1));
        queue.append(buffer(2, 1));
        EXPECT_EQ(drain(queue), (Places{{1, 1}, {2, 1}}));
        queue.insert_by_offset(buffer(4, 1));
        queue.append(buffer(3, 1));
        EXPECT_EQ(drain(queue), (Places{{4, 1}, {3, 1}}));
    }
    queue.append(buffer(5, 1));
    queue.free_all();
    EXPECT_EQ(queue.count(), 0);
    queue.append(buffer(6, 1));
    EXPECT_EQ(drain(queue), (Places{{6, 1}}));
}

TEST_F(ReceiveQueue, RegisteredBuffersAreFoundByTheirDataNewestFirst) {
    zorvan_i_s3_registered_list_t list;
    std::vector<zorvan_i_s3_buffer_t*> buffers{buffer(1, 0), buffer(2, 0), buffer(3, 0)};
    for (auto* const each : buffers)
        list.push(each);
    EXPECT_EQ(list.count(), 3);
    const unsigned char stranger = 0;
    EXPECT_EQ(list.take(&stranger), nullptr);
    EXPECT_EQ(list.count(), 3);
    for (const size_t i : {1u, 0u, 2u}) {
        EXPECT_FALSE(list.empty());
        EXPECT_EQ(list.take(buffers[i]->data()), buffers[i]);
        EXPECT_EQ(buffers[i]->next, nullptr);
        EXPECT_EQ(list.take(buffers[i]->data()), nullptr) << "it was taken";
        std::free(buffers[i]);
    }
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(list.count(), 0);
}

TEST_F(ReceiveQueue, LinesOfATake) {
    Operation op;
    zorvan_i_s3_receive_t state;
    const auto own = rules();
    state.rules = &own;
    state.op = &op;
    auto* const full = buffer(0, 10);
    state.pending.append(full);
    char room[8];
    const auto handle = "op=" + pointer_text(&op);
    {
        const zorvan_i_s3_trace_t trace("f");
        EXPECT_EQ(zorvan_i_s3_receive_data(trace, &state, sizeof room, room, zorvan_i_s3_unknown_size), 8);
        EXPECT_EQ(full->offset, 8);
        EXPECT_EQ(full->buffer_used, 2u);
        EXPECT_EQ(zorvan_i_s3_receive_data(trace, &state, sizeof room, room, zorvan_i_s3_unknown_size), 2);
    }
    EXPECT_EQ(state.current_offset, 10u);
    EXPECT_EQ(state.pool.free_list, full);
    EXPECT_EQ(full->offset, -1);
    EXPECT_EQ(full->buffer_used, 0u);
    EXPECT_TRUE(
        logged("TRACE", "f", "recv_single_data: " + handle + " buffer_size=8 buffer=" + pointer_text(room)));
    EXPECT_TRUE(logged("TRACE", "f", "partial_buffer_copy: " + handle + " bytes_copied=8"));
    EXPECT_TRUE(
        logged("TRACE", "f", "add_to_pending_buffers: " + handle + " s3_buffer=" + pointer_text(full)));
    op.finishes.emplace_back();
}

TEST_F(ReceiveQueue, LinesOfARegistration) {
    Operation op;
    op.hold();
    zorvan_i_s3_receive_t state;
    auto own = rules();
    own.read_callback = [](zorvan_gridftp_server_operation_t, zorvan_result_t, unsigned char* data, size_t,
                           zorvan_off_t, int, void* argument) {
        auto* const core = static_cast<zorvan_i_s3_receive_t*>(argument);
        const std::lock_guard lock(core->mutex);
        zorvan_i_s3_buffer_release(&core->pool, core->registered.take(data));
    };
    state.rules = &own;
    state.op = &op;
    state.pool.op = &op;
    EXPECT_EQ(zorvan_i_s3_receive_register_reads(&state), ZORVAN_SUCCESS);
    std::vector<std::string> told;
    for (const auto& line : log_lines())
        if (line.function == "r") told.push_back(line.level + " " + line.message);
    ASSERT_EQ(told.size(), 6u);
    for (const size_t i : {3u, 4u})
        EXPECT_EQ(told[i].find_first_not_of("0123456789abcdef", told[i].find("=0x") + 3), std::string::npos)
            << told[i];
    told[3].resize(told[3].find("=0x"));
    told[4].resize(told[4].find("=0x"));
    EXPECT_EQ(told, (std::vector<std::string>{
                        "TRACE enter", "TRACE Currently 0 blocks registered, 0 blocks pending",
                        "TRACE Optimal is 2 blocks", "TRACE Registering read with s3_buffer",
                        "TRACE Registering read with s3_buffer", "TRACE exit"}));
    op.finishes.emplace_back();
    op.close();
    EXPECT_TRUE(state.registered.empty());
}

TEST_F(ReceiveQueue, ABufferThatBringsNothingIsFreeAgain) {
    Operation op;
    for (const bool failed : {false, true}) {
        zorvan_i_s3_receive_t state;
        const auto own = rules();
        state.rules = &own;
        state.op = &op;
        state.size_limit = 100;
        if (failed) state.result = zorvan_i_s3_system_error(27, "write");
        auto* const made = buffer(-1, 0);
        state.registered.push(made);
        zorvan_i_s3_receive_read_completed(&state, ZORVAN_SUCCESS, made->data(), failed ? 7 : 0, 5, 0);
        EXPECT_TRUE(state.registered.empty());
        EXPECT_TRUE(state.pending.empty());
        EXPECT_EQ(state.pool.free_list, made);
        EXPECT_EQ(made->offset, failed ? 0 : -1);
        EXPECT_EQ(made->buffer_used, 0u);
        EXPECT_EQ(state.eof, failed);
        state.clear_outcome();
    }
    op.finishes.emplace_back();
}

TEST_F(ReceiveQueue, PropertiesAreRefusedWhenTheTransferHasFailed) {
    zorvan_i_s3_receive_t state;
    EXPECT_EQ(zorvan_i_s3_receive_properties("f", &state), S3StatusOK);
    EXPECT_TRUE(logged("TRACE", "f", "exit status=0: OK"));
    state.fail(zorvan_i_s3_system_error(27, "write"));
    EXPECT_EQ(zorvan_i_s3_receive_properties("f", &state), S3StatusInternalError);
    EXPECT_TRUE(logged("TRACE", "f", "exit status=1: InternalError"));
    state.clear_outcome();
}

TEST_F(ReceiveQueue, TheFirstErrorStaysAndEndsTheData) {
    zorvan_i_s3_receive_t state;
    const auto first = zorvan_i_s3_system_error(27, "write");
    state.fail(first);
    EXPECT_TRUE(state.eof);
    state.fail(zorvan_i_s3_system_error(12, "malloc"));
    EXPECT_EQ(state.result, first);
    state.fail(first);
    EXPECT_NE(zorvan_error_peek(first), nullptr) << "told again, it is no other error";
    state.clear_outcome();
}

TEST_F(ReceiveQueue, NoReadIsRegisteredAfterTheEndOrAFailure) {
    const auto own = rules();
    Operation op;
    for (const bool failed : {true, false}) {
        zorvan_i_s3_receive_t state;
        state.rules = &own;
        state.op = &op;
        state.pool.op = &op;
        if (failed)
            state.result = zorvan_i_s3_system_error(27, "write");
        else
            state.eof = true;
        EXPECT_EQ(zorvan_i_s3_receive_register_reads(&state), ZORVAN_SUCCESS);
        state.clear_outcome();
    }
    EXPECT_EQ(trace_count("register_read"), 0);
    op.finishes.emplace_back();
}

using ReceiveQueueDeathTest = ReceiveQueue;

TEST_F(ReceiveQueueDeathTest, ABufferToBeRegisteredIsEmpty) {
    const auto own = rules();
    Operation op;
    EXPECT_DEATH(
        {
            zorvan_i_s3_receive_t state;
            state.rules = &own;
            state.op = &op;
            state.pool.op = &op;
            state.pool.current = buffer(0, 1);
            zorvan_i_s3_receive_register_reads(&state);
        },
        "Assertion buffer->buffer_used == 0 failed in file recv_single at line [0-9]+\n");
    op.finishes.emplace_back();
}

TEST_F(ReceiveQueueDeathTest, ABufferInTheQueueHoldsBytes) {
    const auto own = rules();
    Operation op;
    char room[8];
    EXPECT_DEATH(
        {
            zorvan_i_s3_receive_t state;
            state.rules = &own;
            state.op = &op;
            state.pending.append(buffer(0, 0));
            const zorvan_i_s3_trace_t trace("f");
            zorvan_i_s3_receive_data(trace, &state, sizeof room, room, zorvan_i_s3_unknown_size);
        },
        "Assertion to_copy > 0 failed in file recv_single at line [0-9]+\n");
    op.finishes.emplace_back();
}

}  // namespace
