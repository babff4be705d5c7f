// Stat of buckets, objects and directories, and directory listings.
#include <cerrno>

#include "stat_fixture.h"

using namespace module_test;

namespace {

class StatObjects : public StatTest {
  protected:
    static Reply failing(S3Status status) {
        Reply reply;
        reply.status = status;
        return reply;
    }
    static std::vector<Text> head_keys() {
        std::vector<Text> keys;
        for (const auto& call : s3_calls(S3Kind::head_object))
            keys.push_back(call.key);
        return keys;
    }
    static void expect_not_found(const Operation& op, const std::string& path) {
        expect_ftp(op.finish().error, 550, "PATH_NOT_FOUND", "GridFTP-Path: \"" + path + "\"");
        EXPECT_TRUE(op.entries.empty());
    }
};

// ------------------------------------------------------------------------------------- stat of a bucket

TEST_F(StatObjects, BucketIsOneDirectoryEntry) {
    s3_object("b", "x", "1");
    auto op = stat("/b", true);
    EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
    ASSERT_EQ(op->entries.size(), 1u);
    expect_directory(op->entries[0], ".", hash_of("b"), hash_of("b"));
    const auto calls = s3_calls(S3Kind::list_bucket);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].prefix, std::nullopt);
    EXPECT_EQ(calls[0].marker, std::nullopt);
    EXPECT_EQ(calls[0].delimiter, "/");
    EXPECT_EQ(calls[0].max, 1);
    EXPECT_FALSE(calls[0].request_context);
    EXPECT_EQ(calls[0].timeout, 0);
    EXPECT_TRUE(s3_calls(S3Kind::head_object).empty());
}

TEST_F(StatObjects, BucketRequestIsLogged) {
    auto op = stat("/b", true);
    const auto handle = pointer_text(op.get());
    EXPECT_TRUE(logged("INFO", "REST: op=" + handle + " S3_list_bucket(bucket=b) try=0"));
    EXPECT_TRUE(logged("DEBUG", "S3_list_bucket: op=" + handle + " status=ErrorNoSuchBucket[101]"));
}

TEST_F(StatObjects, MissingBucketIsNotFound) {
    auto op = stat("/b", true);
    EXPECT_TRUE(op->entries.empty());
    EXPECT_EQ(op->finish().error.ftp_word, "PATH_NOT_FOUND");
    expect_ftp(op->finish().error, 550, "PATH_NOT_FOUND", "GridFTP-Path: \"/b\"");
}

TEST_F(StatObjects, Status132OfABucketIsNoException) {
    s3_script(S3Kind::list_bucket, failing(S3StatusHttpErrorNotFound));
    auto op = stat("/b", true);
    expect_not_found(*op, "/b");
}

TEST_F(StatObjects, EveryFailureOfABucketIsReported) {
    for (const auto status : {S3StatusErrorAccessDenied, S3StatusInternalError, S3StatusHttpErrorForbidden,
                              S3StatusErrorSignatureDoesNotMatch}) {
        s3_script(S3Kind::list_bucket, failing(status));
        auto op = stat("/b", true);
        EXPECT_TRUE(op->entries.empty());
        EXPECT_TRUE(op->finish().error.present) << status;
    }
}

// --------------------------------------------------------------------------------------- stat of one path

TEST_F(StatObjects, ObjectIsOneHead) {
    s3_object("b", "dir/file", "12345");
    auto op = stat("/b/dir/file", true);
    EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
    ASSERT_EQ(op->entries.size(), 1u);
    expect_file(op->entries[0], "dir/file", 5, 1600000000, hash_of("b"), hash_of("/b/dir/file"));
    EXPECT_EQ(head_keys(), std::vector<Text>{"dir/file"});
    EXPECT_TRUE(s3_calls(S3Kind::list_bucket).empty());
    EXPECT_TRUE(logged(
        "INFO", "REST: op=" + pointer_text(op.get()) + " S3_head_object(bucket=b, key=dir/file) try=0"));
}

struct Mtime {
    const char* value;
    int64_t expected;
    bool valid;
};

class StatMtime : public StatObjects, public ::testing::WithParamInterface<Mtime> {};

