// Downloads at the data storage interface: order, refusals, errors, and when the client is told what.
#include "core_fixture.h"

using namespace zorvan::gridftp;
using namespace zorvan::gridftp::testing_support;

namespace {

class send : public core_test {
  protected:
    static send_request whole(std::string path = "/bucket/file") {
        send_request request;
        request.path = std::move(path);
        return request;
    }
    recorder writes;
};

TEST_F(send, writes_go_out_in_the_order_of_registration) {
    log_in();
    const auto data = pattern(40'000);
    the_script().send = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        for (std::size_t at = 0; at < data.size(); at += 1000) {
            EXPECT_EQ(writes.write(op, data.substr(at, 1000), static_cast<std::int64_t>(at)), ZORVAN_SUCCESS);
        }
        for (const auto& call : writes.wait(40)) {
            EXPECT_FALSE(call.failed);
            EXPECT_EQ(call.bytes, 1000u);
        }
        EXPECT_EQ(writes.data(), data);
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
        EXPECT_NE(writes.write(op, "late", 0), ZORVAN_SUCCESS);
    };
    auto client = connector.open();
    auto outcome = start_send(whole());
    bool clean = false;
    EXPECT_EQ(client->read_all(&clean), data);
    EXPECT_TRUE(clean);
    const auto result = result_of(std::move(outcome));
    EXPECT_FALSE(result.error);
    EXPECT_EQ(result.bytes, data.size());
    EXPECT_EQ(events.announced, 1);
}

TEST_F(send, what_is_registered_at_the_finish_still_goes_out) {
    log_in();
    const auto data = pattern(3'000'000);
    the_script().send = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        EXPECT_EQ(writes.write(op, data, 0), ZORVAN_SUCCESS);
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
    };
    auto client = connector.open();
    auto outcome = start_send(whole());
    EXPECT_EQ(client->read_all(), data);
    EXPECT_FALSE(result_of(std::move(outcome)).error);
    EXPECT_FALSE(writes.wait(1).front().failed);
}

TEST_F(send, ranges_come_one_after_the_other_and_then_none) {
    log_in();
    std::vector<byte_range> seen;
    the_script().send = [&](op_handle op, auto) {
        for (int i = 0; i < 4; ++i) {
            byte_range range;
            EXPECT_EQ(zorvan_gridftp_server_get_read_range(op, &range.offset, &range.length), ZORVAN_SUCCESS);
            seen.push_back(range);
        }
        zorvan_gridftp_server_finished_transfer(op, new_error());
    };
    auto request = whole();
    request.ranges = {{5, 10}, {100, -1}};
    result_of(start_send(request));
    ASSERT_EQ(seen.size(), 4u);
    EXPECT_EQ(seen[0].offset, 5);
    EXPECT_EQ(seen[0].length, 10);
    EXPECT_EQ(seen[1].offset, 100);
    EXPECT_EQ(seen[1].length, -1);
    EXPECT_EQ(seen[2].length, 0);
    EXPECT_EQ(seen[3].offset, 0);
}

TEST_F(send, an_error_before_the_first_block_announces_nothing) {
    log_in();
    the_script().send = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        zorvan_gridftp_server_finished_command(op, new_error("no such object"), nullptr);
    };
    auto client = connector.open();
    const auto result = result_of(start_send(whole()));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->origin, error_origin::back_end);
    EXPECT_EQ(result.error->friendly_lines, std::vector<std::string>{"no such object"});
    EXPECT_EQ(events.announced, 0);
    EXPECT_FALSE(result.store_confirmed);
}

TEST_F(send, an_empty_object_is_announced_and_ends_cleanly) {
    log_in();
    the_script().send = [](op_handle op, auto) {
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
    };
    auto client = connector.open();
    auto outcome = start_send(whole());
    bool clean = false;
    EXPECT_EQ(client->read_all(&clean), "");
    EXPECT_TRUE(clean);
    EXPECT_FALSE(result_of(std::move(outcome)).error);
    EXPECT_EQ(events.announced, 1);
}

TEST_F(send, a_failure_in_the_middle_never_looks_like_the_end) {
    log_in();
    the_script().send = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        EXPECT_EQ(writes.write(op, pattern(1000), 0), ZORVAN_SUCCESS);
        writes.wait(1);
        zorvan_gridftp_server_finished_transfer(op, new_error("the store went away"));
    };
    auto client = connector.open();
    auto outcome = start_send(whole());
    bool clean = true;
    client->read_all(&clean);
    EXPECT_FALSE(clean);
    const auto result = result_of(std::move(outcome));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->friendly_lines, std::vector<std::string>{"the store went away"});
}

