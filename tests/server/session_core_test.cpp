// Sessions, listings and commands at the data storage interface, and the loader.
#include <sys/stat.h>

#include "core_fixture.h"
#include "operation.h"

using namespace zorvan::gridftp;
using namespace zorvan::gridftp::testing_support;

namespace {

class session_core_test : public core_test {
  protected:
    login_outcome try_log_in() {
        if (!shared) {
            shared = std::make_unique<host>(config, io.get_executor());
        }
        session_record record{"alice", "192.0.2.7", "physics", "CN=alice", "{\"policy\":1}"};
        return result_of(start(backend_session::start(promise_module(), *shared, strand, record)));
    }
};

struct silent_sink final : progress_sink {
    task<void> progress(std::string_view text) override {
        texts.emplace_back(text);
        co_return;
    }
    std::vector<std::string> texts;
};

/// Takes entries only as the test allows.
class gated_sink final : public stat_sink {
  public:
    explicit gated_sink(const asio::any_io_executor& strand) : event_(strand) {}
    task<bool> entries(std::span<const stat_record> batch) override {
        while (!open_) {
            co_await event_.wait();
        }
        for (const auto& record : batch) {
            names.push_back(record.name);
        }
        co_return true;
    }
    void open() {
        open_ = true;
        event_.notify();
    }
    std::vector<std::string> names;