TEST_P(StatMtime, MetadataDecides) {
    const auto& [value, expected, valid] = GetParam();
    s3_object("b", "obj", "x").properties.metadata = {{"other", "1"}, {"mtime", value}};
    auto op = stat("/b/obj", true);
    ASSERT_EQ(op->entries.size(), 1u);
    EXPECT_EQ(op->entries[0].mtime, expected);
    if (valid)
        EXPECT_TRUE(
            logged("TRACE", "Object '/b/obj' has metadata: mtime='" + std::to_string(expected) + "'"));
    else
        EXPECT_TRUE(
            logged("TRACE", std::string("Object '/b/obj' has invalid metadata: mtime='") + value + "'"));
}

INSTANTIATE_TEST_SUITE_P(
    Values, StatMtime,
    ::testing::Values(Mtime{"1700000000", 1700000000, true}, Mtime{"abc", -1, false}, Mtime{"-5", -1, false},
                      Mtime{"0", 0, true}, Mtime{"12x", -1, false}, Mtime{"", -1, false},
                      Mtime{"00", -1, false}, Mtime{"1", 1, true}, Mtime{"+0", -1, false},
                      Mtime{"7 ", -1, false}, Mtime{"9223372036854775807", INT64_MAX, true},
                      Mtime{"9223372036854775808", -1, false}, Mtime{"-9223372036854775809", -1, false},
                      Mtime{"0x10", -1, false}, Mtime{"1.5", -1, false}));

TEST_F(StatObjects, FirstMtimePairDecides) {
    s3_object("b", "obj", "x").properties.metadata = {{"mtime", "bad"}, {"mtime", "1700000000"}};
    EXPECT_EQ(stat("/b/obj", true)->entries.at(0).mtime, -1);
}

TEST_F(StatObjects, MetadataNamesAreComparedExactly) {
    s3_object("b", "obj", "x").properties.metadata = {{"Mtime", "17"}, {"mtime2", "18"}};
    EXPECT_EQ(stat("/b/obj", true)->entries.at(0).mtime, 1600000000);
}

TEST_F(StatObjects, NegativeLastModifiedIsUnknown) {
    s3_object("b", "obj", "x").properties.last_modified = -7;
    EXPECT_EQ(stat("/b/obj", true)->entries.at(0).mtime, -1);
}

TEST_F(StatObjects, PlaceholderIsADirectory) {
    s3_object("b", "dir/", "");
    auto op = stat("/b/dir", true);
    EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
    ASSERT_EQ(op->entries.size(), 1u);
    expect_directory(op->entries[0], ".", hash_of("b"), hash_of("/b/dir"));
    EXPECT_EQ(head_keys(), (std::vector<Text>{"dir", "dir/"}));
    EXPECT_TRUE(s3_calls(S3Kind::list_bucket).empty());
    EXPECT_TRUE(logged("DEBUG", "trying to use the aws key AK-alice for b dir/")) << log_text();
    EXPECT_LT(log_text().find("trying to use the aws key"), log_text().find("key=dir/) try=0"));
}

TEST_F(StatObjects, FailedRequestsAreLogged) {
    s3_object("b", "dir/k", "1");
    s3_fail(S3Kind::head_object, 1, S3StatusErrorAccessDenied);
    auto op = stat("/b/dir", true);
    EXPECT_TRUE(
        logged("DEBUG", "S3_head_object: op=" + pointer_text(op.get()) + " status=ErrorAccessDenied[49]"));
    s3_fail(S3Kind::list_bucket, 1, S3StatusErrorAccessDenied);
    op = stat("/b/dir", false);
    EXPECT_TRUE(
        logged("DEBUG", "S3_list_bucket: op=" + pointer_text(op.get()) + " status=ErrorAccessDenied[49]"));
}

TEST_F(StatObjects, ObjectsBelowMakeADirectory) {
    s3_object("b", "dir/file", "1");
    auto op = stat("/b/dir", true);
    EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
    ASSERT_EQ(op->entries.size(), 1u);
    expect_directory(op->entries[0], ".", hash_of("b"), hash_of("dir/"));
    const auto lists = s3_calls(S3Kind::list_bucket);
    ASSERT_EQ(lists.size(), 1u);
    EXPECT_EQ(lists[0].prefix, "dir/");
    EXPECT_EQ(lists[0].marker, std::nullopt);
    EXPECT_EQ(lists[0].delimiter, "/");
    EXPECT_EQ(lists[0].max, 1);
    EXPECT_TRUE(
        logged("INFO", "REST: op=" + pointer_text(op.get()) + " S3_list_bucket(bucket=b, key=dir/) try=0"));
}

