// Memory runs out inside the calls of the data storage interface: each is repeated with its first, second,
// ... allocation failing until one run needs no more. Nothing is thrown, lost or done twice: a call that can
// fail does, an operation always ends, and what could not be copied never passes for the whole.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "block_text.h"
#include "core_fixture.h"
#include "failing_system.h"
#include "loopback_connector.h"

using namespace zorvan::gridftp;
using namespace zorvan::gridftp::testing_support;
using ftp_test::block;
using ftp_test::end_of_file;
using zorvan::test::FailingAllocations;

namespace {

constexpr int most_allocations = 200;
const std::string long_text(100, 't');  // beyond what a string keeps without an allocation

class out_of_memory : public core_test {
  protected:
    /// Runs `round` with a failing allocation each time, until nothing failed.
    /// @param round  gives the number of the allocation that fails; says whether one did
    /// @return how many allocations there are
    static int fail_each(const std::function<bool(int)>& round) {
        for (int after = 0; after < most_allocations; ++after) {
            if (!round(after)) {
                return after;
            }
        }
        ADD_FAILURE() << "no end of allocations";
        return most_allocations;
    }

    /// Run a call of the back end with one failing allocation. @return whether there was one
    template <class Call>
    static bool with_failure(int after, Call call) {
        const FailingAllocations failures(after, 1);
        call();
        return failures.failed();
    }

    static bool is_out_of_memory(const std::optional<operation_error>& error) {
        return error && error->errno_value == ENOMEM;
    }
};

/// A client's connections in extended mode, and the connector that has them.
class block_client final : public loopback_connector {
  public:
    using loopback_connector::loopback_connector;

    /// A connection of the client's.
    client_socket& open() {
        const int number = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port());
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(number, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        return *sockets_.emplace_back(std::make_unique<client_socket>(number));
    }
    static receive_request upload(std::optional<std::uint64_t> size) {
        receive_request request;
        request.path = "/bucket/file";
        request.announced_size = size;
        request.extended = true;
        return request;
    }

    /// Once the first data are read, let the allocation number `after` fail.
    void fail_after_data(long after) { fault_->after = after; }

  private:
    struct fault {
        std::optional<long> after;
        std::optional<FailingAllocations> failing;
    };
    // Shared: a stream that is read to its end in the background may outlive the client.
    class failing_stream final : public passing_stream {
      public:
        failing_stream(std::unique_ptr<data_stream> inner, std::shared_ptr<fault> due)
            : passing_stream(std::move(inner)), fault_(std::move(due)) {}
        task<io_result> read_some(asio::mutable_buffer buffer) override {
            const auto result = co_await inner().read_some(buffer);
            if (buffer.size() > block_header_size && fault_->after) {
                fault_->failing.emplace(*std::exchange(fault_->after, std::nullopt), 1);
            }
            co_return result;
        }

      private:
        const std::shared_ptr<fault> fault_;
    };

    std::unique_ptr<data_stream> wrap(std::unique_ptr<data_stream> stream) override {
        return std::make_unique<failing_stream>(std::move(stream), fault_);
    }

