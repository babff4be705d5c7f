// Uploads at the data storage interface: what a back end is promised about its reads, and what the server
// does so that no object comes of an upload that was cut short, ran over or broke.
#include "core_fixture.h"

using namespace zorvan::gridftp;
using namespace zorvan::gridftp::testing_support;

namespace {

class receive : public core_test {
  protected:
    // A back end that keeps three reads of `block` bytes outstanding until the end, then finishes as told.
    void reading_backend(std::size_t block, zorvan_result_t (*judge)(recorder&) = nullptr) {
        the_script().recv = [this, block, judge](op_handle op, const zorvan_gridftp_server_transfer_info_t*) {
            zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
            reads.in_callback = [this, op, block, judge](const called& call) {
                ended = ended || call.eof;
                if (!ended) {
                    EXPECT_EQ(reads.read(op, block), ZORVAN_SUCCESS);
                }
                if (reads.calls().size() == reads.accepted() && ended) {
                    zorvan_gridftp_server_finished_transfer(op,
                                                            judge != nullptr ? judge(reads) : ZORVAN_SUCCESS);
                }
            };
            first_reads(op, block);
        };
    }
    // All registered before the first callback looks at their number.
    void first_reads(op_handle op, std::size_t block) {
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(reads.read(op, block), ZORVAN_SUCCESS);
        }
    }

    recorder reads;
    bool ended = false;  // only callbacks touch it, and these run one at a time
};

TEST_F(receive, delivers_everything_in_order_and_ends_cleanly) {
    log_in();
    reading_backend(1000);
    auto client = connector.open();
    auto outcome = start_receive(sized(5500));
    const auto data = pattern(5500);
    ASSERT_TRUE(client->write(data));
    client->end();
    const auto result = result_of(std::move(outcome));
    EXPECT_FALSE(result.error);
    EXPECT_TRUE(result.store_confirmed);
    EXPECT_EQ(result.bytes, 5500u);
    EXPECT_EQ(reads.data(), data);
    EXPECT_EQ(events.announced, 1);
    std::int64_t next = 0;
    for (const auto& call : reads.calls()) {
        EXPECT_FALSE(call.failed);
        if (call.bytes > 0) {
            EXPECT_EQ(call.offset, next);
            next += static_cast<std::int64_t>(call.bytes);
            EXPECT_EQ(call.eof, next == 5500);
        } else {
            EXPECT_TRUE(call.eof);
            EXPECT_EQ(call.offset, 5500);
        }
    }
    EXPECT_EQ(reads.calls().size(), reads.accepted());
}

TEST_F(receive, tells_the_back_end_what_the_client_said) {
    log_in();
    flag seen;
    the_script().recv = [&](op_handle op, const zorvan_gridftp_server_transfer_info_t* info) {
        EXPECT_STREQ(info->pathname, "/bucket/file");
        EXPECT_EQ(info->truncate, 0);
        EXPECT_EQ(info->alloc_size, 10);
        EXPECT_STREQ(info->expected_checksum, "abc");
        EXPECT_STREQ(info->expected_checksum_algorithm, "SHA256");
        EXPECT_EQ(info->stripe_count, 1);
        zorvan_off_t offset = -1;
        zorvan_off_t length = 0;
        EXPECT_EQ(zorvan_gridftp_server_get_write_range(op, &offset, &length), ZORVAN_SUCCESS);
        EXPECT_EQ(offset, 700);
        EXPECT_EQ(length, -1);
        EXPECT_EQ(zorvan_gridftp_server_get_read_range(op, &offset, &length), ZORVAN_FAILURE);
        int64_t time = 0;
        EXPECT_EQ(zorvan_gridftp_server_get_recv_modification_time(op, &time), ZORVAN_SUCCESS);
        EXPECT_EQ(time, 12345);
        size_t block = 0;
        int concurrency = 0;
        EXPECT_EQ(zorvan_gridftp_server_get_block_size(op, &block), ZORVAN_SUCCESS);
        EXPECT_EQ(zorvan_gridftp_server_get_optimal_concurrency(op, &concurrency), ZORVAN_SUCCESS);
        EXPECT_EQ(block, 1000u);
        EXPECT_EQ(concurrency, 1);  // 10 bytes are one block
        char* text = nullptr;
        EXPECT_EQ(zorvan_gridftp_server_get_config_string(op, &text), ZORVAN_SUCCESS);
        EXPECT_STREQ(text, "the options");
        std::free(text);
        EXPECT_EQ(zorvan_gridftp_server_get_config_data(op, "config", &text), ZORVAN_SUCCESS);
        EXPECT_EQ(text, nullptr);
        EXPECT_EQ(zorvan_gridftp_server_get_config_data(op, "other", &text), ZORVAN_FAILURE);
        seen.raise();
        zorvan_gridftp_server_finished_transfer(op, new_error());
    };
    auto request = sized(10);
    request.write_offset = 700;
    request.expected_checksum = "abc";
    request.expected_checksum_algorithm = "SHA256";
    request.modification_time = 12345;
    const auto result = result_of(start_receive(request));
    seen.wait();
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->friendly_lines, std::vector<std::string>{"it went wrong"});
}