  private:
    std::atomic<bool> open_{false};
    async_event event_;
};

TEST_F(session_core_test, the_back_end_learns_who_logs_in) {
    the_script().session_start = [](op_handle op, const zorvan_gridftp_server_session_info_t* info) {
        EXPECT_STREQ(info->user_name, "alice");
        EXPECT_STREQ(info->client_address, "192.0.2.7");
        EXPECT_STREQ(info->collection, "physics");
        EXPECT_STREQ(info->certificate_subject, "CN=alice");
        char* policy = nullptr;
        EXPECT_EQ(zorvan_gridftp_server_get_config_data(op, "config", &policy), ZORVAN_SUCCESS);
        EXPECT_STREQ(policy, "{\"policy\":1}");
        std::free(policy);
        zorvan_gridftp_server_finished_session_start(op, ZORVAN_SUCCESS, session_value(), "Alice A.",
                                                     "/home");
    };
    auto outcome = try_log_in();
    ASSERT_NE(outcome.session, nullptr);
    EXPECT_EQ(outcome.user_name, "Alice A.");
    EXPECT_EQ(outcome.home_directory, "/home");
    session = std::move(outcome.session);
    expected_destroys = 1;
}

TEST_F(session_core_test, success_without_a_session_is_a_refusal) {
    the_script().session_start = [](op_handle op, auto) {
        zorvan_gridftp_server_finished_session_start(op, ZORVAN_SUCCESS, nullptr, nullptr, nullptr);
    };
    const auto outcome = try_log_in();
    EXPECT_EQ(outcome.session, nullptr);
    EXPECT_EQ(outcome.error.ftp_code, 530);
    EXPECT_EQ(outcome.error.text_lines, std::vector<std::string>{"no storage session for this collection"});
}

TEST_F(session_core_test, a_failure_with_a_session_destroys_it) {
    the_script().session_start = [](op_handle op, auto) {
        zorvan_gridftp_server_finished_session_start(op, new_error("no keys"), session_value(), nullptr,
                                                     nullptr);
    };
    const auto outcome = try_log_in();
    EXPECT_EQ(outcome.session, nullptr);
    EXPECT_EQ(outcome.error.friendly_lines, std::vector<std::string>{"no keys"});
    expected_destroys = 1;
}

TEST_F(session_core_test, the_session_is_destroyed_after_its_last_operation_ended) {
    log_in();
    flag finished;
    flag return_now;
    std::atomic<bool> returned{false};
    the_script().session_destroy = [&](void*) {
        EXPECT_TRUE(returned);
        ++destroyed_sessions;
    };
    the_script().command = [&](op_handle op, auto) {
        zorvan_gridftp_server_finished_command(op, ZORVAN_SUCCESS, nullptr);
        finished.raise();
        return_now.wait();
        returned = true;
    };
    silent_sink sink;
    EXPECT_FALSE(result_of(start(session->command({}, sink))).error);
    finished.wait();
    close_session();
    EXPECT_EQ(destroyed_sessions, 0);
    EXPECT_EQ(shared->counters().sessions, 1u);
    return_now.raise();
    settle();
    EXPECT_EQ(destroyed_sessions, 1);
}

TEST_F(session_core_test, entries_of_one_session_are_called_one_at_a_time) {
    log_in();
    std::atomic<int> inside{0};
    flag return_now;
    std::atomic<int> calls{0};
    the_script().command = [&](op_handle op, auto) {
        EXPECT_EQ(++inside, 1);
        zorvan_gridftp_server_finished_command(op, ZORVAN_SUCCESS, nullptr);
        if (++calls == 1) {
            return_now.wait();
        }
        --inside;
    };
    silent_sink sink;
    EXPECT_FALSE(result_of(start(session->command({}, sink))).error);
    auto second = start(session->command({}, sink));
    EXPECT_EQ(second.wait_for(50ms), std::future_status::timeout);
    return_now.raise();
    EXPECT_FALSE(result_of(std::move(second)).error);
    settle();
}

// It is the finish that a command's coroutine waits for: the entry's return would wake it for nothing, in the
// middle of the back end's work.
TEST_F(session_core_test, an_entry_that_returns_wakes_only_who_waits_for_it) {
    shared = std::make_unique<host>(config, io.get_executor());
    const async_event event(strand);
    const auto soon = [] { return std::chrono::steady_clock::now(); };
    const auto late = [] { return std::chrono::steady_clock::now() + patience; };
    for (const bool asks : {false, true}) {
        flag inside;
        flag return_now;
        auto core = std::make_shared<session_core>(promise_module(), *shared, session_record{});
        auto op = operation::create(operation_kind::command, std::move(core), event);
        op->start([&](op_handle) {
            inside.raise();
            return_now.wait();
        });
        inside.wait();
        if (asks) {
            EXPECT_FALSE(op->entry_over());
        }
        return_now.raise();
        settle_threads();
        EXPECT_EQ(result_of(start(event.wait_until(asks ? late() : soon()))), asks);
        EXPECT_TRUE(op->entry_over());
        zorvan_gridftp_server_finished_command(op->handle(), ZORVAN_SUCCESS, nullptr);
        EXPECT_TRUE(result_of(start(event.wait_until(late()))));
    }
}

TEST_F(session_core_test, a_command_gets_its_arguments_and_reports_progress) {
    log_in();
    the_script().command = [](op_handle op, const zorvan_gridftp_server_command_info_t* info) {
        EXPECT_EQ(info->command, ZORVAN_GRIDFTP_SERVER_COMMAND_CKSM);
        EXPECT_STREQ(info->pathname, "/b/f");
        EXPECT_STREQ(info->cksm_alg, "MD5");
        EXPECT_EQ(info->cksm_offset, 3);
        EXPECT_EQ(info->cksm_length, 7);
        EXPECT_EQ(info->from_pathname, nullptr);
        int interval = 0;
        EXPECT_EQ(zorvan_gridftp_server_get_update_interval(op, &interval), ZORVAN_SUCCESS);
        EXPECT_EQ(interval, 5);
        std::string text = "one";
        zorvan_gridftp_server_intermediate_command(op, ZORVAN_SUCCESS, text.c_str());
        text = "two";
        zorvan_gridftp_server_intermediate_command(op, ZORVAN_SUCCESS, text.c_str());
        zorvan_gridftp_server_finished_command(op, ZORVAN_SUCCESS, "sum");
    };
    command_request request;
    request.command = ZORVAN_GRIDFTP_SERVER_COMMAND_CKSM;
    request.path = "/b/f";
    request.checksum_algorithm = "MD5";
    request.checksum_offset = 3;
    request.checksum_length = 7;
    request.wants_progress = true;
    silent_sink sink;
    const auto outcome = result_of(start(session->command(request, sink)));
    EXPECT_EQ(outcome.text, "sum");
    EXPECT_EQ(sink.texts, (std::vector<std::string>{"one", "two"}));
}

TEST_F(session_core_test, the_plain_failure_is_told_as_such) {
    log_in();
    the_script().command = [](op_handle op, auto) {
        zorvan_gridftp_server_finished_command(op, ZORVAN_FAILURE, nullptr);
    };
    silent_sink sink;
    const auto outcome = result_of(start(session->command({}, sink)));
    ASSERT_TRUE(outcome.error);
    EXPECT_TRUE(outcome.error->plain_failure);
}

TEST_F(session_core_test, an_ftp_response_keeps_its_code_word_lines_and_cause) {
    log_in();
    the_script().command = [](op_handle op, auto) {
        auto* cause = zorvan_error_construct_error(nullptr, nullptr, 1, "a", "b", 1, "AccessDenied\nmore");
        zorvan_gridftp_server_finished_command(
            op,
            zorvan_error_put(zorvan_gfs_ftp_response_error_construct(nullptr, cause, 553, "PERMISSION_DENIED",
                                                                     "first\r\nsecond\n")),
            nullptr);
    };
    silent_sink sink;
    const auto outcome = result_of(start(session->command({}, sink)));
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->ftp_code, 553);
    EXPECT_EQ(outcome.error->ftp_word, "PERMISSION_DENIED");
    EXPECT_EQ(outcome.error->text_lines, (std::vector<std::string>{"first", "second"}));
    EXPECT_EQ(outcome.error->cause_first_line, "AccessDenied");
}