TEST_F(send, writes_in_flight_are_called_back_when_the_client_goes) {
    log_in();
    flag registered;
    zorvan_result_t refused = ZORVAN_SUCCESS;
    the_script().send = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        // More than the sockets' buffers take.
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(writes.write(op, std::string(16 << 20, 'x'), 0), ZORVAN_SUCCESS);
        }
        registered.raise();
        const auto calls = writes.wait(3);
        EXPECT_TRUE(calls.back().failed);
        EXPECT_EQ(calls.back().bytes, 0u);
        refused = writes.write(op, "more", 0);
        EXPECT_NE(refused, ZORVAN_SUCCESS);
        EXPECT_NE(zorvan_error_peek(refused), nullptr);
        zorvan_gridftp_server_finished_transfer(op, refused);
    };
    auto client = connector.open();
    auto outcome = start_send(whole());
    EXPECT_EQ(client->read_exactly(1000).size(), 1000u);
    registered.wait();
    client->reset();
    const auto result = result_of(std::move(outcome));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->origin, error_origin::data_channel);
    EXPECT_EQ(result.error->ftp_code, 426);
    EXPECT_EQ(writes.calls().size(), 3u) << "a refused write has no callback";
}

TEST_F(send, an_abort_fails_what_is_in_flight) {
    log_in();
    the_script().send = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        EXPECT_EQ(writes.write(op, std::string(64 << 20, 'x'), 0), ZORVAN_SUCCESS);
        EXPECT_TRUE(writes.wait(1).front().failed);
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
    };
    auto client = connector.open();
    auto outcome = start_send(whole());
    EXPECT_EQ(client->read_exactly(1000).size(), 1000u);
    abort();
    const auto result = result_of(std::move(outcome));
    ASSERT_TRUE(result.error) << "the worse outcome counts";
    EXPECT_EQ(result.error->ftp_code, 426);
    EXPECT_TRUE(result.aborted);
}

TEST_F(send, a_back_end_error_unsticks_a_slow_client) {
    log_in();
    the_script().send = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        EXPECT_EQ(writes.write(op, std::string(64 << 20, 'x'), 0), ZORVAN_SUCCESS);
        while (events.announced == 0) {
            std::this_thread::yield();
        }
        zorvan_gridftp_server_finished_transfer(op, new_error("gone"));
        EXPECT_TRUE(writes.wait(1).front().failed);
    };
    auto client = connector.open();  // which reads nothing
    const auto result = result_of(start_send(whole()));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->friendly_lines, std::vector<std::string>{"gone"});
}

TEST_F(send, a_connection_that_cannot_be_opened_refuses_the_writes) {
    log_in();
    the_script().send = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        // The first may be accepted, while the connect is still going on.
        if (writes.write(op, "data", 0) == ZORVAN_SUCCESS) {
            EXPECT_TRUE(writes.wait(1).front().failed);
        }
        EXPECT_NE(writes.write(op, "data", 0), ZORVAN_SUCCESS);
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
    };
    connector.fail_with(425, "Connection refused.");
    const auto result = result_of(start_send(whole()));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->ftp_code, 425);
    EXPECT_EQ(events.announced, 0);
}

TEST_F(send, a_client_that_takes_nothing_is_cut) {
    config.data_stall = 200ms;
    log_in();
    the_script().send = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        EXPECT_EQ(writes.write(op, std::string(64 << 20, 'x'), 0), ZORVAN_SUCCESS);
        EXPECT_TRUE(writes.wait(1).front().failed);
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
    };
    auto client = connector.open();
    const auto result = result_of(start_send(whole()));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->ftp_code, 426);
}

TEST_F(send, a_slow_store_is_not_a_stalled_client) {
    config.data_stall = 100ms;
    log_in();
    flag go_on;
    the_script().send = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        EXPECT_EQ(writes.write(op, "first", 0), ZORVAN_SUCCESS);
        go_on.wait();
        EXPECT_EQ(writes.write(op, "second", 5), ZORVAN_SUCCESS);
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
    };
    auto client = connector.open();
    auto outcome = start_send(whole());
    EXPECT_EQ(client->read_exactly(5), "first");
    EXPECT_EQ(outcome.wait_for(500ms), std::future_status::timeout);
    go_on.raise();
    EXPECT_EQ(client->read_all(), "second");
    EXPECT_FALSE(result_of(std::move(outcome)).error);
}

TEST_F(send, a_reply_that_cannot_be_sent_fails_the_transfer_and_waits_for_its_end) {
    log_in();
    std::atomic<bool> finished{false};
    the_script().send = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        EXPECT_EQ(writes.write(op, "data", 0), ZORVAN_SUCCESS);
        EXPECT_TRUE(writes.wait(1).front().failed);
        finished = true;
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
    };
    events.broken = true;
    auto client = connector.open();
    const auto result = result_of(start_send(whole()));
    EXPECT_TRUE(finished);
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->ftp_code, 426);
}

TEST_F(send, one_thread_serves_one_operation_at_a_time) {
    log_in();
    static std::atomic<int> inside;  // the last callback may end after the transfer
    inside = 0;
    the_script().send = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        writes.in_callback = [&](const called&) {
            EXPECT_EQ(++inside, 1);
            std::this_thread::yield();
            --inside;
        };
        for (int i = 0; i < 200; ++i) {
            EXPECT_EQ(writes.write(op, std::string(100, static_cast<char>('a' + i % 26)), i * 100),
                      ZORVAN_SUCCESS);
        }
        writes.wait(200);
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
    };
    auto client = connector.open();
    auto outcome = start_send(whole());
    const auto received = client->read_all();
    EXPECT_EQ(received, writes.data());
    EXPECT_FALSE(result_of(std::move(outcome)).error);
}

}  // namespace
