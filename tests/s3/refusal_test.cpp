// Uploads that the store refuses before their body or in the middle of it, and how it parts with the
// connection.
#include <future>

#include "script_fixture.h"

namespace {

using s3test::error_reply;
using s3test::Recorder;
using s3test::reply;
using s3test::Step;

constexpr size_t kMiB = 1024 * 1024;

enum class Parting {
    kKeeps,   // reads what still comes and waits for the client to leave
    kCloses,  // ends the connection at once, unread bytes and all
    kResets
};

struct Refusal {
    const char* name;
    std::string answer;
    S3Status status;
    int retryable;
};

std::vector<Refusal> refusals(const std::string& elsewhere) {
    return {
        {"403", error_reply(403, "AccessDenied"), S3StatusErrorAccessDenied, 0},
        {"400", error_reply(400, "EntityTooLarge"), S3StatusErrorEntityTooLarge, 0},
        {"413 without a document", reply(413), S3StatusHttpErrorUnknown, 0},
        {"500", error_reply(500, "InternalError"), S3StatusErrorInternalError, 1},
        {"503", error_reply(503, "SlowDown"), S3StatusErrorSlowDown, 1},
        {"507", reply(507, {}, "<html>full</html>"), S3StatusHttpErrorUnknown, 0},
        {"redirect to another host", reply(307, {{"Location", "http://" + elsewhere + "/bucket/key"}}),
         S3StatusHttpErrorMovedTemporarily, 0},
    };
}

class Refused : public s3test::Scripted, public ::testing::WithParamInterface<Parting> {
  protected:
    void SetUp() override {
        Scripted::SetUp();
        S3_set_option(S3OptionStallSeconds, 30);
    }
    Step part(Step step) const {
        step.close = GetParam() == Parting::kCloses;
        step.reset = GetParam() == Parting::kResets;
        return step;
    }
    // The answer in the middle of a body is heard, unless a reset overtakes it while the client is sending;
    // then the request failed for good.
    static void expect_answer(const Recorder& recorder, S3Status status) {
        const bool overtaken = GetParam() == Parting::kResets && recorder.status == S3StatusInternalError;
        if (!overtaken) {
            EXPECT_EQ(recorder.status, status);
        }
    }
    // The next request must meet a clean connection.
    void expect_next_request_unharmed() {
        const int before = server_.connections();
        server_.then(reply(200, {{"ETag", "\"e\""}}));
        const Recorder next = head("key");
        EXPECT_EQ(next.status, S3StatusOK);
        EXPECT_EQ(next.etag, "\"e\"");
        EXPECT_EQ(server_.connections(), before + 1);
    }
};

TEST_P(Refused, BeforeTheBodyNothingIsTaken) {
    s3test::ScriptServer other;
    for (const Refusal& refusal : refusals(other.host())) {
        SCOPED_TRACE(refusal.name);
        Step step;
        step.reply = refusal.answer;
        step.before_body = true;
        server_.then(part(step));
        Recorder recorder;
        recorder.body = std::string(8 * kMiB, 'b');
        const size_t asked = server_.requests().size() + 1;
        put_from(recorder, "key", recorder.body.size());
        EXPECT_EQ(recorder.status, refusal.status);
        EXPECT_EQ(recorder.events, std::vector<std::string>{"complete"});
        EXPECT_EQ(recorder.body_at, 0u);
        EXPECT_EQ(recorder.retryable_in_complete, refusal.retryable);
        EXPECT_EQ(server_.requests().size(), asked);
        expect_next_request_unharmed();
    }
    EXPECT_EQ(other.connections(), 0);
}

TEST_P(Refused, InTheMiddleOfTheBodyTheAnswerIsHeardAndFinal) {
    s3test::ScriptServer other;
    for (const Refusal& refusal : refusals(other.host())) {
        SCOPED_TRACE(refusal.name);
        Step step;
        step.reply = refusal.answer;
        step.reply_after_body_bytes = static_cast<long>(2 * kMiB);
        server_.then(part(step));
        Recorder recorder;
        recorder.body = std::string(64 * kMiB, 'b');
        const size_t asked = server_.requests().size() + 1;
        put_from(recorder, "key", recorder.body.size());
        expect_answer(recorder, refusal.status);
        EXPECT_EQ(recorder.events, (std::vector<std::string>{"body", "complete"}));
        EXPECT_LT(recorder.body_at, recorder.body.size());
        EXPECT_EQ(recorder.retryable_in_complete, 0);
        EXPECT_EQ(S3_status_is_retryable(recorder.status), 0);
        EXPECT_EQ(server_.requests().size(), asked);
        expect_next_request_unharmed();
    }
    EXPECT_EQ(other.connections(), 0);
}

// The answer comes while the client waits for its own caller's bytes, as it does most of the time.
TEST_P(Refused, TheAnswerIsHeardAfterWaitingForTheCaller) {
    Step step;
    std::promise<void> waiting;
    const std::shared_future<void> client_waits = waiting.get_future().share();
    step.answer = [client_waits](const s3test::SeenRequest&) {
        client_waits.wait();
        return error_reply(400, "EntityTooLarge");
    };
    step.reply_after_body_bytes = static_cast<long>(2 * kMiB);
    std::promise<void> answered;
    step.parted = [&] { answered.set_value(); };
    server_.then(part(step));
    Recorder recorder;
    recorder.body = std::string(64 * kMiB, 'b');
    bool asked = false;
    recorder.on_body = [&] {
        if (recorder.body_at < 2 * kMiB || asked) return;
        asked = true;
        waiting.set_value();
        answered.get_future().wait();
    };
    put_from(recorder, "key", recorder.body.size());
    expect_answer(recorder, S3StatusErrorEntityTooLarge);
    EXPECT_LE(recorder.body_at, 4 * kMiB);
    EXPECT_EQ(recorder.retryable_in_complete, 0);
}

TEST_P(Refused, ASmallBodyIsSentAgainOrRefusedForGood) {
    // The client has sent all of it before the server has a part of it: one write.
    const std::string body(60'000, 's');
    Step again;
    again.reply = error_reply(503, "SlowDown");
    again.reply_after_body_bytes = 20'000;
    server_.then(part(again)).then(reply(200, {{"ETag", "\"e\""}}));
    EXPECT_EQ(put("key", body).status, S3StatusOK);
    EXPECT_TRUE(server_.requests().back().body == body);
    Step final;
    final.reply = error_reply(403, "AccessDenied");
    final.reply_after_body_bytes = 20'000;
    server_.then(part(final));
    const size_t asked = server_.requests().size() + 1;
    EXPECT_EQ(put("key", body).status, S3StatusErrorAccessDenied);
    EXPECT_EQ(server_.requests().size(), asked);
}

// A redirect inside the store is followed with an untouched body only.
TEST_P(Refused, ARedirectInTheMiddleOfTheBodyIsReported) {
    Step step;
    step.reply = reply(307, {{"Location", "/bucket/other"}});
    step.reply_after_body_bytes = static_cast<long>(2 * kMiB);
    server_.then(part(step));
    Recorder recorder;
    recorder.body = std::string(64 * kMiB, 'b');
    put_from(recorder, "key", recorder.body.size());
    expect_answer(recorder, S3StatusHttpErrorMovedTemporarily);
    EXPECT_EQ(server_.requests().size(), 1u);
}

// A store that claims success without having seen the object.
TEST_P(Refused, SuccessBeforeTheBodyIsNoSuccess) {
    Step step;
    step.reply = reply(200, {{"ETag", "\"e\""}});
    step.before_body = true;
    server_.then(part(step));
    Recorder early;
    early.body = std::string(8 * kMiB, 'b');
    put_from(early, "key", early.body.size());
    EXPECT_EQ(early.status, S3StatusInternalError);
    EXPECT_EQ(early.message, "the store answered before it had the whole body");
    EXPECT_FALSE(early.saw("properties"));
    EXPECT_EQ(early.retryable_in_complete, 0);
    expect_next_request_unharmed();
}

std::string name_of(const ::testing::TestParamInfo<Parting>& parting) {
    switch (parting.param) {
        case Parting::kKeeps:
            return "Keeps";
        case Parting::kCloses:
            return "Closes";
        default:
            return "Resets";
    }
}

INSTANTIATE_TEST_SUITE_P(Partings, Refused,
                         ::testing::Values(Parting::kKeeps, Parting::kCloses, Parting::kResets), &name_of);

}  // namespace