TEST_F(StatObjects, CommonPrefixesBelowMakeADirectory) {
    s3_object("b", "dir/sub/file", "1");
    auto op = stat("/b/dir", true);
    ASSERT_EQ(op->entries.size(), 1u);
    EXPECT_EQ(op->entries[0].name, ".");
}

TEST_F(StatObjects, ListedObjectOutsideTheDirectoryDoesNotCount) {
    Reply reply;
    reply.page = Page{false, {}, {{"dirx", 1, 1, "\"e\""}}, {}};
    s3_script(S3Kind::list_bucket, reply);
    expect_not_found(*stat("/b/dir", true), "/b/dir");
}

TEST_F(StatObjects, NothingAnywhereIsNotFound) {
    s3_bucket("b");
    auto op = stat("/b/none", true);
    expect_not_found(*op, "/b/none");
    EXPECT_EQ(op->last_batch, 0);
    ASSERT_NE(op->finish().error.cause, nullptr);
    expect_s3(*op->finish().error.cause, s3_text("/b/none", S3StatusHttpErrorNotFound));
}

TEST_F(StatObjects, ForbiddenObjectMayStillBeADirectory) {
    s3_object("b", "dir/file", "1");
    s3_fail(S3Kind::head_object, 1, S3StatusHttpErrorForbidden);
    auto op = stat("/b/dir", true);
    EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
    ASSERT_EQ(op->entries.size(), 1u);
}

TEST_F(StatObjects, ForbiddenDirectoryHeadIsAnError) {
    s3_object("b", "dir/file", "1");
    s3_fail(S3Kind::head_object, 2, S3StatusHttpErrorForbidden);
    auto op = stat("/b/dir", true);
    EXPECT_TRUE(op->entries.empty());
    expect_s3(op->finish().error, s3_text("/b/dir", S3StatusHttpErrorForbidden));
    EXPECT_TRUE(s3_calls(S3Kind::list_bucket).empty());
}

TEST_F(StatObjects, EachStepsFailureIsReportedAndEndsTheSearch) {
    s3_object("b", "dir/file", "1");
    for (int step = 1; step <= 3; ++step) {
        s3_respond(S3Kind::head_object, [step](const S3Call& call) -> std::optional<Reply> {
            if ((step == 1 && call.key == "dir") || (step == 2 && call.key == "dir/"))
                return failing(S3StatusErrorAccessDenied);
            return std::nullopt;
        });
        s3_respond(S3Kind::list_bucket, [step](const S3Call&) -> std::optional<Reply> {
            if (step == 3) return failing(S3StatusErrorAccessDenied);
            return std::nullopt;
        });
        const auto heads = s3_calls(S3Kind::head_object).size();
        const auto lists = s3_calls(S3Kind::list_bucket).size();
        auto op = stat("/b/dir", true);
        EXPECT_TRUE(op->entries.empty()) << step;
        expect_ftp(op->finish().error, 550, "PERMISSION_DENIED", std::nullopt);
        EXPECT_EQ(s3_calls(S3Kind::head_object).size() - heads, step == 1 ? 1u : 2u);
        EXPECT_EQ(s3_calls(S3Kind::list_bucket).size() - lists, step == 3 ? 1u : 0u);
    }
}

TEST_F(StatObjects, EachStepIsRetriedAnew) {
    s3_object("b", "dir/file", "1");
    s3_fail(S3Kind::head_object, 1, S3StatusErrorSlowDown);
    s3_fail(S3Kind::head_object, 3, S3StatusErrorSlowDown);
    s3_fail(S3Kind::list_bucket, 1, S3StatusErrorSlowDown);
    auto op = stat("/b/dir", true);
    EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
    EXPECT_EQ(head_keys(), (std::vector<Text>{"dir", "dir", "dir/", "dir/"}));
    EXPECT_EQ(s3_calls(S3Kind::list_bucket).size(), 2u);
    EXPECT_EQ(sleeps().size(), 3u);
}

TEST_F(StatObjects, ReplyWithoutPropertiesAddsNothing) {
    s3_object("b", "obj", "x");
    Reply reply;
    reply.null_properties = true;
    s3_script(S3Kind::head_object, reply);
    auto op = stat("/b/obj", true);
    // The search goes on: no directory key and nothing below it.
    expect_not_found(*op, "/b/obj");
}

