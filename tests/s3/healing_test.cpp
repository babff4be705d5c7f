// Downloads from a store that cuts, resets, forgets and changes its mind: every byte once and in order, or a
// failure that says so.
#include <memory>

#include "script_fixture.h"

namespace {

using s3test::cut_reply;
using s3test::range_of;
using s3test::Recorder;
using s3test::reply;
using s3test::SeenRequest;
using s3test::Step;

std::string pattern(size_t size) {
    std::string out(size, '\0');
    for (size_t i = 0; i < size; ++i)
        out[i] = static_cast<char>('a' + i % 23 + i / 4099 % 3);
    return out;
}

enum class End { kOrderly, kReset };

void end_with(Step& step, End end) {
    step.close = end == End::kOrderly;
    step.reset = end == End::kReset;
}

class Healing : public s3test::Scripted, public ::testing::WithParamInterface<End> {
  protected:
    // Answers whatever range is asked for, but brings only the first piece bytes of it.
    Step wounded(const std::string& object, size_t piece) {
        Step step = whole(object);
        step.answer = [answer = step.answer, piece](const SeenRequest& request) {
            const std::string all = answer(request);
            return all.substr(0, all.find("\r\n\r\n") + 4 + piece);
        };
        end_with(step, GetParam());
        return step;
    }