TEST_F(receive, offsets_begin_at_the_write_offset) {
    log_in();
    reading_backend(1000);
    auto client = connector.open();
    auto request = sized(1500);
    request.write_offset = 4000;
    auto outcome = start_receive(request);
    client->write(pattern(1500));
    client->end();
    EXPECT_FALSE(result_of(std::move(outcome)).error);
    const auto calls = reads.calls();
    ASSERT_GE(calls.size(), 2u);
    EXPECT_EQ(calls[0].offset, 4000);
}

// The heart of it: the block with the last announced byte waits for the clean end.
TEST_F(receive, holds_the_last_block_back_until_the_clean_end) {
    log_in();
    reading_backend(1000);
    auto client = connector.open();
    auto outcome = start_receive(sized(2000));
    const auto data = pattern(2000);
    client->write(data);
    reads.wait(1);
    // The second block is complete by now or will be soon; without the end it must not come.
    EXPECT_EQ(outcome.wait_for(200ms), std::future_status::timeout);
    EXPECT_EQ(reads.data(), data.substr(0, 1000));
    client->end();
    EXPECT_FALSE(result_of(std::move(outcome)).error);
    EXPECT_EQ(reads.data(), data);
}

TEST_F(receive, a_reset_after_the_last_byte_takes_the_last_blocks_place) {
    log_in();
    reading_backend(1000);
    auto client = connector.open();
    auto outcome = start_receive(sized(2000));
    client->write(pattern(2000));
    reads.wait(1);
    client->reset();
    const auto result = result_of(std::move(outcome));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->origin, error_origin::data_channel);
    EXPECT_EQ(result.error->ftp_code, 426);
    EXPECT_EQ(reads.data().size(), 1000u);
    for (const auto& call : reads.calls()) {
        if (call.bytes == 0) {
            EXPECT_TRUE(call.failed);
            EXPECT_TRUE(call.eof);
            EXPECT_EQ(call.offset, 0);
        }
    }
}

TEST_F(receive, a_lost_control_connection_takes_the_last_blocks_place) {
    log_in();
    reading_backend(1000);
    auto client = connector.open();
    events.alive = false;
    auto outcome = start_receive(sized(2000));
    client->write(pattern(2000));
    client->end();
    const auto result = result_of(std::move(outcome));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->ftp_code, 426);
    EXPECT_EQ(reads.data().size(), 1000u);
}

TEST_F(receive, an_abort_takes_the_last_blocks_place) {
    log_in();
    reading_backend(1000);
    auto client = connector.open();
    auto outcome = start_receive(sized(2000));
    client->write(pattern(2000));
    reads.wait(1);
    abort();
    const auto result = result_of(std::move(outcome));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->ftp_code, 426);
    EXPECT_TRUE(result.aborted);
    EXPECT_EQ(reads.data().size(), 1000u);
}