TEST_F(StatObjects, HugeSizesArePassedOn) {
    s3_object("b", "obj", "x").properties.length = uint64_t{1} << 42;
    EXPECT_EQ(stat("/b/obj", true)->entries.at(0).size, int64_t{1} << 42);
}

TEST_F(StatObjects, SizesBeyondTheRecordsAreTheLargestThatItHolds) {
    for (const uint64_t size : {uint64_t{INT64_MAX}, uint64_t{INT64_MAX} + 1, UINT64_MAX}) {
        s3_object("b", "obj", "x").properties.length = size;
        EXPECT_EQ(stat("/b/obj", true)->entries.at(0).size, INT64_MAX);
        EXPECT_EQ(stat("/b/obj", false)->entries.at(0).size, INT64_MAX);
        Reply reply;
        reply.page = Page{false, {}, {{"a", 1, size, "\"e\""}}, {}};
        s3_script(S3Kind::list_bucket, reply);
        EXPECT_EQ(stat("/b", false)->entries.at(1).size, INT64_MAX);
    }
}

TEST_F(StatObjects, DirectoryHeadWithoutPropertiesLeavesItToTheListing) {
    s3_object("b", "dir/", "");
    s3_object("b", "dir/x", "1");
    Reply bare;
    bare.null_properties = true;
    s3_respond(S3Kind::head_object, [bare](const S3Call& call) -> std::optional<Reply> {
        if (call.key != "dir/") return std::nullopt;
        return bare;
    });
    for (const bool file_only : {true, false}) {
        const auto op = stat("/b/dir", file_only);
        EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
        EXPECT_EQ(names(*op),
                  file_only ? std::vector<std::string>{"."} : (std::vector<std::string>{".", "x"}));
        expect_directory(op->entries.at(0), ".", hash_of("b"), hash_of("dir/"));
    }
    EXPECT_EQ(s3_calls(S3Kind::list_bucket).size(), 2u);
}

// ---------------------------------------------------------------------------------------------- listings

TEST_F(StatObjects, ListingOfAPlaceholderDirectory) {
    s3_object("b", "dir/", "");
    s3_object("b", "dir/a", "123");
    s3_object("b", "dir/sub/x", "1");
    auto op = stat("/b/dir", false);
    EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
    ASSERT_EQ(names(*op), (std::vector<std::string>{".", "a", "sub"}));
    expect_directory(op->entries[0], ".", hash_of("b"), hash_of("dir/"));
    expect_file(op->entries[1], "a", 3, 1600000000, hash_of("b"), hash_of("dir/a"));
    expect_directory(op->entries[2], "sub", hash_of("b"), hash_of("dir/sub/"));
    EXPECT_EQ(head_keys(), std::vector<Text>{"dir/"});
    const auto lists = s3_calls(S3Kind::list_bucket);
    ASSERT_EQ(lists.size(), 1u);
    EXPECT_EQ(lists[0].prefix, "dir/");
    EXPECT_EQ(lists[0].delimiter, "/");
    EXPECT_EQ(lists[0].max, 0);
    EXPECT_EQ(lists[0].marker.value_or(""), "");
    EXPECT_FALSE(lists[0].request_context);
    EXPECT_EQ(lists[0].timeout, 0);
}

TEST_F(StatObjects, ListingWithoutAPlaceholder) {
    s3_object("b", "dir/a", "123");
    s3_object("b", "dir/sub/x", "1");
    auto op = stat("/b/dir", false);
    ASSERT_EQ(names(*op), (std::vector<std::string>{".", "a", "sub"}));
    expect_directory(op->entries[0], ".", hash_of("b"), hash_of("dir/"));
    EXPECT_EQ(head_keys(), std::vector<Text>{"dir/"});
}

TEST_F(StatObjects, ListingOfPrefixesAlone) {
    s3_object("b", "dir/sub/x", "1");
    EXPECT_EQ(names(*stat("/b/dir", false)), (std::vector<std::string>{".", "sub"}));
}

TEST_F(StatObjects, ListingOfABucketHasNoPrefixAndNoHead) {
    s3_object("b", "a", "123");
    s3_object("b", "sub/x", "1");
    auto op = stat("/b", false);
    ASSERT_EQ(names(*op), (std::vector<std::string>{".", "a", "sub"}));
    expect_directory(op->entries[0], ".", hash_of("b"), hash_of("/"));
    expect_file(op->entries[1], "a", 3, 1600000000, hash_of("b"), hash_of("a"));
    expect_directory(op->entries[2], "sub", hash_of("b"), hash_of("sub/"));
    EXPECT_TRUE(head_keys().empty());
    EXPECT_EQ(s3_calls(S3Kind::list_bucket).at(0).prefix, std::nullopt);
    EXPECT_TRUE(
        logged("INFO", "REST: op=" + pointer_text(op.get()) + " S3_list_bucket(bucket=b, key=<NULL>) try=0"));
}

