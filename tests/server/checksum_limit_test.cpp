// Checksums that nobody waits for any more, and how many of them one user may have.
#include "core_fixture.h"
#include "user_limit.h"

using namespace zorvan::gridftp;
using namespace zorvan::gridftp::testing_support;

namespace {

struct no_progress final : progress_sink {
    task<void> progress(std::string_view) override { co_return; }
};

class checksum_limit_test : public core_test {
  protected:
    void SetUp() override {
        core_test::SetUp();
        config.checksums_per_user = 2;
        the_script().command = [this](op_handle op, const zorvan_gridftp_server_command_info_t*) {
            const std::lock_guard lock(mutex_);
            running_.push_back(op);
            changed_.notify_all();
        };
    }

    /// Another session of some user.
    std::unique_ptr<backend_session> another(const std::string& user) {
        auto outcome = result_of(start(
            backend_session::start(promise_module(), *shared, strand, {user, "127.0.0.1", "", {}, {}})));
        EXPECT_NE(outcome.session, nullptr);
        ++expected_destroys;
        return std::move(outcome.session);
    }
    void close(std::unique_ptr<backend_session>& other) {
        on_strand([&other] { other.reset(); });
    }
    std::future<command_outcome> begin(backend_session& on,
                                       int command = ZORVAN_GRIDFTP_SERVER_COMMAND_CKSM) {
        command_request request;
        request.command = command;
        request.path = "/b/k";
        request.checksum_algorithm = "MD5";
        return start(on.command(std::move(request), sink_));
    }
    /// A checksum whose client has sent ABOR; its work goes on.
    void leave_behind(backend_session& on) {
        const auto before = running();
        auto checksum = begin(on);
        wait_for_running(before + 1);
        on_strand([&on] { on.abort(); });
        const auto outcome = result_of(std::move(checksum));
        EXPECT_TRUE(outcome.aborted);
        EXPECT_EQ(outcome.text, std::nullopt);
        EXPECT_FALSE(outcome.error);
    }
    static bool refused(std::future<command_outcome> asked) {
        const auto outcome = result_of(std::move(asked));
        return outcome.error && outcome.error->ftp_code == 450;
    }
    /// Wait until no operation is left, and then for the rest: abandoned ones are not waited for otherwise.
    void settle() {
        if (session) close_session();
        const auto end = std::chrono::steady_clock::now() + patience;
        while (shared->counters().operations != 0 && std::chrono::steady_clock::now() < end)
            std::this_thread::yield();
        core_test::settle();
    }
    std::size_t running() {
        const std::lock_guard lock(mutex_);
        return running_.size();
    }
    /// Wait until so many entries were called that are not finished.
    void wait_for_running(std::size_t count) {
        std::unique_lock lock(mutex_);
        EXPECT_TRUE(changed_.wait_for(lock, patience, [&] { return running_.size() >= count; }));
    }
    /// Let the back end finish the oldest one.
    void finish_one(const char* text = "sum") {
        wait_for_running(1);
        op_handle op = nullptr;
        {
            const std::lock_guard lock(mutex_);
            op = running_.front();
            running_.erase(running_.begin());
        }
        zorvan_gridftp_server_finished_command(op, ZORVAN_SUCCESS, text);
    }