TEST_F(receive, surplus_bytes_come_before_the_last_block) {
    log_in();
    reading_backend(1000);
    auto client = connector.open();
    auto outcome = start_receive(sized(2000));
    const auto data = pattern(2300);
    client->write(data);
    client->end();
    result_of(std::move(outcome));
    std::size_t surplus = 0;
    std::size_t last_block = 0;
    const auto calls = reads.calls();
    for (std::size_t i = 0; i < calls.size(); ++i) {
        if (calls[i].bytes > 0 && calls[i].offset >= 2000) {
            surplus = i + 1;
            EXPECT_FALSE(calls[i].eof);
        }
        if (calls[i].bytes > 0 && calls[i].offset == 1000) {
            last_block = i + 1;
        }
    }
    EXPECT_GT(surplus, 0u);
    EXPECT_LT(surplus, last_block);
}

// With a single read outstanding there is no other buffer for the surplus.
TEST_F(receive, surplus_bytes_reach_a_back_end_that_has_one_read_only) {
    log_in();
    flag finished;
    the_script().recv = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        reads.in_callback = [&, op](const called& call) {
            zorvan_gridftp_server_finished_transfer(
                op, call.offset >= 500 ? new_error("too long") : ZORVAN_SUCCESS);
        };
        reads.read(op, 1000);
    };
    auto client = connector.open();
    auto outcome = start_receive(sized(500));
    client->write(pattern(600));
    client->end();
    const auto result = result_of(std::move(outcome));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->friendly_lines, std::vector<std::string>{"too long"});
    EXPECT_EQ(reads.calls().front().offset, 500);
}

TEST_F(receive, a_short_upload_ends_cleanly_and_early) {
    log_in();
    reading_backend(1000, [](recorder& seen) {
        return seen.data().size() == 5000 ? ZORVAN_SUCCESS : new_error("short");
    });
    auto client = connector.open();
    auto outcome = start_receive(sized(5000));
    client->write(pattern(1300));
    client->end();
    const auto result = result_of(std::move(outcome));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->friendly_lines, std::vector<std::string>{"short"});
    for (const auto& call : reads.calls()) {
        EXPECT_FALSE(call.failed);
    }
}

TEST_F(receive, a_part_of_a_block_comes_after_a_short_wait) {
    log_in();
    reading_backend(1000);
    auto client = connector.open();
    auto outcome = start_receive(sized(5000));
    client->write(pattern(300));
    const auto calls = reads.wait(1);
    EXPECT_EQ(calls.front().bytes, 300u);
    EXPECT_FALSE(calls.front().eof);
    client->write(pattern(4700));
    client->end();
    EXPECT_FALSE(result_of(std::move(outcome)).error);
    EXPECT_EQ(reads.data().size(), 5000u);
}

TEST_F(receive, reads_after_the_clean_end_are_called_back_at_once) {
    log_in();
    flag registered;
    the_script().recv = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        reads.read(op, 1000);
        reads.wait(1);
        EXPECT_EQ(reads.read(op, 1000), ZORVAN_SUCCESS);
        EXPECT_EQ(reads.read(op, 1000), ZORVAN_SUCCESS);
        const auto calls = reads.wait(3);
        for (std::size_t i = 1; i < 3; ++i) {
            EXPECT_FALSE(calls[i].failed);
            EXPECT_EQ(calls[i].bytes, 0u);
            EXPECT_EQ(calls[i].offset, 500);
            EXPECT_TRUE(calls[i].eof);
        }
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
        EXPECT_NE(reads.read(op, 1000), ZORVAN_SUCCESS);
    };
    auto client = connector.open();
    auto outcome = start_receive(sized(500));
    client->write(pattern(500));
    client->end();
    EXPECT_FALSE(result_of(std::move(outcome)).error);
}