TEST_F(StatObjects, ListingOfAnObjectIsThatObject) {
    s3_object("b", "dir/file.txt", "1234").properties.metadata = {{"mtime", "17"}};
    auto op = stat("/b/dir/file.txt", false);
    EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
    ASSERT_EQ(op->entries.size(), 1u);
    // The last-modified time: listings do not read the metadata.
    expect_file(op->entries[0], "file.txt", 4, 1600000000, hash_of("b"), hash_of("/b/dir/file.txt"));
    EXPECT_EQ(head_keys(), (std::vector<Text>{"dir/file.txt/", "dir/file.txt"}));
}

TEST_F(StatObjects, ListedObjectIsNamedLikeBasename) {
    for (const auto& [key, name] : {std::pair{"dir/sub//", "sub"}, std::pair{"/", "/"}, std::pair{"", "."}}) {
        s3_bucket("b");
        Reply found;
        found.properties = Properties{};
        found.properties->last_modified = -9;
        s3_respond(S3Kind::head_object, [key = key, found](const S3Call& call) -> std::optional<Reply> {
            if (call.key != key) return failing(S3StatusHttpErrorNotFound);
            return found;
        });
        const auto op = stat("/b/" + std::string(key), false);
        ASSERT_EQ(op->entries.size(), 1u) << key;
        expect_file(op->entries[0], name, 0, -1, hash_of("b"), hash_of("/b/" + std::string(key)));
    }
}

TEST_F(StatObjects, ListingOfAnEmptyBucketIsItsDirectoryEntry) {
    s3_bucket("b");
    auto op = stat("/b", false);
    EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
    ASSERT_EQ(op->entries.size(), 1u);
    expect_directory(op->entries[0], ".", hash_of("b"), hash_of("/b"));
    EXPECT_EQ(head_keys(), std::vector<Text>{std::nullopt});
    EXPECT_TRUE(
        logged("INFO", "REST: op=" + pointer_text(op.get()) + " S3_head_object(bucket=b, key=(null)) try=0"));
}

TEST_F(StatObjects, ListingOfAMissingBucketFailsWithTheListingsError) {
    auto op = stat("/b", false);
    EXPECT_TRUE(op->entries.empty());
    expect_ftp(op->finish().error, 550, "PATH_NOT_FOUND", "GridFTP-Path: \"/b\"");
    ASSERT_NE(op->finish().error.cause, nullptr);
    expect_s3(*op->finish().error.cause, s3_text("/b", S3StatusErrorNoSuchBucket));
    EXPECT_TRUE(head_keys().empty()) << "a kept error ends the listing";
}

TEST_F(StatObjects, ListingOfAMissingPathIsNotFound) {
    s3_object("b", "other", "1");
    auto op = stat("/b/none", false);
    expect_not_found(*op, "/b/none");
    EXPECT_EQ(head_keys(), (std::vector<Text>{"none/", "none"}));
}

TEST_F(StatObjects, ListingPageAnswered132IsNoError) {
    s3_object("b", "obj", "1");
    s3_fail(S3Kind::list_bucket, 1, S3StatusHttpErrorNotFound);
    auto op = stat("/b/obj", false);
    EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
    EXPECT_EQ(names(*op), std::vector<std::string>{"obj"});
}

TEST_F(StatObjects, ListingPageThatIsForbiddenIsAnError) {
    s3_object("b", "obj", "1");
    s3_fail(S3Kind::list_bucket, 1, S3StatusHttpErrorForbidden);
    auto op = stat("/b/obj", false);
    expect_s3(op->finish().error, s3_text("/b/obj", S3StatusHttpErrorForbidden));
    EXPECT_TRUE(op->entries.empty());
    EXPECT_EQ(head_keys(), std::vector<Text>{"obj/"});
}