  private:
    no_progress sink_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<op_handle> running_;
};

TEST_F(checksum_limit_test, an_abort_leaves_the_checksum_behind) {
    log_in();
    leave_behind(*session);
    EXPECT_EQ(shared->counters().checksums, 1u);
    EXPECT_EQ(shared->counters().operations, 1u);
    // The session is free for the next command.
    auto next = begin(*session, ZORVAN_GRIDFTP_SERVER_COMMAND_MKD);
    wait_for_running(2);
    finish_one();
    EXPECT_EQ(shared->counters().checksums, 0u);
    finish_one();
    EXPECT_FALSE(result_of(std::move(next)).aborted);
    settle();
}

TEST_F(checksum_limit_test, so_does_a_lost_client_and_the_session_lives_until_the_end) {
    log_in();
    auto checksum = begin(*session);
    wait_for_running(1);
    on_strand([this] { session->client_gone(); });
    EXPECT_TRUE(result_of(std::move(checksum)).aborted);
    close_session();
    EXPECT_EQ(destroyed_sessions, 0);
    EXPECT_EQ(shared->counters().sessions, 1u);
    finish_one();
    settle();
    EXPECT_EQ(destroyed_sessions, 1);
}

TEST_F(checksum_limit_test, commands_that_change_something_are_waited_for) {
    log_in();
    for (const int command : {ZORVAN_GRIDFTP_SERVER_COMMAND_MKD, ZORVAN_GRIDFTP_SERVER_COMMAND_RMD,
                              ZORVAN_GRIDFTP_SERVER_COMMAND_DELE, ZORVAN_GRIDFTP_SERVER_COMMAND_RNTO,
                              ZORVAN_GRIDFTP_SERVER_COMMAND_CUSTOM}) {
        auto asked = begin(*session, command);
        wait_for_running(1);
        abort();
        for (int turn = 0; turn < 20; ++turn)
            on_strand([] {});
        EXPECT_EQ(asked.wait_for(0s), std::future_status::timeout) << command;
        finish_one("text");
        const auto outcome = result_of(std::move(asked));
        EXPECT_TRUE(outcome.aborted);
        EXPECT_EQ(outcome.text, "text") << "what came of it is known";
    }
    EXPECT_EQ(shared->counters().checksums, 0u);
    settle();
}

TEST_F(checksum_limit_test, the_limit_counts_all_sessions_of_a_user) {
    log_in();
    auto second = another("user");
    leave_behind(*session);
    auto waited_for = begin(*second);
    wait_for_running(2);
    auto third = another("user");
    const auto outcome = result_of(begin(*third));
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->ftp_code, 450);
    EXPECT_EQ(outcome.error->text_lines,
              std::vector<std::string>{
                  "2 checksums are running for you, as many as checksums_per_user allows; try again when one "
                  "has ended."});
    EXPECT_EQ(running(), 2u) << "the back end was not asked";
    EXPECT_TRUE(refused(begin(*session)));
    // Other commands are not counted.
    auto other = begin(*third, ZORVAN_GRIDFTP_SERVER_COMMAND_MKD);
    wait_for_running(3);
    finish_one();
    finish_one();
    finish_one();
    EXPECT_EQ(result_of(std::move(waited_for)).text, "sum");
    EXPECT_FALSE(result_of(std::move(other)).error);
    close(second);
    close(third);
    settle();
}

TEST_F(checksum_limit_test, users_do_not_count_against_each_other) {
    log_in();
    auto bob = another("bob");
    leave_behind(*session);
    leave_behind(*session);
    EXPECT_TRUE(refused(begin(*session)));
    leave_behind(*bob);
    leave_behind(*bob);
    EXPECT_TRUE(refused(begin(*bob)));
    finish_one();
    finish_one();
    EXPECT_TRUE(refused(begin(*bob))) << "what has ended were the other's";
    leave_behind(*session);
    while (running() > 0)
        finish_one();
    close(bob);
    settle();
}

TEST_F(checksum_limit_test, the_finished_call_makes_room_for_another) {
    log_in();
    leave_behind(*session);
    leave_behind(*session);
    EXPECT_TRUE(refused(begin(*session)));
    finish_one();
    auto checksum = begin(*session);
    wait_for_running(2);
    finish_one();
    finish_one("the sum");
    EXPECT_EQ(result_of(std::move(checksum)).text, "the sum");
    EXPECT_EQ(shared->counters().checksums, 0u);
    settle();
}

TEST_F(checksum_limit_test, a_failed_checksum_makes_room_too) {
    log_in();
    for (int i = 0; i < 5; ++i) {
        auto checksum = begin(*session);
        wait_for_running(1);
        finish_one(nullptr);
        EXPECT_FALSE(refused(std::move(checksum)));
    }
    settle();
}

TEST_F(checksum_limit_test, a_shutdown_does_not_wait_for_what_was_left_behind) {
    log_in();
    leave_behind(*session);
    close_session();
    // Hours pass before this gives up by itself.
    EXPECT_FALSE(shared->wait_idle(3h));
    finish_one();
    settle();
}

TEST_F(checksum_limit_test, but_for_everything_else) {
    log_in();
    auto second = another("user");
    leave_behind(*session);
    auto command = begin(*second, ZORVAN_GRIDFTP_SERVER_COMMAND_RNTO);
    wait_for_running(2);
    close_session();
    auto ended = std::async(std::launch::async, [this] { return shared->wait_idle(3h); });
    finish_one();
    wait_for_running(1);
    EXPECT_EQ(ended.wait_for(0s), std::future_status::timeout);
    finish_one();
    result_of(std::move(command));
    close(second);
    ended.get();
    settle();
}

TEST(user_limit_test, places_are_given_back_once) {
    user_limit limit(1);
    auto first = limit.take("a");
    EXPECT_TRUE(first);
    EXPECT_FALSE(limit.take("a"));
    auto moved = std::move(first);
    EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): what is left is an empty place
    EXPECT_EQ(limit.taken(), 1u);
    auto other = limit.take("b");
    EXPECT_EQ(limit.taken(), 2u);
    moved = std::move(other);
    EXPECT_EQ(limit.taken(), 1u);
    EXPECT_TRUE(limit.take("a"));
    moved.release();
    moved.release();
    EXPECT_EQ(limit.taken(), 0u);
}

}  // namespace