    std::vector<std::unique_ptr<client_socket>> sockets_;
    const std::shared_ptr<fault> fault_ = std::make_shared<fault>();
};

struct silent final : progress_sink {
    task<void> progress(std::string_view) override { co_return; }
};

TEST_F(out_of_memory, in_the_end_of_a_session_start) {
    shared = std::make_unique<host>(config, io.get_executor());
    const int rounds = fail_each([this](int after) {
        std::atomic<bool> failed{false};
        the_script().session_start = [&](op_handle op, auto) {
            failed = with_failure(after, [op] {
                zorvan_gridftp_server_finished_session_start(op, ZORVAN_SUCCESS, session_value(),
                                                             long_text.c_str(), long_text.c_str());
            });
        };
        ++expected_destroys;
        auto outcome = result_of(start(
            backend_session::start(promise_module(), *shared, strand, {"user", "127.0.0.1", "", {}, {}})));
        settle_threads();
        if (outcome.session) {
            EXPECT_EQ(outcome.user_name, long_text);
            EXPECT_EQ(outcome.home_directory, "/" + long_text);
            on_strand([&] { outcome.session.reset(); });
        } else {
            EXPECT_TRUE(failed);
            EXPECT_TRUE(is_out_of_memory(outcome.error));
        }
        return failed.load();
    });
    EXPECT_GE(rounds, 2);
}

TEST_F(out_of_memory, in_the_end_of_a_command) {
    log_in();
    const int rounds = fail_each([this](int after) {
        std::atomic<bool> failed{false};
        the_script().command = [&](op_handle op, auto) {
            failed = with_failure(after, [op] {
                zorvan_gridftp_server_finished_command(op, ZORVAN_SUCCESS, long_text.c_str());
            });
        };
        silent sink;
        const auto outcome = result_of(start(session->command({}, sink)));
        settle_threads();
        if (outcome.error) {
            EXPECT_TRUE(failed);
            EXPECT_TRUE(is_out_of_memory(outcome.error));
        } else {
            EXPECT_EQ(outcome.text, long_text);
        }
        return failed.load();
    });
    EXPECT_GE(rounds, 1);
}

TEST_F(out_of_memory, in_the_report_of_progress_loses_no_more_than_the_report) {
    log_in();
    struct sink final : progress_sink {
        task<void> progress(std::string_view text) override {
            EXPECT_EQ(text, long_text);
            co_return;
        }
    } progress;
    const int rounds = fail_each([&](int after) {
        std::atomic<bool> failed{false};
        the_script().command = [&](op_handle op, auto) {
            failed = with_failure(after, [op] {
                zorvan_gridftp_server_intermediate_command(op, ZORVAN_SUCCESS, long_text.c_str());
            });
            zorvan_gridftp_server_finished_command(op, ZORVAN_SUCCESS, nullptr);
        };
        EXPECT_FALSE(result_of(start(session->command({}, progress))).error);
        settle_threads();
        return failed.load();
    });
    EXPECT_GE(rounds, 2);
}

// A listing that lost entries must not look whole.
TEST_F(out_of_memory, in_a_listing_makes_it_a_failure) {
    log_in();
    std::vector<zorvan_gridftp_server_stat_t> batch(3);
    for (auto& record : batch) {
        record.name = long_text.c_str();
        record.symlink_target = long_text.c_str();
    }
    const int rounds = fail_each([&](int after) {
        std::atomic<bool> failed{false};
        the_script().stat = [&](op_handle op, auto) {
            failed = with_failure(after, [&] {
                zorvan_gridftp_server_finished_stat_partial(op, ZORVAN_SUCCESS, batch.data(), 3);
                zorvan_gridftp_server_finished_stat_partial(op, ZORVAN_SUCCESS, batch.data(), 3);
                zorvan_gridftp_server_finished_stat(op, ZORVAN_SUCCESS, batch.data(), 3);
            });
        };
        collecting_stat_sink sink;
        const auto outcome = result_of(start(session->stat("/bucket", false, sink)));
        settle_threads();
        if (outcome.error) {
            EXPECT_TRUE(failed);
            EXPECT_TRUE(is_out_of_memory(outcome.error));
        } else {
            EXPECT_EQ(sink.records.size(), 9u);
        }
        for (const auto& record : sink.records) {
            EXPECT_EQ(record.name, long_text);
            EXPECT_EQ(record.symlink_target, long_text);
        }
        return failed.load();
    });
    EXPECT_GE(rounds, 21);  // three arrays, two strings of each record
}

TEST_F(out_of_memory, an_error_of_the_back_end_is_still_an_error) {
    log_in();
    const int rounds = fail_each([this](int after) {
        std::atomic<bool> failed{false};
        the_script().send = [&](op_handle op, auto) {
            const auto error = new_error(long_text.c_str());
            failed = with_failure(after, [op, error] { zorvan_gridftp_server_finished_transfer(op, error); });
        };
        const auto outcome = result_of(start_send({"/bucket/file", {{}}}));
        settle_threads();
        EXPECT_TRUE(outcome.error);
        if (outcome.error && !failed) {
            EXPECT_EQ(outcome.error->friendly_lines, std::vector<std::string>{long_text});
        }
        EXPECT_EQ(zorvan_error_table_count(), 0u);
        return failed.load();
    });
    EXPECT_GE(rounds, 3);
}

TEST_F(out_of_memory, a_read_is_refused_or_called_back) {
    log_in();
    const auto data = pattern(3000);
    int refused = 0;
    const int rounds = fail_each([&](int after) {
        test_connector own_connector(strand);
        recorder reads;
        std::atomic<bool> failed{false};
        the_script().recv = [&](op_handle op, auto) {
            // What that begins waits for memory.
            (void)with_failure(after, [op] { zorvan_gridftp_server_begin_transfer(op, 0, nullptr); });
            // Past the calls that had no memory the transfer goes on as if nothing had been.
            std::size_t count = 0;
            for (bool ended = false; !ended;) {
                zorvan_result_t result = ZORVAN_SUCCESS;
                bool now = false;
                reads.around_call = [&](const std::function<void()>& call) {
                    now = with_failure(failed ? most_allocations : after, call);
                };
                result = reads.read(op, 1000);
                failed = failed || now;
                if (result != ZORVAN_SUCCESS) {
                    EXPECT_TRUE(now);
                    EXPECT_NE(result, ZORVAN_FAILURE);
                    EXPECT_NE(zorvan_error_peek(result), nullptr);
                    ++refused;
                    continue;
                }
                ended = reads.wait(++count).back().eof;
            }
            zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
        };
        auto client = own_connector.open();
        auto outcome = start(session->receive(sized(data.size()), own_connector, events));
        client->write(data);
        client->end();
        EXPECT_FALSE(result_of(std::move(outcome)).error);
        EXPECT_EQ(reads.data(), data);
        settle_threads();
        return failed.load();
    });
    EXPECT_GE(rounds, 1);
    EXPECT_GE(refused, 1);
}

TEST_F(out_of_memory, a_write_is_refused_or_called_back) {
    log_in();
    const auto data = pattern(5000);
    int refused = 0;
    const int rounds = fail_each([&](int after) {
        test_connector own_connector(strand);
        recorder writes;
        std::atomic<bool> failed{false};
        the_script().send = [&](op_handle op, auto) {
            zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
            for (std::size_t at = 0; at < data.size();) {
                const auto part = data.substr(at, 1000);
                zorvan_result_t result = ZORVAN_SUCCESS;
                bool now = false;
                writes.around_call = [&](const std::function<void()>& call) {
                    now = with_failure(failed ? most_allocations : after, call);
                };
                result = writes.write(op, part, static_cast<std::int64_t>(at));
                failed = failed || now;
                if (result == ZORVAN_SUCCESS) {
                    at += part.size();
                } else {
                    EXPECT_TRUE(now);
                    ++refused;
                }
            }
            writes.wait(writes.accepted());
            zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
        };
        auto client = own_connector.open();
        auto outcome = start(session->send({"/bucket/file", {{}}}, own_connector, events));
        EXPECT_EQ(client->read_all(), data);
        EXPECT_FALSE(result_of(std::move(outcome)).error);
        settle_threads();
        return failed.load();
    });
    EXPECT_GE(rounds, 1);
    EXPECT_GE(refused, 1);
}

// When a request is accepted, its callback needs no more memory: not on the thread that finishes either.
TEST_F(out_of_memory, a_finish_without_memory_calls_everything_back) {
    log_in();
    test_connector own_connector(strand);
    recorder reads;
    the_script().recv = [&](op_handle op, auto) {
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ(reads.read(op, 1000), ZORVAN_SUCCESS);
        }
        const auto error = new_error("enough");
        for (int after = 0; after < 10; ++after) {
            // The first counts, each gives the memory up at another place.
            with_failure(after, [&] { zorvan_gridftp_server_finished_transfer(op, error); });
        }
        for (const auto& call : reads.wait(20)) {
            EXPECT_TRUE(call.failed);
            EXPECT_TRUE(call.eof);
        }
    };
    EXPECT_TRUE(result_of(start(session->receive(sized(3000), own_connector, events))).error);
    settle_threads();
}