TEST_F(session_core_test, entries_stream_in_order_and_an_error_comes_after_them) {
    log_in();
    the_script().stat = [](op_handle op, const zorvan_gridftp_server_stat_info_t* info) {
        EXPECT_STREQ(info->pathname, "/bucket");
        EXPECT_EQ(info->file_only, 0);
        for (int i = 0; i < 10; ++i) {
            std::string name = "name" + std::to_string(i);
            zorvan_gridftp_server_stat_t record{};
            record.name = name.c_str();
            record.mode = S_IFREG | 0644;
            record.size = i;
            record.mtime = 1000 + i;
            zorvan_gridftp_server_finished_stat_partial(op, ZORVAN_SUCCESS, &record, 1);
        }
        zorvan_gridftp_server_finished_stat(op, new_error("half"), nullptr, 0);
    };
    collecting_stat_sink sink;
    const auto outcome = result_of(start(session->stat("/bucket", false, sink)));
    ASSERT_EQ(sink.records.size(), 10u);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(sink.records[static_cast<std::size_t>(i)].name, "name" + std::to_string(i));
        EXPECT_EQ(sink.records[static_cast<std::size_t>(i)].size, i);
        EXPECT_EQ(sink.records[static_cast<std::size_t>(i)].mtime, 1000 + i);
    }
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.entries, 10u);
}

TEST_F(session_core_test, a_slow_client_holds_the_listing_up) {
    log_in();
    std::atomic<int> handed_over{0};
    flag more_than_wait;
    the_script().stat = [&](op_handle op, auto) {
        std::vector<zorvan_gridftp_server_stat_t> batch(512);
        for (auto& record : batch) {
            record.name = "x";
        }
        for (int i = 0; i < 6; ++i) {
            if (i == 2) {
                more_than_wait.raise();
            }
            zorvan_gridftp_server_finished_stat_partial(op, ZORVAN_SUCCESS, batch.data(), 512);
            handed_over += 512;
        }
        zorvan_gridftp_server_finished_stat(op, ZORVAN_SUCCESS, nullptr, 0);
    };
    gated_sink sink(strand);
    auto outcome = start(session->stat("/bucket", false, sink));
    more_than_wait.wait();
    EXPECT_EQ(outcome.wait_for(100ms), std::future_status::timeout);
    EXPECT_EQ(handed_over, 1024) << "the third batch blocks its caller";
    sink.open();
    EXPECT_FALSE(result_of(std::move(outcome)).error);
    EXPECT_EQ(sink.names.size(), 6u * 512u);
}