TEST_F(receive, reads_after_a_failure_are_accepted_and_called_back_with_an_error) {
    log_in();
    the_script().recv = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        reads.read(op, 1000);
        reads.wait(1);
        EXPECT_EQ(reads.read(op, 1000), ZORVAN_SUCCESS);
        const auto calls = reads.wait(2);
        for (const auto& call : calls) {
            EXPECT_TRUE(call.failed);
            EXPECT_EQ(call.bytes, 0u);
            EXPECT_EQ(call.offset, 0);
            EXPECT_TRUE(call.eof);
        }
        size_t block = 0;
        int concurrency = 0;
        EXPECT_EQ(zorvan_gridftp_server_get_block_size(op, &block), ZORVAN_SUCCESS);
        EXPECT_EQ(zorvan_gridftp_server_get_optimal_concurrency(op, &concurrency), ZORVAN_SUCCESS);
        EXPECT_EQ(block, 1000u);
        EXPECT_EQ(concurrency, 3);
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
    };
    connector.fail_with(425, "Can't build the connection.");
    const auto result = result_of(start_receive(sized(5000)));
    ASSERT_TRUE(result.error) << "a broken channel wins over a back end that is content";
    EXPECT_EQ(result.error->ftp_code, 425);
    EXPECT_TRUE(result.store_confirmed);
    EXPECT_EQ(events.announced, 0) << "an upload that fails before its start gets its error alone";
}

TEST_F(receive, reads_may_be_registered_before_the_transfer_begins) {
    log_in();
    the_script().recv = [&](op_handle op, auto) {
        reads.read(op, 1000);
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        reads.wait(1);
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
    };
    auto client = connector.open();
    auto outcome = start_receive(sized(10));
    client->write(pattern(10));
    client->end();
    EXPECT_FALSE(result_of(std::move(outcome)).error);
    EXPECT_EQ(reads.data(), pattern(10));
}

TEST_F(receive, a_finish_while_reads_are_outstanding_calls_them_all_back) {
    log_in();
    the_script().recv = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        first_reads(op, 1000);
        while (events.announced == 0) {
            std::this_thread::yield();
        }
        zorvan_gridftp_server_finished_transfer(op, new_error("no quota"));
        for (const auto& call : reads.wait(3)) {
            EXPECT_TRUE(call.failed);
            EXPECT_TRUE(call.eof);
        }
    };
    auto client = connector.open();
    auto outcome = start_receive(sized(5000));
    const auto result = result_of(std::move(outcome));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->friendly_lines, std::vector<std::string>{"no quota"});
    // The client is still heard out, so that it sees the reply and not a reset.
    EXPECT_TRUE(client->write(pattern(5000)));
    client->end();
    bool clean = false;
    client->read_all(&clean);
    EXPECT_TRUE(clean);
    reads.wait(3);
}

TEST_F(receive, success_before_the_end_of_the_data_is_none) {
    log_in();
    the_script().recv = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        reads.read(op, 1000);
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
    };
    auto client = connector.open();
    const auto result = result_of(start_receive(sized(5000)));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->ftp_code, 451);
    reads.wait(1);
}

TEST_F(receive, finishing_twice_changes_nothing) {
    log_in();
    the_script().recv = [&](op_handle op, auto) {
        const auto error = new_error("set-up failed");
        zorvan_gridftp_server_finished_transfer(op, error);
        zorvan_gridftp_server_finished_transfer(op, error);
        zorvan_gridftp_server_finished_transfer(op, new_error("another"));
        zorvan_gridftp_server_finished_command(op, ZORVAN_SUCCESS, "text");
    };
    const auto result = result_of(start_receive(sized(5000)));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->friendly_lines, std::vector<std::string>{"set-up failed"});
    EXPECT_EQ(connector.connects, 0);
}

