// Uploads in parts that continue an earlier one: which upload, which of its parts, and what does not fit.
#include "recv_multipart_fixture.h"

using namespace module_test;

namespace {

constexpr const char* list_parts_file = "recv_multipart_list_parts";

class RecvMultipartResume : public RecvMultipartTest {
  protected:
    // A page of parts, instead of the store's.
    static void script_parts(const std::vector<ListedPart>& listed) {
        Reply reply;
        reply.parts = listed;
        s3_script(S3Kind::list_parts, reply);
    }
    static ListedPart full(uint64_t number) { return {number, part, "\"etag\""}; }
    void expect_misfit(const std::vector<ListedPart>& listed, const std::string& cause) {
        script_parts(listed);
        Operation op;
        resume(op, bytes(350), 200);
        expect_not_found(op, list_parts_file, cause);
        EXPECT_EQ(op.finish().error.cause->function, "zorvan_l_s3_recv_multipart_list_parts_response");
        EXPECT_EQ(s3_calls(S3Kind::list_parts).back().status, S3StatusInternalError)
            << "the request is aborted";
        EXPECT_TRUE(parts().empty());
        EXPECT_EQ(op.accepted, 0) << "no data are taken";
        EXPECT_EQ(s3_upload_ids("b").size(), 1u);
    }
};

TEST_F(RecvMultipartResume, PartsBeforeTheOffsetAreKept) {
    const auto data = bytes(350);
    s3_upload("b", "dir/f", "2~old", 5, {data.substr(0, 100), data.substr(100, 100)});
    Operation op;
    resume(op, data, 200);
    expect_success(op);
    expect_stored(data);
    EXPECT_EQ(kinds(), (std::vector{S3Kind::list_uploads, S3Kind::list_parts, S3Kind::upload_part,
                                    S3Kind::upload_part, S3Kind::complete_multipart}));
    EXPECT_EQ(parts()[0].part, 3);
    EXPECT_EQ(parts()[0].upload_id, "2~old");
    EXPECT_EQ(parts()[1].part, 4);
    EXPECT_EQ(parts()[1].length, 50u);
    EXPECT_EQ(op.range_updates, (Ranges{{200, 100}, {300, 50}}));
    EXPECT_EQ(op.begin_transfers, 1);
    EXPECT_EQ(cached_md5("b", "dir/f", s3_find("b", "dir/f")->properties.etag.value(), 350), "(none)");
    EXPECT_LT(trace_position("begin_transfer"), trace_position("S3_list_parts"));
    EXPECT_LT(trace_position("S3_list_parts"), trace_position("register_read"));
}

TEST_F(RecvMultipartResume, ArgumentsOfTheListOfParts) {
    s3_upload("b", "dir/f", "2~old", 5, cut(bytes(200)));
    Operation op;
    resume(op, bytes(350), 200);
    const auto list = s3_calls(S3Kind::list_parts).at(0);
    EXPECT_EQ(list.key, "dir/f");
    EXPECT_EQ(list.upload_id, "2~old");
    EXPECT_EQ(list.part_marker, std::nullopt);
    EXPECT_EQ(list.encoding, std::nullopt);
    EXPECT_EQ(list.max, 0);
    EXPECT_EQ(list.timeout, 0);
    EXPECT_FALSE(list.request_context);
}

TEST_F(RecvMultipartResume, StoredPartsBehindTheOffsetAreSentAgain) {
    const auto data = bytes(350);
    s3_upload("b", "dir/f", "2~old", 5, cut(data.substr(0, 200) + std::string(100, 'x')));
    Operation op;
    resume(op, data, 200);
    expect_success(op);
    expect_stored(data);
    EXPECT_EQ(parts().at(0).part, 3);
    EXPECT_EQ(op.range_updates, (Ranges{{200, 100}, {300, 50}}));
}

TEST_F(RecvMultipartResume, EveryRestartPoint) {
    const auto data = bytes(350);
    for (uint64_t offset = 0; offset <= 300; offset += 100) {
        s3_upload("b", "dir/f", "2~old", 5, cut(data.substr(0, offset)));
        const auto before = parts().size();
        Operation op;
        resume(op, data, offset);
        expect_success(op);
        expect_stored(data);
        EXPECT_EQ(parts().size() - before, 4 - offset / 100);
    }
}

TEST_F(RecvMultipartResume, NothingButTheCommitIsLeft) {
    const auto data = bytes(300);
    s3_upload("b", "dir/f", "2~old", 5, cut(data));
    Operation op;
    resume(op, data, 300);
    expect_success(op);
    expect_stored(data);
    EXPECT_TRUE(parts().empty());
    EXPECT_TRUE(op.range_updates.empty());
    EXPECT_GT(op.accepted, 0) << "the end of the data is asked for";
}

TEST_F(RecvMultipartResume, SizesOfTheDefaultPartSize) {
    constexpr uint64_t half_gigabyte = 500'000'000;
    script_parts({{1, half_gigabyte, "\"a\""}, {2, half_gigabyte, "\"b\""}});
    s3_upload("b", "dir/f", "2~old", 5);
    Operation op;
    op.write_range = {{1'000'000'000, -1}};
    op.upload.push_back({1'000'000'000, "z"});
    call_recv(op, "/b/dir/f", 1, false);
    finish(op);
    ASSERT_EQ(parts().size(), 1u);
    EXPECT_EQ(parts()[0].part, 3);
    EXPECT_EQ(parts()[0].length, 1u);
    EXPECT_EQ(parts()[0].body, "z");
    EXPECT_EQ(op.range_updates, (Ranges{{1'000'000'000, 1}}));
}

TEST_F(RecvMultipartResume, PartsHaveTheConfiguredSize) {
    constexpr uint64_t mib6 = 6291456;
    zorvan_i_s3_part_size = mib6;
    script_parts({{1, mib6, "\"a\""}});
    s3_upload("b", "dir/f", "2~old", 5);
    Operation op;
    op.write_range = {{static_cast<int64_t>(mib6), -1}};
    op.upload.push_back({static_cast<int64_t>(mib6), "z"});
    call_recv(op, "/b/dir/f", 1, false);
    finish(op);
    ASSERT_EQ(parts().size(), 1u);
    EXPECT_EQ(parts()[0].part, 2);
    EXPECT_EQ(op.range_updates, (Ranges{{static_cast<int64_t>(mib6), 1}}));
}

TEST_F(RecvMultipartResume, EtagsOf34CharactersAreKeptWhole) {
    const std::string etag(34, 'e');
    script_parts({{1, part, etag}, {2, part, etag}});
    s3_upload("b", "dir/f", "2~old", 5, cut(bytes(200)));
    for (const auto& [number, stored] : s3_bucket("b").uploads["2~old"].parts)
        s3_bucket("b").uploads["2~old"].parts[number].etag = etag;
    Operation op;
    resume(op, bytes(350), 200);
    expect_success(op);
    expect_stored(bytes(350));
    const auto body = s3_calls(S3Kind::complete_multipart).at(0).body;
    EXPECT_NE(body.find("<Part><PartNumber>2</PartNumber><ETag>" + etag + "</ETag></Part>"),
              std::string::npos);
}

TEST_F(RecvMultipartResume, WithoutAnUploadItIsA553) {
    s3_upload("b", "dir/f.txt", "2~other", 5, cut(bytes(200)));
    Operation op;
    resume(op, bytes(350), 200);
    expect_not_found(op);
    EXPECT_EQ(op.begin_transfers, 0);
    EXPECT_EQ(op.accepted, 0);
    EXPECT_EQ(kinds(), std::vector{S3Kind::list_uploads});
}

TEST_F(RecvMultipartResume, OfTwoUploadsTheNewerIsResumedAndTheOlderAborted) {
    const auto data = bytes(350);
    for (const bool newer_first : {true, false}) {
        s3_upload("b", "dir/f", newer_first ? "2~a" : "2~b", 9, cut(data.substr(0, 200)));
        s3_upload("b", "dir/f", newer_first ? "2~b" : "2~a", 8, cut(std::string(200, 'x')));
        Operation op;
        resume(op, data, 200);
        expect_success(op);
        expect_stored(data);
        EXPECT_EQ(s3_calls(S3Kind::abort_multipart).back().upload_id, newer_first ? "2~b" : "2~a");
    }
    EXPECT_EQ(s3_calls(S3Kind::abort_multipart).size(), 2u);
}

TEST_F(RecvMultipartResume, NewestUploadOverManyPages) {
    s3_page_size(2);
    const auto data = bytes(350);
    for (int i = 0; i < 7; ++i)
        s3_upload("b", "dir/f", "2~" + std::to_string(i), i == 3 ? 100 : i,
                  cut(i == 3 ? data.substr(0, 200) : std::string(200, 'x')));
    Operation op;
    resume(op, data, 200);
    expect_success(op);
    expect_stored(data);
    EXPECT_EQ(s3_calls(S3Kind::abort_multipart).size(), 6u);
    EXPECT_EQ(s3_calls(S3Kind::list_uploads).size(), 4u);
}

TEST_F(RecvMultipartResume, PartsOverManyPages) {
    const auto data = bytes(1000);
    for (const size_t page : {1, 2, 3, 8, 9}) {
        s3_page_size(page);
        s3_upload("b", "dir/f", "2~old", 5, cut(data.substr(0, 800)));
        const auto before = s3_calls(S3Kind::list_parts).size();
        Operation op;
        resume(op, data, 800);
        expect_success(op);
        expect_stored(data);
        const auto lists = s3_calls(S3Kind::list_parts);
        EXPECT_EQ(lists.size() - before, (8 + page - 1) / page);
        EXPECT_EQ(lists.back().part_marker, page < 8 ? Text(std::to_string((7 / page) * page)) : Text());
    }
}

// ------------------------------------------------------------------------------------------- what does not
// fit

TEST_F(RecvMultipartResume, MarkerThatCannotBeCopiedIsTheMallocErrorAndStatus2) {
    const auto data = bytes(300);
    s3_upload("b", "dir/f", "2~old", 5);
    Reply page;
    page.parts = {{1, part, "\"e1\""}};
    page.truncated = true;
    page.next_part = "1";
    page.before = [] { fail_allocation(1); };
    page.after = [] { fail_allocation(0); };
    s3_script(S3Kind::list_parts, page);
    Operation op;
    resume(op, data, 100);
    expect_system(op.finish().error, "malloc", ENOMEM);
    EXPECT_EQ(s3_calls(S3Kind::list_parts).at(0).status, S3StatusOutOfMemory);
    EXPECT_EQ(s3_calls(S3Kind::list_parts).size(), 1u);
    EXPECT_EQ(s3_upload_ids("b").size(), 1u);
}

TEST_F(RecvMultipartResume, PartsThatDoNotFit) {
    s3_upload("b", "dir/f", "2~old", 5);
    const std::string size = "Existing MPU has incorrect part size.";
    const std::string many = "Existing MPU has too many parts.";
    const std::string twice = "Existing MPU has duplicate parts.";
    // The table has four parts; the last one has 50 bytes.
    expect_misfit({{1, 99, "\"e\""}}, size);
    expect_misfit({full(1), {2, 101, "\"e\""}}, size);
    expect_misfit({full(4)}, size);
    expect_misfit({{0, 100, "\"e\""}}, size);
    expect_misfit({{0, 0, "\"e\""}}, size);
    expect_misfit({{5, 0, "\"e\""}}, size);
    expect_misfit({{5, 100, "\"e\""}}, size);
    expect_misfit({{6, 100, "\"e\""}}, many);
    expect_misfit({{10'000, 100, "\"e\""}}, many);
    expect_misfit({{UINT64_MAX, 100, "\"e\""}}, many);
    expect_misfit({full(1), full(2), full(1)}, twice);
    expect_misfit({{4, 50, "\"e\""}, {4, 50, "\"e\""}}, twice);
    // The first failure counts, and of one part the size before the duplicate.
    expect_misfit({full(1), {1, 99, "\"e\""}, full(6)}, size);
    expect_misfit({full(1), full(1), {2, 1, "\"e\""}}, twice);
}

TEST_F(RecvMultipartResume, PartToldOnTwoPagesIsADuplicate) {
    s3_upload("b", "dir/f", "2~old", 5);
    Reply first;
    first.parts = {full(1), full(2)};
    first.truncated = true;
    first.next_part = "1";
    s3_script(S3Kind::list_parts, first);
    script_parts({full(2)});
    Operation op;
    resume(op, bytes(350), 200);
    expect_not_found(op, list_parts_file, "Existing MPU has duplicate parts.");
}

TEST_F(RecvMultipartResume, PartsBeforeTheOffsetMustBeThere) {
    s3_upload("b", "dir/f", "2~old", 5);
    const std::vector<std::vector<ListedPart>> lists{
        {}, {full(1)}, {full(2)}, {full(2), full(3)}, {full(1), {2, part, ""}}};
    for (const auto& listed : lists) {
        script_parts(listed);
        Operation op;
        resume(op, bytes(350), 200);
        expect_not_found(op, list_parts_file, "Existing MPU is missing a part eTag.");
        EXPECT_EQ(op.finish().error.cause->function, "zorvan_i_s3_recv_multipart_list_parts");
        EXPECT_EQ(op.accepted, 0);
    }
}

TEST_F(RecvMultipartResume, AnotherPartSizeDoesNotFit) {
    s3_upload("b", "dir/f", "2~old", 5, cut(bytes(200)));
    Operation op;
    resume(op, bytes(350), 200, 50);
    expect_not_found(op, list_parts_file, "Existing MPU has incorrect part size.");
}

TEST_F(RecvMultipartResume, OffsetsInsideAPartEndBeforeAnyData) {
    s3_upload("b", "dir/f", "2~old", 5, cut(bytes(200)));
    for (const uint64_t offset : {1, 99, 101, 199, 250}) {
        Operation op;
        resume(op, bytes(350), offset);
        expect_not_found(
            op, "recv_multipart",
            "The restart offset " + std::to_string(offset) + " is not a multiple of the part size 100.");
        EXPECT_EQ(op.begin_transfers, 0);
        EXPECT_EQ(op.accepted, 0);
    }
    EXPECT_TRUE(s3_calls(S3Kind::list_parts).empty());
    EXPECT_EQ(s3_upload_ids("b").size(), 1u);
}

TEST_F(RecvMultipartResume, TotalsBeyondTheLimitsEndBeforeTheTransferBegins) {
    s3_upload("b", "dir/f", "2~old", 5);
    const auto refused = [&](int64_t offset, int64_t size, uint64_t part_size) {
        Operation op;
        op.write_range = {{offset, -1}};
        call_recv_multipart(op, "/b/dir/f", size, zorvan_i_s3_unknown_size, part_size, true);
        finish(op);
        EXPECT_EQ(op.begin_transfers, op.finish().error.text == "File upload too large" ? 0 : 1);
        if (op.finish().error.text != "File upload too large") return false;
        expect_generic(op.finish().error, "recv_multipart", "File upload too large");
        return true;
    };
    constexpr uint64_t gib5 = 5368709120;
    EXPECT_TRUE(refused(999'900, 101, part)) << "10,001 parts";
    EXPECT_FALSE(refused(999'900, 100, part)) << "10,000 parts";
    EXPECT_TRUE(refused(gib5 * 1023, 2 * static_cast<int64_t>(gib5), gib5)) << "above 5 TiB";
    EXPECT_FALSE(refused(gib5 * 1023, static_cast<int64_t>(gib5), gib5)) << "5 TiB";
    EXPECT_TRUE(refused(INT64_MAX, INT64_MAX, part));
    EXPECT_TRUE(refused(INT64_MAX - 7, 8, part));
    EXPECT_TRUE(refused(-100, 200, part)) << "the sum overflows";
    EXPECT_TRUE(refused(-100, 0, part));
    EXPECT_TRUE(refused(100, -100, part));
    EXPECT_TRUE(refused(0, -1, part));
}

TEST_F(RecvMultipartResume, BoundedWriteRangeIsRefused) {
    s3_upload("b", "dir/f", "2~old", 5, cut(bytes(200)));
    Operation op;
    op.write_range = {{200, 150}};
    call_recv_multipart(op, "/b/dir/f", 150, zorvan_i_s3_unknown_size, part, true);
    finish(op);
    expect_ftp(op.finish().error, 553, "APPEND_NOT_SUPPORTED", std::nullopt);
    EXPECT_EQ(op.begin_transfers, 0);
}

// -------------------------------------------------------------------------------------------- ends and sums

TEST_F(RecvMultipartResume, NoSumsAreMadeComparedOrAskedFor) {
    const auto data = bytes(350);
    s3_upload("b", "dir/f", "2~old", 5, cut(data.substr(0, 200)));
    for (const auto& etag :
         {std::string("\"") + std::string(32, '0') + "\"", std::string("x"), std::string(34, 'z')})
        s3_script(S3Kind::upload_part, part_with(etag));
    s3_script(S3Kind::complete_multipart, Reply{});
    fail_md5(Md5Step::init);
    Operation op;
    op.write_range = {{200, -1}};
    op.send_in_blocks(data.substr(200), 200);
    // A bad expected checksum is not looked at.
    call_recv_multipart(op, "/b/dir/f", 150, zorvan_i_s3_unknown_size, part, true, "short", "md5");
    finish(op);
    expect_success(op);
    expect_stored(data);
    EXPECT_TRUE(s3_calls(S3Kind::head_object).empty());
    EXPECT_FALSE(log_holds("part complete"));
    EXPECT_FALSE(log_holds("zorvan_i_s3_checksum_init"));
}

TEST_F(RecvMultipartResume, ClientThatSendsTooMuch) {
    const auto data = bytes(350);
    s3_upload("b", "dir/f", "2~old", 5, cut(data.substr(0, 200)));
    Operation op;
    op.write_range = {{200, -1}};
    op.send_in_blocks(data.substr(200) + "surplus", 200);
    call_recv_multipart(op, "/b/dir/f", 150, zorvan_i_s3_unknown_size, part, true);
    finish(op);
    expect_system(op.finish().error, "write", EFBIG);
    expect_not_stored();
    EXPECT_EQ(s3_upload_ids("b").size(), 1u);
}

TEST_F(RecvMultipartResume, InterruptedAgainAndAgain) {
    // Every turn stores one part more before its channel breaks; the last one ends it.
    const auto data = bytes(500);
    for (uint64_t offset = 0; offset < 400; offset += 100) {
        Operation op;
        op.upload_fails = true;
        op.write_range = {{static_cast<int64_t>(offset), -1}};
        op.send_in_blocks(data.substr(offset, 150), static_cast<int64_t>(offset));
        call_recv_multipart(op, "/b/dir/f", static_cast<int64_t>(500 - offset),
                            offset == 0 ? 500 : zorvan_i_s3_unknown_size, part, offset != 0);
        finish(op);
        EXPECT_EQ(op.finish().error.text, "data channel broken");
        EXPECT_EQ(op.range_updates, (Ranges{{static_cast<int64_t>(offset), 100}}));
        expect_not_stored();
    }
    Operation op;
    resume(op, data, 400);
    expect_success(op);
    expect_stored(data);
    EXPECT_EQ(s3_calls(S3Kind::initiate_multipart).size(), 1u);
}

TEST_F(RecvMultipartResume, TriesAreCountedPerRequest) {
    s3_page_size(1);
    s3_upload("b", "dir/f", "2~old", 5, cut(bytes(200)));
    s3_upload("b", "dir/f", "2~older", 4);
    for (const int nth : {1, 3})
        s3_fail(S3Kind::list_uploads, nth, S3StatusErrorSlowDown);
    for (const int nth : {1, 3})
        s3_fail(S3Kind::list_parts, nth, S3StatusConnectionFailed);
    Operation op;
    resume(op, bytes(350), 200);
    expect_success(op);
    ASSERT_EQ(s3_calls(S3Kind::list_uploads).size(), 4u);
    EXPECT_EQ(s3_calls(S3Kind::list_uploads)[3].upload_marker, "2~old") << "the page is asked for again";
    ASSERT_EQ(s3_calls(S3Kind::list_parts).size(), 4u);
    EXPECT_EQ(s3_calls(S3Kind::list_parts)[3].part_marker, "1");
    EXPECT_EQ(sleeps(), std::vector<int64_t>(4, 100000));
}

TEST_F(RecvMultipartResume, LevelsOfTheLines) {
    expect_levels(
        {{ZORVAN_S3_INFO, " S3_list_parts(id="},
         {ZORVAN_S3_DEBUG, "S3_list_parts: op="},
         {ZORVAN_S3_ERROR, "zorvan_l_s3_recv_multipart_list_parts_complete: result=0x"},
         {ZORVAN_S3_ERROR, "zorvan_i_s3_recv_multipart_list_parts: result=0x"}},
        [&] {
            s3_upload("b", "dir/f", "2~old", 5, cut(bytes(200)));
            fail_next(S3Kind::list_parts);
            Operation op;
            resume(op, bytes(350), 200);
            expect_success(op);
            s3_upload("b", "dir/f", "2~old", 5);
            Operation missing;
            resume(missing, bytes(350), 200);
            expect_not_found(missing, list_parts_file, "Existing MPU is missing a part eTag.");
        },
        false);
}

TEST_F(RecvMultipartResume, LogOfAResume) {
    s3_upload("b", "dir/f", "2~old", 5, cut(bytes(200)));
    s3_fail(S3Kind::list_parts, 1, S3StatusErrorSlowDown);
    Operation op;
    resume(op, bytes(350), 200);
    const auto handle = pointer_text(&op);
    const auto* list = "zorvan_i_s3_recv_multipart_list_parts";
    EXPECT_TRUE(logged("INFO", list, "REST: op=" + handle + " S3_list_parts(id=2~old) try=0"));
    EXPECT_TRUE(logged("DEBUG", list, "S3_list_parts: op=" + handle + " status=ErrorSlowDown[120]"));
    EXPECT_TRUE(logged("INFO", list, "REST: op=" + handle + " S3_list_parts(id=2~old) try=1"));
    EXPECT_TRUE(logged("TRACE", list, "result=ZORVAN_SUCCESS"));
    EXPECT_TRUE(logged("TRACE", "zorvan_l_s3_recv_multipart_list_parts_complete", "result=ZORVAN_SUCCESS"));
    EXPECT_TRUE(log_holds("s3: ERROR: zorvan_l_s3_recv_multipart_list_parts_complete: result=0x"));
    EXPECT_TRUE(logged("TRACE", "zorvan_l_s3_recv_multipart_list_parts_complete", "exit status=0: OK"));
    for (const auto* name : {"zorvan_l_s3_recv_multipart_list_parts_response",
                             "zorvan_l_s3_recv_multipart_list_parts_properties"})
        EXPECT_TRUE(logged("TRACE", name, "exit status=0: OK")) << name;
}

}  // namespace