TEST_F(StatObjects, PlaceholderThatOnlyTheListingShows) {
    s3_object("b", "dir/", "");
    s3_fail(S3Kind::head_object, 1, S3StatusHttpErrorNotFound);
    auto op = stat("/b/dir", false);
    EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
    ASSERT_EQ(names(*op), std::vector<std::string>{"."});
    expect_directory(op->entries[0], ".", hash_of("b"), hash_of("dir/"));
    EXPECT_EQ(head_keys(), std::vector<Text>{"dir/"}) << "it is found, so the key itself is not asked for";
}

TEST_F(StatObjects, EmptyPlaceholderDirectoryIsItsEntryAlone) {
    s3_object("b", "dir/", "");
    EXPECT_EQ(names(*stat("/b/dir", false)), std::vector<std::string>{"."});
    EXPECT_EQ(head_keys(), std::vector<Text>{"dir/"});
}

TEST_F(StatObjects, NamesOfOneLetterAreListed) {
    s3_object("b", "a/x", "1");
    s3_object("b", "f", "1");
    EXPECT_EQ(names(*stat("/b", false)), (std::vector<std::string>{".", "f", "a"}));
}

TEST_F(StatObjects, CommonPrefixOfASlashIsDropped) {
    s3_object("b", "/odd", "1");
    s3_object("b", "file", "1");
    auto op = stat("/b", false);
    EXPECT_EQ(names(*op), (std::vector<std::string>{".", "file"}));
    EXPECT_TRUE(logged("INFO", "Dropping invalid entry '/'.")) << log_text();
}

TEST_F(StatObjects, CommonPrefixOfSlashesBelowADirectoryIsNamedLikeBasename) {
    Reply reply;
    reply.page = Page{false, {}, {}, {"a/b//", "a/b/c/"}};
    s3_script(S3Kind::list_bucket, reply);
    auto op = stat("/bucket/a/b", false);
    EXPECT_EQ(names(*op), (std::vector<std::string>{".", "b", "c"}));
}

TEST_F(StatObjects, CommonPrefixThatIsTheDirectoryItselfIsSkipped) {
    Reply reply;
    reply.page = Page{false, {}, {}, {"dir/", "dir/x/"}};
    s3_script(S3Kind::list_bucket, reply);
    EXPECT_EQ(names(*stat("/b/dir", false)), (std::vector<std::string>{".", "x"}));
}

TEST_F(StatObjects, EntriesOutsideTheDirectoryAreSkipped) {
    Reply reply;
    reply.page = Page{false, {}, {{"dirx", 1, 1, "\"e\""}, {"dir/y", 1, 1, "\"e\""}}, {"di/", "dir/z/"}};
    s3_script(S3Kind::list_bucket, reply);
    EXPECT_EQ(names(*stat("/b/dir", false)), (std::vector<std::string>{".", "y", "z"}));
}

TEST_F(StatObjects, NegativeTimesOfAListingAreUnknown) {
    Reply reply;
    reply.page = Page{false, {}, {{"a", -5, 7, "\"e\""}, {"c", 0, 7, "\"e\""}}, {}};
    s3_script(S3Kind::list_bucket, reply);
    auto op = stat("/b", false);
    ASSERT_EQ(op->entries.size(), 3u);
    EXPECT_EQ(op->entries[1].mtime, -1);
    EXPECT_EQ(op->entries[2].mtime, 0);
}

TEST_F(StatObjects, PagesAreFollowedByTheirMarkers) {
    fill("b", 10);
    s3_page_size(4);
    auto op = stat("/b", false);
    EXPECT_EQ(op->entries.size(), 11u);
    const auto lists = s3_calls(S3Kind::list_bucket);
    ASSERT_EQ(lists.size(), 3u);
    EXPECT_EQ(lists[0].marker.value_or(""), "");
    EXPECT_EQ(lists[1].marker, key_name(3));
    EXPECT_EQ(lists[2].marker, key_name(7));
}

TEST_F(StatObjects, MarkerOfAPageThatIsNotTruncatedIsIgnored) {
    Reply reply;
    reply.page = Page{false, "somewhere", {{"a", 1, 1, "\"e\""}}, {}};
    s3_script(S3Kind::list_bucket, reply);
    stat("/b", false);
    EXPECT_EQ(s3_calls(S3Kind::list_bucket).size(), 1u);
}