TEST_F(receive, calls_with_a_stale_handle_do_no_harm) {
    log_in();
    op_handle stale = nullptr;
    the_script().recv = [&](op_handle op, auto) {
        stale = op;
        zorvan_gridftp_server_finished_transfer(op, new_error());
    };
    result_of(start_receive(sized(5000)));
    close_session();
    ASSERT_TRUE(shared->wait_idle(30s));
    zorvan_gridftp_server_finished_transfer(stale, new_error("late"));
    EXPECT_EQ(zorvan_gridftp_server_register_read(stale, nullptr, 1, nullptr, nullptr), ZORVAN_FAILURE);
    size_t block = 0;
    EXPECT_EQ(zorvan_gridftp_server_get_block_size(stale, &block), ZORVAN_FAILURE);
    zorvan_gridftp_server_begin_transfer(stale, 0, nullptr);
}

TEST_F(receive, a_wrong_md5_keeps_the_last_block) {
    log_in();
    reading_backend(1000);
    auto client = connector.open();
    auto request = sized(1500);
    request.expected_checksum = std::string(32, '0');
    request.expected_checksum_algorithm = "md5";
    auto outcome = start_receive(request);
    client->write(pattern(1500));
    client->end();
    const auto result = result_of(std::move(outcome));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->ftp_code, 550);
    EXPECT_EQ(result.error->ftp_word, "INCORRECT_CHECKSUM");
    EXPECT_EQ(reads.data().size(), 1000u);
}

TEST_F(receive, a_right_md5_lets_the_last_block_go) {
    log_in();
    reading_backend(1000);
    auto client = connector.open();
    auto request = sized(3);
    request.expected_checksum = "900150983CD24FB0D6963F7D28E17F72";  // RFC 1321: "abc"
    request.expected_checksum_algorithm = "MD5";
    auto outcome = start_receive(request);
    client->write("abc");
    client->end();
    EXPECT_FALSE(result_of(std::move(outcome)).error);
    EXPECT_EQ(reads.data(), "abc");
}

TEST_F(receive, a_client_that_stalls_is_cut) {
    config.data_stall = 200ms;
    log_in();
    reading_backend(1000);
    auto client = connector.open();
    auto outcome = start_receive(sized(5000));
    client->write(pattern(100));
    const auto result = result_of(std::move(outcome));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->ftp_code, 426);
}

TEST_F(receive, a_back_end_that_commits_for_long_is_not_a_stall) {
    config.data_stall = 100ms;
    log_in();
    flag go_on;
    the_script().recv = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        reads.read(op, 1000);
        reads.wait(1);
        go_on.wait();
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
    };
    auto client = connector.open();
    // Ahead of the transfer: this thread may be kept waiting for longer than a stall takes.
    client->write(pattern(500));
    client->end();
    auto outcome = start_receive(sized(500));
    EXPECT_EQ(outcome.wait_for(500ms), std::future_status::timeout);
    go_on.raise();
    EXPECT_FALSE(result_of(std::move(outcome)).error);
}

TEST_F(receive, an_abort_after_all_data_leaves_the_word_to_the_store) {
    log_in();
    flag all_there;
    flag go_on;
    the_script().recv = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        reads.read(op, 1000);
        reads.wait(1);
        all_there.raise();
        go_on.wait();
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
    };
    auto client = connector.open();
    auto outcome = start_receive(sized(500));
    client->write(pattern(500));
    client->end();
    all_there.wait();
    abort();
    EXPECT_EQ(outcome.wait_for(50ms), std::future_status::timeout) << "the reply waits for the store";
    go_on.raise();
    const auto result = result_of(std::move(outcome));
    EXPECT_FALSE(result.error);
    EXPECT_TRUE(result.aborted);
    EXPECT_TRUE(result.store_confirmed);
}

TEST_F(receive, an_abort_while_the_connection_is_awaited_ends_it) {
    log_in();
    reading_backend(1000);
    auto outcome = start_receive(sized(5000));
    while (connector.connects == 0) {
        std::this_thread::yield();
    }
    abort();
    const auto result = result_of(std::move(outcome));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->ftp_code, 426);
    EXPECT_TRUE(connector.cancelled);
}