TEST_F(out_of_memory, queries_and_reports) {
    log_in();
    int string_rounds = 0;
    the_script().recv = [&](op_handle op, auto) {
        string_rounds = fail_each([&](int after) {
            char* text = nullptr;
            zorvan_result_t result = ZORVAN_SUCCESS;
            const bool failed = with_failure(
                after, [&] { result = zorvan_gridftp_server_get_config_string(nullptr, &text); });
            if (result == ZORVAN_SUCCESS) {
                EXPECT_STREQ(text, "the options");
            } else {
                EXPECT_EQ(result, ZORVAN_FAILURE);
                EXPECT_EQ(text, nullptr);
            }
            std::free(text);
            return failed;
        });
        (void)fail_each([&](int after) {
            return with_failure(after, [&] {
                zorvan_gridftp_server_update_range_recvd(op, after * 1000, 10);
                zorvan_gridftp_server_update_bytes_recvd(op, 10, 0);
                size_t block = 0;
                int count = 0;
                EXPECT_EQ(zorvan_gridftp_server_get_block_size(op, &block), ZORVAN_SUCCESS);
                EXPECT_EQ(zorvan_gridftp_server_get_optimal_concurrency(op, &count), ZORVAN_SUCCESS);
            });
        });
        zorvan_gridftp_server_finished_transfer(op, new_error());
    };
    EXPECT_TRUE(result_of(start_receive(sized(10))).error);
    settle_threads();
    EXPECT_LT(string_rounds, most_allocations);
}