TEST_F(StatObjects, TruncatedPageWithoutAMarkerEndsTheListing) {
    for (const Text& marker : {Text(), Text("")}) {
        Reply reply;
        reply.page = Page{true, marker, {{"a", 1, 1, "\"e\""}}, {}};
        const auto before = s3_calls(S3Kind::list_bucket).size();
        s3_script(S3Kind::list_bucket, reply);
        EXPECT_EQ(names(*stat("/b", false)), (std::vector<std::string>{".", "a"}));
        EXPECT_EQ(s3_calls(S3Kind::list_bucket).size() - before, 1u);
    }
}

TEST_F(StatObjects, EmptyPagesAreFollowed) {
    Reply first;
    first.page = Page{true, "m1", {}, {}};
    Reply second;
    second.page = Page{false, {}, {{"z", 1, 1, "\"e\""}}, {}};
    s3_script(S3Kind::list_bucket, first);
    s3_script(S3Kind::list_bucket, second);
    EXPECT_EQ(names(*stat("/b", false)), (std::vector<std::string>{".", "z"}));
    EXPECT_EQ(s3_calls(S3Kind::list_bucket).at(1).marker, "m1");
}

TEST_F(StatObjects, EveryPageHasItsOwnRetries) {
    fill("b", 10);
    s3_page_size(4);
    s3_fail(S3Kind::list_bucket, 1, S3StatusErrorSlowDown);
    s3_fail(S3Kind::list_bucket, 3, S3StatusErrorSlowDown);
    auto op = stat("/b", false);
    EXPECT_EQ(op->entries.size(), 11u);
    const auto lists = s3_calls(S3Kind::list_bucket);
    ASSERT_EQ(lists.size(), 5u);
    EXPECT_EQ(lists[2].marker, lists[3].marker) << "the marker of a failed try is used again";
    EXPECT_EQ(sleeps(), (std::vector<int64_t>{100000, 100000}));
}

TEST_F(StatObjects, FirstErrorOfAListingStays) {
    s3_fail(S3Kind::head_object, 1, S3StatusErrorAccessDenied);
    auto op = stat("/b/dir", false);
    expect_ftp(op->finish().error, 550, "PERMISSION_DENIED", std::nullopt);
    EXPECT_TRUE(s3_calls(S3Kind::list_bucket).empty());
}

TEST_F(StatObjects, ForbiddenDirectoryHeadOfAListingIsAnError) {
    s3_object("b", "dir/x", "1");
    s3_fail(S3Kind::head_object, 1, S3StatusHttpErrorForbidden);
    auto op = stat("/b/dir", false);
    EXPECT_TRUE(op->finish().error.present);
    EXPECT_TRUE(op->entries.empty());
}

TEST_F(StatObjects, FinalHeadsFailureIsTheError) {
    s3_bucket("b");
    s3_respond(S3Kind::head_object, [](const S3Call& call) -> std::optional<Reply> {
        if (call.key == "k") return failing(S3StatusHttpErrorForbidden);
        return std::nullopt;
    });
    auto op = stat("/b/k", false);
    expect_s3(op->finish().error, s3_text("/b/k", S3StatusHttpErrorForbidden));
}

TEST_F(StatObjects, FinalHeadWithoutPropertiesIsAnEmptySuccess) {
    s3_bucket("b");
    Reply reply;
    reply.null_properties = true;
    s3_script(S3Kind::head_object, reply);
    auto op = stat("/b", false);
    EXPECT_EQ(op->finish().result, ZORVAN_SUCCESS);
    EXPECT_TRUE(op->entries.empty());
}

TEST_F(StatObjects, MarkerThatCannotBeCopiedIsTheMallocErrorAndStatus2) {
    // The page holds no entry, so the copy of its marker is the first thing that needs memory.
    Reply reply;
    reply.page = Page{true, "marker", {}, {}};
    reply.before = [] { fail_allocation(1); };
    reply.after = [] { fail_allocation(0); };
    s3_on_call(S3Kind::list_bucket, 1, reply);
    auto op = stat("/b", false);
    expect_system(op->finish().error, "malloc", ENOMEM);
    ASSERT_EQ(s3_calls(S3Kind::list_bucket).size(), 1u);
    EXPECT_EQ(s3_calls(S3Kind::list_bucket)[0].status, S3StatusOutOfMemory);
}

TEST_F(StatObjects, KeysThatAreNoTextsAreCarried) {
    s3_object("b", "dir/\xff\xfe%s\n", "1");
    auto op = stat("/b/dir", false);
    ASSERT_EQ(op->entries.size(), 2u);
    EXPECT_EQ(op->entries[1].name, "\xff\xfe%s\n");
}

}  // namespace
