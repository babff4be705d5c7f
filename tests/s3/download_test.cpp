// Downloads: ranges, what is refused, and replies that break off.
#include "script_fixture.h"

namespace {

using s3test::cut_reply;
using s3test::error_reply;
using s3test::range_of;
using s3test::Recorder;
using s3test::reply;
using s3test::Step;
using Downloads = s3test::Scripted;
using Events = std::vector<std::string>;

TEST_F(Downloads, WholeObject) {
    server_.then(reply(200, {{"ETag", "\"e\""}}, "hello"));
    const Recorder got = get("key");
    EXPECT_EQ(got.status, S3StatusOK);
    EXPECT_EQ(got.events, (Events{"properties", "data", "complete"}));
    EXPECT_EQ(got.data, "hello");
    EXPECT_EQ(got.content_length, 5u);
    EXPECT_EQ(server_.requests()[0].header("range"), "");
}

TEST_F(Downloads, EmptyObjectHasPropertiesAndNoData) {
    server_.then(reply(200));
    EXPECT_EQ(get("key").events, (Events{"properties", "complete"}));
}

TEST_F(Downloads, RangesAreSentAndSigned) {
    server_.then(reply(206, {{"Content-Range", "bytes 5-9/10"}}, "56789"))
        .then(reply(206, {{"Content-Range", "bytes 0-1/10"}}, "01"));
    const Recorder tail = get("key", 5);
    EXPECT_EQ(tail.status, S3StatusOK);
    EXPECT_EQ(tail.content_length, 5u);
    EXPECT_EQ(get("key", 0, 2).data, "01");
    const auto requests = server_.requests();
    EXPECT_EQ(requests[0].header("range"), "bytes=5-");
    EXPECT_EQ(requests[1].header("range"), "bytes=0-1");
    EXPECT_NE(requests[0].header("authorization").find(";range;"), std::string::npos);
}

TEST_F(Downloads, WholeObjectInsteadOfTheRangeIsRefused) {
    server_.then(reply(200, {}, "0123456789")).then(reply(206, {{"Content-Range", "bytes 0-4/10"}}, "01234"));
    const Recorder whole = get("key", 5);
    EXPECT_EQ(whole.status, S3StatusErrorInvalidRange);
    EXPECT_EQ(whole.events, Events{"complete"});
    EXPECT_EQ(get("key", 5).status, S3StatusErrorInvalidRange);
}

// As good as a 416: a caller that reads at the object's end must be able to tell.
TEST_F(Downloads, WholeObjectInsteadOfTheRangeTellsItsSize) {
    server_.then(reply(200, {}, "0123456789"));
    const Recorder sized = get("key", 10);
    EXPECT_EQ(sized.status, S3StatusErrorInvalidRange);
    EXPECT_EQ(sized.detail("RangeRequested"), "bytes=10-");
    EXPECT_EQ(sized.detail("ActualObjectSize"), "10");
    EXPECT_EQ(server_.requests().size(), 1u);
    server_.then(reply(200, {{"Transfer-Encoding", "chunked"}}, "5\r\nhello\r\n0\r\n\r\n"))
        .then(reply(200, {{"Content-Length", "5"}}));
    const Recorder asked = get("key", 2, 7);
    EXPECT_EQ(asked.status, S3StatusErrorInvalidRange);
    EXPECT_EQ(asked.events, Events{"complete"});
    EXPECT_EQ(asked.detail("RangeRequested"), "bytes=2-8");
    EXPECT_EQ(asked.detail("ActualObjectSize"), "5");
    EXPECT_EQ(server_.requests().back().method, "HEAD");
}

// Nothing else would tell a store that leaves bytes out from one that has no more.
TEST_F(Downloads, AReplyNotAsLongAsItsRangeIsRefused) {
    for (const char* body : {"5678", "567890"}) {
        server_.then(reply(206, {{"Content-Range", "bytes 5-9/10"}}, body));
        const Recorder seen = get("key", 5);
        EXPECT_EQ(seen.status, S3StatusInternalError) << body;
        EXPECT_EQ(seen.events, Events{"complete"}) << body;
        EXPECT_EQ(seen.message, "the reply is not as long as its range") << body;
    }
}

TEST_F(Downloads, ConditionsAreSent) {
    server_.then(reply(304));
    const S3GetConditions conditions = {0, 1369353600, "\"a\"", "\"b\""};
    const Recorder got = get("key", 0, 0, &conditions);
    EXPECT_EQ(got.status, S3StatusHttpErrorUnknown);
    const auto request = server_.requests()[0];
    EXPECT_EQ(request.header("if-modified-since"), "Thu, 01 Jan 1970 00:00:00 GMT");
    EXPECT_EQ(request.header("if-unmodified-since"), "Fri, 24 May 2013 00:00:00 GMT");
    EXPECT_EQ(request.header("if-match"), "\"a\"");
    EXPECT_EQ(request.header("if-none-match"), "\"b\"");
}

TEST_F(Downloads, DetailsOfAnUnsatisfiableRange) {
    server_.then(error_reply(416, "InvalidRange"))
        .then(reply(200, {{"Content-Length", "77"}}))
        .then(reply(416, {{"Content-Range", "bytes */88"}}))
        .then(reply(416, {},
                    "<Error><Code>InvalidRange</Code><RangeRequested>bytes=1-</RangeRequested>"
                    "<ActualObjectSize>99</ActualObjectSize></Error>"))
        .then(error_reply(416, "InvalidRange"))
        .then(reply(404));
    const Recorder asked = get("key", 77);
    EXPECT_EQ(asked.status, S3StatusErrorInvalidRange);
    EXPECT_EQ(asked.detail("RangeRequested"), "bytes=77-");
    EXPECT_EQ(asked.detail("ActualObjectSize"), "77");
    EXPECT_EQ(asked.detail("RequestId"), "tx1");
    EXPECT_EQ(server_.requests()[1].method, "HEAD");
    EXPECT_EQ(server_.requests()[1].header("range"), "");
    const Recorder told = get("key", 88, 5);
    EXPECT_EQ(told.detail("RangeRequested"), "bytes=88-92");
    EXPECT_EQ(told.detail("ActualObjectSize"), "88");
    const Recorder complete = get("key", 1);
    EXPECT_EQ(complete.extra.size(), 2u);
    EXPECT_EQ(complete.detail("ActualObjectSize"), "99");
    const Recorder unknown = get("key", 5);
    EXPECT_EQ(unknown.status, S3StatusErrorInvalidRange);
    EXPECT_FALSE(unknown.detail("ActualObjectSize"));
    EXPECT_EQ(server_.steps_left(), 0u);
}

TEST_F(Downloads, ACutReplyIsContinuedFromTheByteReached) {
    const std::string object = "0123456789abcdefghij";
    server_.then(cut_reply(200, {{"ETag", "\"e\""}, {"x-amz-meta-n", "1"}}, object.substr(0, 4), 20))
        .then(cut_reply(206, {{"ETag", "\"e\""}, {"Content-Range", range_of(4, 19, 20)}}, object.substr(4, 6),
                        16))
        .then(reply(503))
        .then(reply(206, {{"ETag", "\"e\""}, {"Content-Range", range_of(10, 19, 20)}}, object.substr(10)));
    const Recorder got = get("key");
    EXPECT_EQ(got.status, S3StatusOK);
    EXPECT_EQ(got.data, object);
    EXPECT_EQ(got.content_length, 20u);
    EXPECT_EQ(std::count(got.events.begin(), got.events.end(), "properties"), 1);
    const auto requests = server_.requests();
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_EQ(requests[1].header("range"), "bytes=4-19");
    EXPECT_EQ(requests[1].header("if-match"), "\"e\"");
    EXPECT_EQ(requests[2].header("range"), "bytes=10-19");
    EXPECT_EQ(requests[3].header("range"), "bytes=10-19");
    EXPECT_EQ(requests[3].header("if-match"), "\"e\"");
}

TEST_F(Downloads, ACutRangeKeepsItsEnds) {
    server_.then(cut_reply(206, {{"ETag", "\"e\""}, {"Content-Range", range_of(100, 109, 500)}}, "0123", 10))
        .then(reply(206, {{"Content-Range", range_of(104, 109, 500)}}, "456789"));
    const S3GetConditions conditions = {-1, -1, nullptr, "\"other\""};
    const Recorder got = get("key", 100, 10, &conditions);
    EXPECT_EQ(got.status, S3StatusOK);
    EXPECT_EQ(got.data, "0123456789");
    EXPECT_EQ(server_.requests()[1].header("range"), "bytes=104-109");
    EXPECT_EQ(server_.requests()[1].header("if-none-match"), "");
}

TEST_F(Downloads, ACutBeforeTheFirstByteIsAskedAgain) {
    server_.then(cut_reply(200, {{"ETag", "\"e\""}}, "", 5)).then(reply(200, {{"ETag", "\"f\""}}, "hello"));
    const Recorder got = get("key");
    EXPECT_EQ(got.status, S3StatusOK);
    EXPECT_EQ(got.data, "hello");
    EXPECT_EQ(got.etag, "\"f\"");
    EXPECT_EQ(server_.requests()[1].header("range"), "");
}

TEST_F(Downloads, AChunkedReplyThatBreaksOffIsContinued) {
    Step chunked;
    chunked.reply = reply(200, {{"Transfer-Encoding", "chunked"}, {"ETag", "\"e\""}}, "5\r\nhello\r\n");
    chunked.close = true;
    server_.then(chunked).then(
        reply(206, {{"ETag", "\"e\""}, {"Content-Range", range_of(5, 9, 10)}}, "world"));
    const Recorder got = get("key");
    EXPECT_EQ(got.status, S3StatusOK);
    EXPECT_EQ(got.data, "helloworld");
    EXPECT_EQ(got.content_length, 0u);
    EXPECT_EQ(server_.requests()[1].header("range"), "bytes=5-");
}

TEST_F(Downloads, AChunkedRangeThatBreaksOffKeepsItsEnd) {
    // A range of which neither a length nor a place is told: its end follows from what was asked for.
    Step chunked;
    chunked.reply = reply(206, {{"Transfer-Encoding", "chunked"}, {"ETag", "\"e\""}}, "5\r\nhello\r\n");
    chunked.close = true;
    server_.then(chunked).then(
        reply(206, {{"ETag", "\"e\""}, {"Content-Range", range_of(15, 19, 50)}}, "world"));
    const Recorder got = get("key", 10, 10);
    EXPECT_EQ(got.status, S3StatusOK);
    EXPECT_EQ(got.data, "helloworld");
    EXPECT_EQ(server_.requests()[1].header("range"), "bytes=15-19");
}

TEST_F(Downloads, WhenEveryByteIsThereABadEndOfTheConnectionIsNoFailure) {
    // The range tells the length; the last chunk, which would end the reply, never comes.
    Step chunked;
    chunked.reply = reply(
        206, {{"Transfer-Encoding", "chunked"}, {"ETag", "\"e\""}, {"Content-Range", range_of(10, 14, 50)}},
        "5\r\nhello\r\n");
    chunked.close = true;
    server_.then(chunked);
    const Recorder got = get("key", 10, 5);
    EXPECT_EQ(got.status, S3StatusOK);
    EXPECT_EQ(got.data, "hello");
    EXPECT_FALSE(got.message);
    EXPECT_EQ(server_.requests().size(), 1u);
}

TEST_F(Downloads, AContentRangeThatSaysLittleIsBorneWith) {
    for (const char* range :
         {"bytes 98-102", "items 98-102/500", "bytes 10/50", "bytes 10-9/50", "bytes 10-x/*", "bytes */50"}) {
        SCOPED_TRACE(range);
        server_.then(reply(206, {{"ETag", "\"e\""}, {"Content-Range", range}}, "hello"));
        const Recorder got = get("key", 10, 5);
        EXPECT_EQ(got.status, S3StatusOK);
        EXPECT_EQ(got.data, "hello");
    }
    // More than was asked for, and another place, are not.
    server_.then(reply(206, {{"ETag", "\"e\""}}, "hello!"))
        .then(reply(206, {{"ETag", "\"e\""}, {"Content-Range", range_of(11, 15, 50)}}, "hello"));
    for (int i = 0; i < 2; ++i) {
        const Recorder got = get("key", 10, 5);
        EXPECT_EQ(got.status, S3StatusErrorInvalidRange);
        EXPECT_FALSE(got.saw("data"));
    }
}

TEST_F(Downloads, CutsBeforeTheFirstByteEndTheDownloadToo) {
    S3_set_option(S3OptionDownloadResumes, 2);
    for (int i = 0; i < 20; ++i)
        server_.then(cut_reply(200, {{"ETag", "\"e\""}}, "", 5));
    const Recorder got = get("key");
    EXPECT_EQ(got.status, S3StatusConnectionFailed);
    EXPECT_EQ(got.retryable_in_complete, 1) << "nothing was delivered";
    EXPECT_FALSE(got.saw("data"));
    EXPECT_EQ(server_.requests().size(), 1u + 2u);
}

TEST_F(Downloads, PropertiesOfAnEmptyObjectMayBeRefused) {
    server_.then(reply(200, {{"ETag", "\"e\""}}));
    Recorder recorder;
    recorder.refuse_properties_with = S3StatusErrorPreconditionFailed;
    get_into(recorder, "key");
    EXPECT_EQ(recorder.status, S3StatusErrorPreconditionFailed);
    EXPECT_EQ(recorder.events, (Events{"properties", "complete"}));
}

TEST_F(Downloads, AChangedObjectEndsTheDownload) {
    const auto first = [] { return cut_reply(200, {{"ETag", "\"e\""}}, "0123", 10); };
    server_.then(first()).then(reply(412));
    const Recorder refused = get("key");
    EXPECT_EQ(refused.status, S3StatusInternalError);
    EXPECT_EQ(refused.retryable_in_complete, 0);
    EXPECT_EQ(refused.data, "0123");
    ASSERT_TRUE(refused.message);
    EXPECT_NE(refused.message->find("received 4 of 10 bytes"), std::string::npos) << *refused.message;

    server_.then(first()).then(
        reply(206, {{"ETag", "\"f\""}, {"Content-Range", range_of(4, 9, 10)}}, "456789"));
    const Recorder other_tag = get("key");
    EXPECT_EQ(other_tag.status, S3StatusInternalError);
    EXPECT_EQ(other_tag.data, "0123");

    server_.then(first()).then(reply(200, {{"ETag", "\"e\""}}, "0123456789"));
    const Recorder from_start = get("key");
    EXPECT_EQ(from_start.status, S3StatusInternalError);
    EXPECT_EQ(from_start.data, "0123");

    server_.then(first()).then(error_reply(404, "NoSuchKey"));
    const Recorder gone = get("key");
    EXPECT_EQ(gone.status, S3StatusInternalError);
    EXPECT_EQ(gone.completions, 1);
}

TEST_F(Downloads, WithoutAnETagNothingCanBeContinued) {
    server_.then(cut_reply(200, {}, "0123", 10));
    const Recorder got = get("key");
    EXPECT_EQ(got.status, S3StatusInternalError);
    EXPECT_EQ(server_.requests().size(), 1u);
}

TEST_F(Downloads, AStoreThatStaysBrokenEndsTheDownload) {
    S3_set_option(S3OptionDownloadResumes, 3);
    server_.then(cut_reply(200, {{"ETag", "\"e\""}}, "0123", 10));
    for (int i = 0; i < 20; ++i)
        server_.then(reply(503));
    const Recorder got = get("key");
    EXPECT_EQ(got.status, S3StatusInternalError);
    EXPECT_EQ(got.retryable_in_complete, 0);
    EXPECT_NE(got.message.value_or("").find("received 4 of 10 bytes"), std::string::npos);
    EXPECT_EQ(server_.requests().size(), 1u + 4u);
}

TEST_F(Downloads, ProgressRenewsTheBudget) {
    S3_set_option(S3OptionDownloadResumes, 1);
    const std::string object = "0123456789";
    server_.then(cut_reply(200, {{"ETag", "\"e\""}}, "0", 10));
    for (size_t at = 1; at < 9; ++at) {
        server_.then(reply(503));
        server_.then(cut_reply(206, {{"Content-Range", range_of(at, 9, 10)}}, object.substr(at, 1), 10 - at));
    }
    server_.then(reply(206, {{"Content-Range", range_of(9, 9, 10)}}, "9"));
    const Recorder got = get("key");
    EXPECT_EQ(got.status, S3StatusOK);
    EXPECT_EQ(got.data, object);
}

TEST_F(Downloads, FailuresBeforeAnyDataKeepTheirStatus) {
    Step silent;
    silent.close = true;
    server_.then(silent).then(reply(503));
    const Recorder nothing = get("key");
    EXPECT_EQ(nothing.status, S3StatusConnectionFailed);
    EXPECT_EQ(nothing.retryable_in_complete, 1);
    const Recorder got = get("key");
    EXPECT_EQ(got.status, S3StatusErrorSlowDown);
    EXPECT_EQ(got.retryable_in_complete, 1);
    EXPECT_EQ(server_.requests().size(), 2u);
}

TEST_F(Downloads, TheDataCallbackMayEndTheDownload) {
    const std::string object(200000, 'x');
    server_.then(reply(200, {{"ETag", "\"e\""}}, object));
    Recorder recorder;
    recorder.refuse_data_after = 1;
    recorder.refuse_data_with = S3StatusErrorRequestTimeout;
    get_into(recorder, "key");
    EXPECT_EQ(recorder.status, S3StatusErrorRequestTimeout);
    EXPECT_EQ(recorder.completions, 1);
    EXPECT_LT(recorder.data.size(), object.size());
    EXPECT_EQ(server_.requests().size(), 1u);
}

TEST_F(Downloads, CallbacksMayMakeRequestsOfTheirOwn) {
    server_.then(reply(200, {}, "outer")).then(reply(200, {}, "inner"));
    Recorder outer;
    Recorder inner;
    outer.on_data = [&] {
        if (inner.completions == 0) get_into(inner, "other");
    };
    get_into(outer, "key");
    EXPECT_EQ(outer.status, S3StatusOK);
    EXPECT_EQ(outer.data, "outer");
    EXPECT_EQ(inner.data, "inner");
}

}  // namespace