TEST_F(session_core_test, a_client_that_left_lets_the_listing_run_out) {
    log_in();
    flag waiting;
    the_script().stat = [&](op_handle op, auto) {
        std::vector<zorvan_gridftp_server_stat_t> batch(2000);
        for (auto& record : batch) {
            record.name = "x";
        }
        waiting.raise();
        zorvan_gridftp_server_finished_stat_partial(op, ZORVAN_SUCCESS, batch.data(), 2000);
        zorvan_gridftp_server_finished_stat_partial(op, ZORVAN_SUCCESS, batch.data(), 2000);
        zorvan_gridftp_server_finished_stat(op, ZORVAN_SUCCESS, batch.data(), 2000);
    };
    gated_sink sink(strand);
    auto outcome = start(session->stat("/bucket", false, sink));
    waiting.wait();
    on_strand([this] { session->client_gone(); });
    sink.open();
    EXPECT_TRUE(result_of(std::move(outcome)).aborted);
    EXPECT_LE(sink.names.size(), 2000u);
}

TEST_F(session_core_test, any_finish_call_ends_any_operation) {
    log_in();
    the_script().stat = [](op_handle op, auto) {
        zorvan_gridftp_server_finished_transfer(op, new_error("s"));
    };
    the_script().command = [](op_handle op, auto) {
        zorvan_gridftp_server_finished_stat(op, new_error("c"), nullptr, 0);
    };
    collecting_stat_sink sink;
    EXPECT_EQ(result_of(start(session->stat("/", true, sink))).error->friendly_lines.front(), "s");
    silent_sink progress;
    EXPECT_EQ(result_of(start(session->command({}, progress))).error->friendly_lines.front(), "c");
}

TEST(loader, says_which_file_and_why) {
    const std::string directory = ZORVAN_TEST_MODULE_DIR;
    const auto file = [&](const std::string& name) {
        return directory + "/libzorvan_gridftp_server_" + name + ".so";
    };
    std::string error;
    EXPECT_EQ(backend::load(directory, "absent", {}, error), nullptr);
    EXPECT_EQ(error, file("absent") + ": no such file");
    EXPECT_EQ(backend::load(directory, "nosymbol", {}, error), nullptr);
    EXPECT_EQ(error, file("nosymbol") + ": it has no symbol zorvan_gridftp_server_nosymbol_module");
    EXPECT_EQ(backend::load(directory, "refusing", "a.conf", error), nullptr);
    EXPECT_EQ(error, file("refusing") + ": cannot use the options \"a.conf\"");
    EXPECT_EQ(backend::load(directory, "../evil", {}, error), nullptr);
    EXPECT_NE(error.find("letters, digits and underscores"), std::string::npos);
    EXPECT_EQ(zorvan_error_table_count(), 0u);
}

TEST(loader, activates_and_deactivates) {
    std::string error;
    auto loaded = backend::load(ZORVAN_TEST_MODULE_DIR, "memory", {}, error);
    ASSERT_NE(loaded, nullptr) << error;
    EXPECT_TRUE(loaded->has(ZORVAN_GRIDFTP_SERVER_DSI_SENDER));
    EXPECT_FALSE(loaded->has(ZORVAN_GRIDFTP_SERVER_DSI_DURABLE_RANGES));
    loaded->deactivate();
    zorvan_extension_handle_t use = nullptr;
    EXPECT_EQ(zorvan_extension_registry_lookup(&use, &zorvan_i_gfs_dsi_registry, "memory"), nullptr);
    auto again = backend::load(ZORVAN_TEST_MODULE_DIR, "memory", {}, error);
    ASSERT_NE(again, nullptr) << error;
    again->deactivate();
}

}  // namespace