// Callbacks: never inside the call, one at a time, in order, from one thread at a time, while the back end's
// worker holds its lock.
TEST_F(receive, callbacks_never_run_inside_the_call_that_caused_them) {
    log_in();
    std::mutex worker;
    std::atomic<int> inside{0};
    std::vector<zorvan_result_t> results;
    the_script().recv = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        reads.in_callback = [&](const called&) {
            EXPECT_EQ(++inside, 1) << "callbacks of one operation run one at a time";
            {
                // Would be a deadlock, or undefined, inside the call.
                const std::lock_guard lock(worker);
            }
            --inside;
        };
        {
            const std::lock_guard lock(worker);
            for (int i = 0; i < 50; ++i) {
                EXPECT_EQ(reads.read(op, 100), ZORVAN_SUCCESS);
            }
            while (connector.connects == 0) {
                std::this_thread::yield();
            }
        }
        reads.wait(50);
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
    };
    auto client = connector.open();
    auto outcome = start_receive(sized(2000));
    client->write(pattern(2000));
    client->end();
    EXPECT_FALSE(result_of(std::move(outcome)).error);
    EXPECT_EQ(reads.data(), pattern(2000));
}

TEST_F(receive, a_blocked_callback_holds_up_no_other_session) {
    log_in();
    flag blocked;
    flag go_on;
    the_script().recv = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        reads.in_callback = [&, op](const called&) {
            blocked.raise();
            go_on.wait();
            zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
        };
        reads.read(op, 1000);
    };
    the_script().command = [](op_handle op, auto) {
        zorvan_gridftp_server_finished_command(op, ZORVAN_SUCCESS, "done");
    };
    auto client = connector.open();
    auto outcome = start_receive(sized(500));
    client->write(pattern(500));
    client->end();
    blocked.wait();

    auto other = result_of(
        start(backend_session::start(promise_module(), *shared, strand, {"other", "127.0.0.1", "", {}, {}})));
    ASSERT_NE(other.session, nullptr);
    ++expected_destroys;
    struct silent final : progress_sink {
        task<void> progress(std::string_view) override { co_return; }
    } sink;
    const auto command = result_of(start(other.session->command({}, sink)));
    EXPECT_EQ(command.text, "done");
    on_strand([&] { other.session.reset(); });
    go_on.raise();
    EXPECT_FALSE(result_of(std::move(outcome)).error);
}

TEST_F(receive, an_own_error_that_comes_back_is_released_once) {
    log_in();
    the_script().recv = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        static zorvan_result_t got;
        got = ZORVAN_SUCCESS;
        static flag* done;
        flag called_back;
        done = &called_back;
        unsigned char buffer[10];
        EXPECT_EQ(
            zorvan_gridftp_server_register_read(
                op, buffer, sizeof buffer,
                [](op_handle, zorvan_result_t result, unsigned char*, size_t, zorvan_off_t, int, void*) {
                    got = result;
                    done->raise();
                },
                nullptr),
            ZORVAN_SUCCESS);
        called_back.wait();
        EXPECT_NE(zorvan_error_peek(got), nullptr);
        zorvan_gridftp_server_finished_transfer(op, got);
        zorvan_error_free(zorvan_error_get(got));  // harmless
    };
    connector.fail_with(425, "no way");
    const auto result = result_of(start_receive(sized(500)));
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->ftp_code, 425);
    EXPECT_EQ(result.error->text_lines, std::vector<std::string>{"no way"});
}

TEST_F(receive, the_records_live_as_long_as_the_handle) {
    log_in();
    the_script().recv = [&](op_handle op, const zorvan_gridftp_server_transfer_info_t* info) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        reads.read(op, 1000);
        reads.wait(1);  // the client has left by now
        EXPECT_STREQ(info->pathname, "/bucket/file");
        zorvan_gridftp_server_finished_transfer(op, new_error());
        EXPECT_STREQ(info->pathname, "/bucket/file");  // the entry has not returned
    };
    auto client = connector.open();
    auto outcome = start_receive(sized(500));
    client->reset();
    on_strand([this] { session->client_gone(); });
    EXPECT_TRUE(result_of(std::move(outcome)).error);
}

}  // namespace
