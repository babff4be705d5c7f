// Back ends that break the rules of the data storage interface, or go to their limits: the server keeps its
// promises to them, its other sessions and itself. That nothing is left over is asserted by the fixture.
#include <sys/stat.h>

#include <cerrno>

#include "core_fixture.h"

using namespace zorvan::gridftp;
using namespace zorvan::gridftp::testing_support;

namespace {

class hostile_backend : public core_test {
  protected:
    struct quiet final : progress_sink {
        task<void> progress(std::string_view text) override {
            texts.emplace_back(text);
            co_return;
        }
        std::vector<std::string> texts;
    };

    command_outcome run_command() {
        quiet sink;
        return result_of(start(session->command({}, sink)));
    }
    std::unique_ptr<backend_session> another_session(const asio::any_io_executor& on) {
        auto outcome = asio::co_spawn(
            on, backend_session::start(promise_module(), *shared, on, {"other", "127.0.0.1", "", {}, {}}),
            asio::use_future);
        ++expected_destroys;
        return result_of(std::move(outcome)).session;
    }
    static send_request whole() { return {"/bucket/file", {{}}}; }

    recorder buffers;
};

// ------------------------------------------------------------------ finishing

TEST_F(hostile_backend, finishes_every_kind_twice_with_the_same_and_with_other_results) {
    log_in();
    const auto finish_often = [](op_handle op) {
        const auto first = new_error("first");
        zorvan_gridftp_server_finished_transfer(op, first);
        zorvan_gridftp_server_finished_transfer(op, first);
        zorvan_gridftp_server_finished_command(op, new_error("second"), "text");
        zorvan_gridftp_server_finished_stat(op, ZORVAN_SUCCESS, nullptr, 0);
        zorvan_gridftp_server_finished_session_start(op, ZORVAN_FAILURE, session_value(), "x", "y");
    };
    the_script().stat = [&](op_handle op, auto) { finish_often(op); };
    the_script().command = [&](op_handle op, auto) { finish_often(op); };
    the_script().send = [&](op_handle op, auto) { finish_often(op); };
    the_script().recv = [&](op_handle op, auto) { finish_often(op); };
    const std::vector<std::string> first{"first"};
    collecting_stat_sink sink;
    EXPECT_EQ(result_of(start(session->stat("/", true, sink))).error->friendly_lines, first);
    EXPECT_EQ(run_command().error->friendly_lines, first);
    EXPECT_EQ(result_of(start_send(whole())).error->friendly_lines, first);
    EXPECT_EQ(result_of(start_receive(sized(10))).error->friendly_lines, first);
    settle_threads();
}

TEST_F(hostile_backend, starts_a_session_twice) {
    shared = std::make_unique<host>(config, io.get_executor());
    the_script().session_start = [](op_handle op, auto) {
        zorvan_gridftp_server_finished_session_start(op, ZORVAN_SUCCESS, session_value(), nullptr, nullptr);
        zorvan_gridftp_server_finished_session_start(op, new_error("no"), nullptr, nullptr, nullptr);
    };
    log_in();
}

TEST_F(hostile_backend, twenty_threads_finish_one_operation) {
    log_in();
    std::atomic<int> ready{0};
    the_script().command = [&](op_handle op, auto) {
        std::vector<std::thread> threads;
        for (int i = 0; i < 20; ++i) {
            threads.emplace_back([&ready, op, i] {
                ++ready;
                while (ready < 20) {
                    std::this_thread::yield();
                }
                if (i % 2 == 0) {
                    zorvan_gridftp_server_finished_command(op, ZORVAN_SUCCESS, std::to_string(i).c_str());
                } else {
                    zorvan_gridftp_server_finished_transfer(op, new_error(std::to_string(i).c_str()));
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
    };
    const auto outcome = run_command();
    EXPECT_NE(outcome.error.has_value(), outcome.text.has_value()) << "one of them, whole";
    settle_threads();
}

TEST_F(hostile_backend, registers_after_finishing) {
    log_in();
    the_script().recv = [&](op_handle op, auto) {
        zorvan_gridftp_server_finished_transfer(op, new_error());
        for (int i = 0; i < 10; ++i) {
            const auto refused = buffers.read(op, 100);
            EXPECT_NE(refused, ZORVAN_SUCCESS);
            EXPECT_NE(zorvan_error_peek(refused), nullptr) << "it says why";
        }
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
    };
    the_script().send = [&](op_handle op, auto) {
        zorvan_gridftp_server_finished_transfer(op, new_error());
        EXPECT_NE(buffers.write(op, "late", 0), ZORVAN_SUCCESS);
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
    };
    EXPECT_TRUE(result_of(start_receive(sized(10))).error);
    EXPECT_TRUE(result_of(start_send(whole())).error);
    settle_threads();
    EXPECT_TRUE(buffers.calls().empty());
    EXPECT_EQ(connector.connects, 0);
}

TEST_F(hostile_backend, registers_on_operations_that_move_no_data) {
    log_in();
    the_script().command = [&](op_handle op, auto) {
        EXPECT_NE(buffers.read(op, 100), ZORVAN_SUCCESS);
        EXPECT_NE(buffers.write(op, "data", 0), ZORVAN_SUCCESS);
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        zorvan_gridftp_server_finished_stat_partial(op, new_error("not here"), nullptr, 3);
        zorvan_off_t offset = 0;
        zorvan_off_t length = 0;
        EXPECT_EQ(zorvan_gridftp_server_get_read_range(op, &offset, &length), ZORVAN_FAILURE);
        EXPECT_EQ(zorvan_gridftp_server_get_write_range(op, &offset, &length), ZORVAN_FAILURE);
        zorvan_gridftp_server_finished_command(op, ZORVAN_SUCCESS, "done");
    };
    EXPECT_EQ(run_command().text, "done");
    the_script().send = [&](op_handle op, auto) {
        EXPECT_NE(buffers.read(op, 100), ZORVAN_SUCCESS) << "a read on a send";
        EXPECT_EQ(
            zorvan_gridftp_server_register_write(op, nullptr, 1, 0, -1, nullptr, nullptr) == ZORVAN_SUCCESS,
            false)
            << "nobody to call back";
        zorvan_gridftp_server_finished_transfer(op, new_error());
    };
    EXPECT_TRUE(result_of(start_send(whole())).error);
    settle_threads();
}

// The reply follows the operation; what is refused with an error of the server's own may come back as the
// outcome, and still be good for a callback that comes later.
TEST_F(hostile_backend, hands_a_refusal_back_while_a_read_is_outstanding) {
    log_in();
    the_script().recv = [&](op_handle op, auto) {
        EXPECT_EQ(buffers.read(op, 100), ZORVAN_SUCCESS);
        const auto refused = zorvan_gridftp_server_register_read(op, nullptr, 0, nullptr, nullptr);
        EXPECT_NE(refused, ZORVAN_SUCCESS);
        buffers.in_callback = [refused](const called& call) {
            EXPECT_TRUE(call.failed);
            EXPECT_NE(zorvan_error_peek(refused), nullptr) << "it lives as long as the operation";
        };
        zorvan_gridftp_server_finished_transfer(op, refused);
        buffers.wait(1);
    };
    const auto outcome = result_of(start_receive(sized(10)));
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->ftp_code, 426);
    settle_threads();
}

TEST_F(hostile_backend, finishes_before_the_data_channel_opened) {
    log_in();
    for (const bool success : {false, true}) {
        test_connector never(strand);
        the_script().recv = [&](op_handle op, auto) {
            zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
            EXPECT_EQ(buffers.read(op, 100), ZORVAN_SUCCESS);
            while (never.connects == 0) {
                std::this_thread::yield();
            }
            zorvan_gridftp_server_finished_transfer(op, success ? ZORVAN_SUCCESS : new_error("no quota"));
        };
        const auto outcome = result_of(start(session->receive(sized(10), never, events)));
        ASSERT_TRUE(outcome.error) << "there were no data yet";
        EXPECT_EQ(outcome.error->ftp_code, success ? 451 : 0);
        EXPECT_TRUE(never.cancelled);
        settle_threads();
        test_connector nor_this(strand);
        the_script().send = [&](op_handle op, auto) {
            zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
            EXPECT_EQ(buffers.write(op, "data", 0), ZORVAN_SUCCESS);
            while (nor_this.connects == 0) {
                std::this_thread::yield();
            }
            zorvan_gridftp_server_finished_transfer(op, new_error("gone"));
        };
        EXPECT_TRUE(result_of(start(session->send(whole(), nor_this, events))).error);
        settle_threads();
    }
    for (const auto& call : buffers.calls()) {
        EXPECT_TRUE(call.failed);
    }
}

// ------------------------------------------------------------------- listings

TEST_F(hostile_backend, sends_half_a_listing_and_then_an_error) {
    log_in();
    zorvan_gridftp_server_stat_t record{};
    record.name = "entry";
    const auto stat = [&](collecting_stat_sink& sink) {
        return result_of(start(session->stat("/bucket", false, sink)));
    };
    // With the end, with a batch, and with entries in both.
    the_script().stat = [&](op_handle op, auto) {
        zorvan_gridftp_server_finished_stat_partial(op, ZORVAN_SUCCESS, &record, 1);
        zorvan_gridftp_server_finished_stat(op, new_error("broken"), &record, 1);
    };
    collecting_stat_sink first;
    EXPECT_EQ(stat(first).error->friendly_lines.front(), "broken");
    EXPECT_EQ(first.records.size(), 2u);
    settle_threads();
    the_script().stat = [&](op_handle op, auto) {
        zorvan_gridftp_server_finished_stat_partial(op, new_error("a page is missing"), &record, 1);
        zorvan_gridftp_server_finished_stat_partial(op, new_error("another"), nullptr, 0);
        zorvan_gridftp_server_finished_stat(op, ZORVAN_SUCCESS, &record, 1);
    };
    collecting_stat_sink second;
    const auto outcome = stat(second);
    ASSERT_TRUE(outcome.error) << "a listing that lacks entries is no success";
    EXPECT_EQ(outcome.error->friendly_lines.front(), "a page is missing");
    EXPECT_EQ(second.records.size(), 2u);
    settle_threads();
    // Nonsense.
    the_script().stat = [&](op_handle op, auto) {
        zorvan_gridftp_server_finished_stat_partial(op, ZORVAN_SUCCESS, nullptr, 5);
        zorvan_gridftp_server_finished_stat_partial(op, ZORVAN_SUCCESS, &record, -1);
        zorvan_gridftp_server_stat_t nameless{};
        zorvan_gridftp_server_finished_stat(op, ZORVAN_SUCCESS, &nameless, 1);
        zorvan_gridftp_server_finished_stat_partial(op, new_error("late"), &record, 1);
    };
    collecting_stat_sink third;
    EXPECT_FALSE(stat(third).error);
    ASSERT_EQ(third.records.size(), 1u);
    EXPECT_EQ(third.records[0].name, "");
    settle_threads();
}

// ------------------------------------------------------------------- sessions

TEST_F(hostile_backend, starts_a_session_with_any_other_finish) {
    shared = std::make_unique<host>(config, io.get_executor());
    the_script().session_start = [](op_handle op, auto) {
        zorvan_gridftp_server_finished_command(op, ZORVAN_SUCCESS, "welcome");
    };
    the_script().stat = [](op_handle, auto) { ADD_FAILURE() << "no entry is called without a session"; };
    const auto outcome = result_of(
        start(backend_session::start(promise_module(), *shared, strand, {"user", "127.0.0.1", "", {}, {}})));
    EXPECT_EQ(outcome.session, nullptr);
    EXPECT_EQ(outcome.error.ftp_code, 530);
    EXPECT_EQ(outcome.error.text_lines, std::vector<std::string>{"no storage session for this collection"});
}

TEST_F(hostile_backend, hands_a_session_out_with_another_operation) {
    log_in();
    the_script().command = [](op_handle op, auto) {
        // Not a session start: the handle means nothing and is not destroyed.
        zorvan_gridftp_server_finished_session_start(op, ZORVAN_SUCCESS, reinterpret_cast<void*>(0xbad),
                                                     nullptr, nullptr);
    };
    EXPECT_FALSE(run_command().error);
    settle_threads();
}

// A client that leaves does not end the operation: the records and the session stay until the back end has.
TEST_F(hostile_backend, does_not_finish_while_the_client_leaves) {
    log_in();
    flag running;
    flag go_on;
    op_handle handle = nullptr;
    const zorvan_gridftp_server_transfer_info_t* record = nullptr;
    the_script().recv = [&](op_handle op, const zorvan_gridftp_server_transfer_info_t* info) {
        handle = op;
        record = info;
        running.raise();  // and returns, as one with threads of its own does
    };
    auto client = connector.open();
    auto outcome = start_receive(sized(5000));
    running.wait();
    on_strand([this] { session->client_gone(); });
    client->reset();
    EXPECT_EQ(shared->counters().sessions, 1u);
    EXPECT_EQ(shared->counters().operations, 1u);
    EXPECT_EQ(destroyed_sessions, 0);
    EXPECT_STREQ(record->pathname, "/bucket/file");
    zorvan_gridftp_server_begin_transfer(handle, 0, nullptr);
    EXPECT_EQ(buffers.read(handle, 100), ZORVAN_SUCCESS);
    EXPECT_TRUE(buffers.wait(1).front().failed);
    zorvan_gridftp_server_finished_transfer(handle, new_error("at last"));
    EXPECT_TRUE(result_of(std::move(outcome)).aborted);
}

// -------------------------------------------------------------------- waiting

TEST_F(hostile_backend, registers_from_twenty_threads_holding_its_mutex) {
    log_in();
    const auto data = pattern(40'000);
    std::mutex worker;
    the_script().recv = [&](op_handle op, auto) {
        buffers.in_callback = [&](const called&) { const std::lock_guard lock(worker); };
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        std::vector<std::thread> threads;
        for (int i = 0; i < 20; ++i) {
            threads.emplace_back([&] {
                for (int each = 0; each < 5; ++each) {
                    const std::lock_guard lock(worker);
                    EXPECT_EQ(buffers.read(op, 1000), ZORVAN_SUCCESS);
                    size_t block = 0;
                    EXPECT_EQ(zorvan_gridftp_server_get_block_size(op, &block), ZORVAN_SUCCESS);
                    zorvan_gridftp_server_update_bytes_recvd(op, 1, 0);
                    zorvan_gridftp_server_update_range_recvd(op, each, 1);
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        buffers.wait(100);
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
    };
    auto client = connector.open();
    auto outcome = start_receive(sized(data.size()));
    EXPECT_TRUE(client->write(data));
    client->end();
    EXPECT_FALSE(result_of(std::move(outcome)).error);
    EXPECT_TRUE(buffers.data() == data);
}

// Far more reads than there are data: each comes back once, those behind the end with the end.
TEST_F(hostile_backend, registers_more_reads_than_there_are_data) {
    log_in();
    constexpr std::size_t registered = 500;
    the_script().recv = [&](op_handle op, auto) {
        for (std::size_t i = 0; i < registered; ++i) {
            EXPECT_EQ(buffers.read(op, 1000), ZORVAN_SUCCESS);
        }
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        buffers.wait(registered);
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
    };
    auto request = sized(2500);
    request.write_offset = 7000;
    auto client = connector.open();
    auto outcome = start_receive(request);
    EXPECT_TRUE(client->write(pattern(2500)));
    client->end();
    EXPECT_FALSE(result_of(std::move(outcome)).error);
    const auto calls = buffers.calls();
    ASSERT_EQ(calls.size(), registered);
    EXPECT_EQ(buffers.data(), pattern(2500));
    std::size_t empty = 0;
    for (const auto& call : calls) {
        EXPECT_FALSE(call.failed);
        if (call.bytes == 0) {
            ++empty;
            EXPECT_TRUE(call.eof);
            EXPECT_EQ(call.offset, 2500) << "the number of bytes received, not a place in the file";
        }
    }
    EXPECT_GE(empty, registered - 20);
}

// One callback and one entry that sit for long: fifty other sessions log in, work and leave meanwhile, and
// the control side of the held-up sessions stays alive.
TEST_F(hostile_backend, blocks_in_a_callback_and_in_an_entry_while_fifty_sessions_work) {
    log_in();
    flag callback_blocked;
    flag entry_blocked;
    flag go_on;
    the_script().recv = [&](op_handle op, auto) {
        buffers.in_callback = [&, op](const called&) {
            callback_blocked.raise();
            go_on.wait();
            zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
        };
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        EXPECT_EQ(buffers.read(op, 1000), ZORVAN_SUCCESS);
    };
    the_script().stat = [&](op_handle op, auto) {
        entry_blocked.raise();
        go_on.wait();
        zorvan_gridftp_server_finished_stat(op, ZORVAN_SUCCESS, nullptr, 0);
    };
    the_script().send = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        recorder writes;
        EXPECT_EQ(writes.write(op, "data", 0), ZORVAN_SUCCESS);
        writes.wait(1);
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
    };
    the_script().command = [](op_handle op, auto) {
        zorvan_gridftp_server_finished_command(op, ZORVAN_SUCCESS, "done");
    };
    auto client = connector.open();
    auto held_up = start_receive(sized(500));
    EXPECT_TRUE(client->write(pattern(500)));
    client->end();
    callback_blocked.wait();

    const asio::any_io_executor second_strand = asio::make_strand(io);
    auto second = another_session(second_strand);
    collecting_stat_sink sink;
    auto blocked_entry =
        asio::co_spawn(second_strand, second->stat("/bucket", false, sink), asio::use_future);
    entry_blocked.wait();

    for (int i = 0; i < 50; ++i) {
        const asio::any_io_executor other_strand = asio::make_strand(io);
        auto other = another_session(other_strand);
        ASSERT_NE(other, nullptr);
        quiet progress;
        auto command = asio::co_spawn(other_strand, other->command({}, progress), asio::use_future);
        EXPECT_EQ(result_of(std::move(command)).text, "done");
        test_connector other_connector(other_strand);
        test_events other_events;
        auto other_client = other_connector.open();
        auto sent = asio::co_spawn(other_strand, other->send(whole(), other_connector, other_events),
                                   asio::use_future);
        EXPECT_EQ(other_client->read_all(), "data");
        EXPECT_FALSE(result_of(std::move(sent)).error);
        std::promise<void> left;
        asio::post(other_strand, [&] {
            other.reset();
            left.set_value();
        });
        left.get_future().wait();
    }
    // Neither strand waits for its back end.
    on_strand([this] { EXPECT_TRUE(session->busy()); });
    abort();
    EXPECT_EQ(held_up.wait_for(0s), std::future_status::timeout);
    go_on.raise();
    EXPECT_FALSE(result_of(std::move(held_up)).error) << "all data had been handed over";
    EXPECT_FALSE(result_of(std::move(blocked_entry)).error);
    std::promise<void> left;
    asio::post(second_strand, [&] {
        second.reset();
        left.set_value();
    });
    left.get_future().wait();
}

// The stat of an append may sit while the client gives up: what it says then decides nothing.
TEST_F(hostile_backend, an_append_that_is_aborted_during_its_stat_truncates_nothing) {
    log_in();
    flag asked;
    flag go_on;
    the_script().stat = [&](op_handle op, auto) {
        asked.raise();
        go_on.wait();
        zorvan_gridftp_server_stat_t record{};
        record.name = "file";
        record.mode = S_IFREG | 0644;
        record.size = 777;
        zorvan_gridftp_server_finished_stat(op, ZORVAN_SUCCESS, &record, 1);
    };
    std::atomic<int> receives{0};
    the_script().recv = [&](op_handle op, auto) {
        ++receives;
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
    };
    receive_request request;
    request.path = "/bucket/file";
    request.append = true;
    auto client = connector.open();
    auto outcome = start_receive(request);
    EXPECT_TRUE(client->write("more"));
    client->end();
    asked.wait();
    abort();
    go_on.raise();
    const auto result = result_of(std::move(outcome));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->ftp_code, 426);
    EXPECT_TRUE(result.aborted);
    EXPECT_EQ(receives, 0);
    settle_threads();
}

// An empty upload has no byte that could be held back; its end is.
TEST_F(hostile_backend, an_aborted_empty_upload_gets_no_clean_end) {
    log_in();
    flag started;
    flag aborted;
    the_script().recv = [&](op_handle op, auto) {
        started.raise();
        aborted.wait();
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        EXPECT_EQ(buffers.read(op, 100), ZORVAN_SUCCESS);
        EXPECT_TRUE(buffers.wait(1).front().failed);
        EXPECT_TRUE(buffers.calls().front().eof);
        zorvan_gridftp_server_finished_transfer(op, new_error("not stored"));
    };
    receive_request request;
    request.path = "/bucket/file";
    auto client = connector.open();
    auto outcome = start_receive(request);
    client->end();
    started.wait();
    abort();
    aborted.raise();
    EXPECT_EQ(result_of(std::move(outcome)).error->ftp_code, 426);
    settle_threads();
}

// The disk may be full, or not there, when the first byte is to go to it.
TEST_F(hostile_backend, a_spool_that_cannot_be_opened_is_a_552_and_stores_nothing) {
    config.spool.memory = 0;
    config.spool.directory += "/absent";
    log_in();
    the_script().stat = [](op_handle op, auto) {
        zorvan_gridftp_server_finished_stat(op, ZORVAN_SUCCESS, nullptr, 0);
    };
    the_script().recv = [](op_handle, auto) { ADD_FAILURE() << "there is nothing to store"; };
    receive_request request;
    request.path = "/bucket/file";
    auto client = connector.open();
    auto outcome = start_receive(request);
    EXPECT_TRUE(client->write(pattern(1000)));
    client->end();
    const auto result = result_of(std::move(outcome));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->ftp_code, 552);
    EXPECT_EQ(result.error->origin, error_origin::server);
    settle_threads();
}

}  // namespace