// An abort comes at any time, also when there is no memory to say so with.
TEST_F(out_of_memory, in_an_abort_of_an_upload_in_extended_mode) {
    log_in();
    for (const std::optional<std::uint64_t> size : {std::optional<std::uint64_t>(3000), {}}) {
        SCOPED_TRACE(size ? "announced" : "not announced");
        const int rounds = fail_each([&](int after) {
            block_client client(strand);
            recorder reads;
            the_script().recv = [&](op_handle op, auto) {
                EXPECT_EQ(reads.read(op, 1000), ZORVAN_SUCCESS);
                zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
                EXPECT_TRUE(reads.wait(1).front().failed);
                zorvan_gridftp_server_finished_transfer(op, new_error());
            };
            events.announced = 0;
            auto outcome = start(session->receive(block_client::upload(size), client, events));
            while (events.announced == 0) {
                std::this_thread::yield();
            }
            bool failed = false;
            on_strand([&] { failed = with_failure(after, [this] { session->abort(); }); });
            const auto result = result_of(std::move(outcome));
            settle_threads();
            EXPECT_TRUE(result.aborted);
            EXPECT_TRUE(result.error);
            on_strand([&] { client.close(); });
            return failed;
        });
        EXPECT_GE(rounds, 1);
    }
}

// Why there is no connection is not lost with the memory to say it.
TEST_F(out_of_memory, in_a_connect_that_fails) {
    struct failing_connector final : data_connector {
        task<connect_result> connect() override {
            connect_result result;
            result.error = long_text;
            failing.emplace(0, 1);
            co_return result;
        }
        void cancel() noexcept override {}
        std::optional<FailingAllocations> failing;
    };
    log_in();
    const auto ends = [this](auto begin) {
        failing_connector own_connector;
        const auto result = result_of(begin(own_connector));
        EXPECT_TRUE(is_out_of_memory(result.error));
        settle_threads();
    };
    recorder writes;
    the_script().send = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        (void)writes.write(op, long_text, 0);
        (void)writes.wait(writes.accepted());
        zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
    };
    ends([this](auto& from) { return start(session->send({"/bucket/file", {{}}}, from, events)); });
    recorder reads;
    the_script().recv = [&](op_handle op, auto) {
        zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
        (void)reads.read(op, 1000);
        (void)reads.wait(reads.accepted());
        zorvan_gridftp_server_finished_transfer(op, new_error());
    };
    ends([this](auto& from) { return start(session->receive(sized(3000), from, events)); });
}

// A buffer that was filled is in no queue any more: it is called back all the same.
TEST_F(out_of_memory, in_the_noting_of_a_block_in_extended_mode) {
    log_in();
    const auto data = pattern(3000);
    // In the sets of what was taken and delivered, and of what came early.
    for (long after = 0; after < 3; ++after) {
        SCOPED_TRACE(after);
        block_client client(strand);
        client.fail_after_data(after);
        recorder reads;
        the_script().recv = [&](op_handle op, auto) {
            zorvan_gridftp_server_begin_transfer(op, 0, nullptr);
            for (int i = 0; i < 4; ++i) {
                (void)reads.read(op, 1000);
            }
            (void)reads.wait(reads.accepted());
            zorvan_gridftp_server_finished_transfer(op, ZORVAN_SUCCESS);
        };
        // The first block comes before its turn.
        auto& connection = client.open();
        connection.write(block(std::string_view(data).substr(1000, 1000), 1000) +
                         block(std::string_view(data).substr(0, 1000), 0) +
                         block(std::string_view(data).substr(2000), 2000) + end_of_file(1));
        const auto result = result_of(start(session->receive(block_client::upload(3000), client, events)));
        EXPECT_TRUE(is_out_of_memory(result.error));
        connection.close();
        settle_threads();
        on_strand([&] { client.close(); });
    }
}

// No thread to be had is no reason to lose an operation.
TEST_F(out_of_memory, an_entry_waits_for_a_thread) {
    log_in();
    the_script().command = [](op_handle op, auto) {
        zorvan_gridftp_server_finished_command(op, ZORVAN_SUCCESS, "done");
    };
    while (shared->counters().pool_threads != 0) {
        std::this_thread::yield();
    }
    silent sink;
    std::future<command_outcome> outcome;
    {
        const zorvan::test::FailingThreads none(EAGAIN);
        outcome = start(session->command({}, sink));
        while (none.refused() < 3) {
            std::this_thread::yield();
        }
    }
    EXPECT_EQ(result_of(std::move(outcome)).text, "done");
}

}  // namespace