    static Step whole(const std::string& object) {
        Step step;
        step.answer = [object](const SeenRequest& request) {
            const std::string range = request.header("range");
            if (range.empty()) return reply(200, {{"ETag", "\"e\""}}, object);
            const size_t dash = range.find('-');
            const size_t first = std::stoul(range.substr(6, dash - 6));
            const size_t last =
                dash + 1 < range.size() ? std::stoul(range.substr(dash + 1)) : object.size() - 1;
            return reply(206, {{"ETag", "\"e\""}, {"Content-Range", range_of(first, last, object.size())}},
                         object.substr(first, last - first + 1));
        };
        return step;
    }
};

TEST_P(Healing, AnObjectCutTenTimesArrivesWhole) {
    const std::string object = pattern(1'000'003);
    constexpr size_t kPiece = 70'001;
    for (int i = 0; i < 10; ++i)
        server_.then(wounded(object, kPiece));
    server_.then(whole(object));
    const Recorder got = get("key");
    EXPECT_EQ(got.status, S3StatusOK) << got.message.value_or("");
    EXPECT_TRUE(got.data == object);
    EXPECT_EQ(std::count(got.events.begin(), got.events.end(), "properties"), 1);
    EXPECT_EQ(got.content_length, object.size());
    const auto requests = server_.requests();
    ASSERT_EQ(requests.size(), 11u);
    EXPECT_EQ(requests[0].header("range"), "");
    for (size_t i = 1; i < requests.size(); ++i) {
        EXPECT_EQ(requests[i].header("range"), "bytes=" + std::to_string(i * kPiece) + "-1000002");
        EXPECT_EQ(requests[i].header("if-match"), "\"e\"");
    }
}

TEST_P(Healing, ARangeCutTenTimesKeepsItsEnds) {
    const std::string object = pattern(900'000);
    for (int i = 0; i < 10; ++i)
        server_.then(wounded(object, 10'000));
    server_.then(whole(object));
    const Recorder got = get("key", 123'456, 200'000);
    EXPECT_EQ(got.status, S3StatusOK) << got.message.value_or("");
    EXPECT_TRUE(got.data == object.substr(123'456, 200'000));
    EXPECT_EQ(got.content_length, 200'000u);
    const auto requests = server_.requests();
    ASSERT_EQ(requests.size(), 11u);
    for (size_t i = 0; i < requests.size(); ++i)
        EXPECT_EQ(requests[i].header("range"), "bytes=" + std::to_string(123'456 + i * 10'000) + "-323455");
}

TEST_P(Healing, AnOpenRangeCutTwiceReachesTheEnd) {
    const std::string object = pattern(50'000);
    server_.then(wounded(object, 10'000)).then(wounded(object, 1)).then(whole(object));
    const Recorder got = get("key", 20'000);
    EXPECT_EQ(got.status, S3StatusOK) << got.message.value_or("");
    EXPECT_TRUE(got.data == object.substr(20'000));
    EXPECT_EQ(server_.requests()[1].header("range"), "bytes=30000-49999");
    EXPECT_EQ(server_.requests()[2].header("range"), "bytes=30001-49999");
}

// Where the headers of a reply may break off: inside the status line, inside a header, between headers,
// before the empty line.
TEST_P(Healing, HeadersCutAnywhereAreNoReply) {
    const std::string full = reply(200, {{"ETag", "\"e\""}}, "hello");
    const size_t headers = full.find("\r\n\r\n") + 4;
    for (size_t cut = 1; cut < headers; ++cut) {
        Step step;
        step.reply = full.substr(0, cut);
        end_with(step, GetParam());
        server_.then(step).then(full);
        Recorder got = get("key");
        // Either healed inside, or the caller is told to come again; never an object that is not there.
        if (got.status != S3StatusOK) {
            EXPECT_EQ(got.status, S3StatusConnectionFailed) << cut;
            EXPECT_EQ(got.retryable_in_complete, 1) << cut;
            EXPECT_EQ(got.events, std::vector<std::string>{"complete"}) << cut;
            got = get("key");
        }
        EXPECT_EQ(got.status, S3StatusOK) << cut;
        EXPECT_EQ(got.data, "hello") << cut;
        ASSERT_EQ(server_.steps_left(), 0u) << cut;
    }
}

TEST_P(Healing, HeadersCutAnywhereFailOtherRequestsToo) {
    const std::string full = reply(204, {{"x-amz-request-id", "r1"}, {"Server", "s"}});
    const auto cut_step = [&](size_t cut) {
        Step step;
        step.reply = full.substr(0, cut);
        end_with(step, GetParam());
        return step;
    };
    for (size_t cut = 1; cut < full.size(); cut += 3) {
        server_.then(cut_step(cut)).then(cut_step(cut));
        for (const Recorder& got : {head("key"), remove("key")}) {
            EXPECT_EQ(got.status, S3StatusConnectionFailed) << cut;
            EXPECT_EQ(got.retryable_in_complete, 1) << cut;
            EXPECT_FALSE(got.saw("properties")) << cut;
        }
        server_.then(cut_step(cut)).then(full);
        EXPECT_EQ(put("key", "hello").status, S3StatusOK) << "sent again, " << cut;
        ASSERT_EQ(server_.steps_left(), 0u) << cut;
    }
}

TEST_P(Healing, HeadersCutWhileHealingCostOneTry) {
    const std::string object = pattern(30'000);
    Step broken;
    broken.reply = "HTTP/1.1 206 Partial\r\nETag: \"e\"\r\nContent-Ra";
    end_with(broken, GetParam());
    server_.then(wounded(object, 10'000)).then(broken).then(whole(object));
    const Recorder got = get("key");
    EXPECT_EQ(got.status, S3StatusOK) << got.message.value_or("");
    EXPECT_TRUE(got.data == object);
    EXPECT_EQ(server_.requests()[2].header("range"), "bytes=10000-29999");
}

TEST_P(Healing, AStoreThatNeverRecoversIsGivenUp) {
    S3_set_option(S3OptionDownloadResumes, 4);
    const std::string object = pattern(30'000);
    server_.then(wounded(object, 10'000));
    for (int i = 0; i < 20; ++i)
        server_.then(wounded(object, 0));
    const Recorder got = get("key");
    EXPECT_EQ(got.status, S3StatusInternalError);
    EXPECT_EQ(got.retryable_in_complete, 0);
    EXPECT_TRUE(got.data == object.substr(0, 10'000));
    EXPECT_NE(got.message.value_or("").find("received 10000 of 30000 bytes"), std::string::npos)
        << got.message.value_or("");
    EXPECT_EQ(server_.requests().size(), 1u + 5u);
}

TEST_P(Healing, TheCallersTimeLimitEndsTheHealing) {
    S3_set_option(S3OptionDownloadResumes, 1000);
    const std::string object = pattern(30'000);
    server_.then(wounded(object, 10'000));
    Step hang;
    hang.hang = true;
    server_.then(hang);
    Recorder got;
    const S3BucketContext where = context();
    S3_get_object(&where, "key", nullptr, 0, 0, nullptr, 3000, &s3test::kGet, &got);
    EXPECT_EQ(got.status, S3StatusInternalError);
    EXPECT_TRUE(got.data == object.substr(0, 10'000));
    EXPECT_EQ(server_.requests().size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(Ends, Healing, ::testing::Values(End::kOrderly, End::kReset),
                         [](const auto& end) { return end.param == End::kOrderly ? "Orderly" : "Reset"; });

using HealingRefused = s3test::Scripted;

TEST_F(HealingRefused, AStoreThatVanishesIsGivenUp) {
    S3_set_option(S3OptionDownloadResumes, 2);
    auto mortal = std::make_unique<s3test::ScriptServer>();
    mortal->then(cut_reply(200, {{"ETag", "\"e\""}}, "0123", 10));
    host_ = mortal->host();
    Recorder got;
    got.on_data = [&] { mortal.reset(); };
    get_into(got, "key");
    EXPECT_EQ(got.status, S3StatusInternalError);
    EXPECT_EQ(got.retryable_in_complete, 0);
    EXPECT_EQ(got.data, "0123");
    EXPECT_NE(got.message.value_or("").find("FailedToConnect"), std::string::npos)
        << got.message.value_or("");
}

// The object was replaced between the cut and the rest; how the store lets it show differs.
TEST_F(HealingRefused, AnObjectThatChangedIsNeverMixed) {
    const std::vector<std::pair<const char*, std::string>> rests = {
        {"condition kept", reply(412)},
        {"other tag", reply(206, {{"ETag", "\"f\""}, {"Content-Range", range_of(4, 9, 10)}}, "xxxxxx")},
        {"other size", reply(206, {{"Content-Range", range_of(4, 9, 11)}}, "xxxxxx")},
        {"other size, same tag",
         reply(206, {{"ETag", "\"e\""}, {"Content-Range", range_of(4, 9, 12)}}, "xxxxxx")},
        {"wrong place", reply(206, {{"ETag", "\"e\""}, {"Content-Range", range_of(3, 9, 10)}}, "xxxxxxx")},
        {"no place", reply(206, {{"ETag", "\"e\""}}, "xxxxxx")},
        {"range ignored", reply(200, {{"ETag", "\"e\""}}, "0123xxxxxx")},
        {"gone", s3test::error_reply(404, "NoSuchKey")},
        {"shorter", reply(416, {{"Content-Range", "bytes */3"}})},
        {"forbidden", s3test::error_reply(403, "AccessDenied")},
        {"surplus", reply(206, {{"ETag", "\"e\""}, {"Content-Range", range_of(4, 9, 10)}}, "456789x")},
    };
    for (const auto& [name, rest] : rests) {
        server_.then(cut_reply(200, {{"ETag", "\"e\""}}, "0123", 10)).then(rest);
        const Recorder got = get("key");
        EXPECT_EQ(got.status, S3StatusInternalError) << name;
        EXPECT_EQ(got.retryable_in_complete, 0) << name;
        EXPECT_EQ(got.data.substr(0, 4), "0123") << name;
        EXPECT_EQ(got.data.find('x'), std::string::npos) << name;
        EXPECT_EQ(got.completions, 1) << name;
        ASSERT_TRUE(got.message) << name;
        EXPECT_NE(got.message->find("of 10 bytes"), std::string::npos) << name << ": " << *got.message;
        EXPECT_EQ(server_.steps_left(), 0u) << name;
    }
}

// A reply that ends with its connection: nobody can tell the end from a cut.
TEST_F(HealingRefused, AReplyWithoutAnyLengthIsNoSuccess) {
    Step endless;
    endless.reply = "HTTP/1.1 200 OK\r\nETag: \"e\"\r\n\r\nhello";
    endless.close = true;
    server_.then(endless);
    const Recorder got = get("key");
    EXPECT_EQ(got.status, S3StatusInternalError);
    EXPECT_EQ(got.retryable_in_complete, 0);
    EXPECT_EQ(got.message, "the reply does not say where it ends");
    EXPECT_EQ(got.data, "");
}

TEST_F(HealingRefused, MoreThanAnnouncedIsNoSuccess) {
    server_.then(reply(206, {{"Transfer-Encoding", "chunked"}, {"Content-Range", range_of(2, 4, 10)}},
                       "3\r\n234\r\n2\r\n56\r\n0\r\n\r\n"));
    const Recorder got = get("key", 2);
    EXPECT_EQ(got.status, S3StatusInternalError);
    EXPECT_EQ(got.data, "234");
    EXPECT_EQ(got.message, "download broke off: received 3 of 3 bytes; more came than was announced");
}

TEST_F(HealingRefused, AChunkedReplyThatEndsIsWhole) {
    server_.then(reply(200, {{"Transfer-Encoding", "chunked"}}, "5\r\nhello\r\n0\r\n\r\n"));
    const Recorder got = get("key");
    EXPECT_EQ(got.status, S3StatusOK);
    EXPECT_EQ(got.data, "hello");
}

}  // namespace
