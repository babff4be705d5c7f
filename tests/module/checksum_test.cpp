// The checksum command.
#include <cerrno>

#include "command_fixture.h"
#include "transfer_fixture.h"

using namespace module_test;

namespace {

constexpr const char* etag_md5 = "0123456789abcdef0123456789abcdef";
constexpr const char* other_md5 = "FFFFFFFFFFFFFFFFffffffffffffffff";
constexpr const char* multipart_etag = "\"0123456789abcdef0123456789abcdef-3\"";

class ChecksumCommand : public CommandTest {
  protected:
    std::unique_ptr<Operation> sum(const std::string& path = "/b/k", int64_t offset = 0,
                                   int64_t length = -1) {
        return command(cksm, path, std::nullopt, "md5", offset, length);
    }
    static size_t downloads() { return s3_calls(S3Kind::get_object).size(); }
    static std::string cached(const char* bucket, const char* key, const std::string& etag, size_t size) {
        char found[zorvan_i_s3_md5sum_size] = "";
        return zorvan_i_s3_checksum_find(bucket, key, etag.c_str(), size, found) ? found : "(none)";
    }
    static Object& object(const std::string& data, const Text& etag, Pairs metadata = {}) {
        auto& made = s3_object("b", "k", data);
        made.properties.etag = etag;
        made.properties.metadata = std::move(metadata);
        return made;
    }
};

TEST_F(ChecksumCommand, EtagOfASingleUploadAnswers) {
    object("data", "\"" + std::string(etag_md5) + "\"");
    auto op = sum();
    expect_success(*op, etag_md5);
    EXPECT_EQ(downloads(), 0u);
    EXPECT_EQ(s3_calls(S3Kind::head_object).at(0).key, "k");
    EXPECT_TRUE(logged("DEBUG", std::string("Setting md5sum=") + etag_md5 + " from etag")) << log_text();
    EXPECT_TRUE(
        logged("INFO", "finished_command: op=" + pointer_text(op.get()) + " result=0 checksum=" + etag_md5));
    EXPECT_TRUE(
        logged("INFO", "REST: op=" + pointer_text(op.get()) + " S3_head_object(bucket=b, key=k) try=0"));
}

TEST_F(ChecksumCommand, HeadResponseIsLogged) {
    object("data", "\"" + std::string(etag_md5) + "\"");
    sum();
    EXPECT_TRUE(logged("DEBUG", "requestId= requestId2= contentType= contentLength=4 server= eTag=\"" +
                                    std::string(etag_md5) + "\" lastModified=1600000000"))
        << log_text();
}

TEST_F(ChecksumCommand, HeadResponseOfAVastObjectIsLogged) {
    auto& vast = object("data", "\"" + std::string(etag_md5) + "\"");
    vast.properties.content_type = "text/plain";
    vast.properties.length = UINT64_MAX;
    vast.properties.last_modified = -1;
    expect_success(*sum(), etag_md5);
    EXPECT_TRUE(logged("DEBUG",
                       "requestId= requestId2= contentType=text/plain contentLength=18446744073709551615 "
                       "server= eTag=\"" +
                           std::string(etag_md5) + "\" lastModified=-1"))
        << log_text();
}

TEST_F(ChecksumCommand, AlgorithmIgnoresCase) {
    object("data", "\"" + std::string(etag_md5) + "\"");
    for (const auto* algorithm : {"MD5", "Md5", "md5"})
        expect_success(*command(cksm, "/b/k", std::nullopt, algorithm), etag_md5);
}

TEST_F(ChecksumCommand, OtherAlgorithmsAreRefused) {
    for (const auto& algorithm : {std::string("sha1"), std::string("md5 "), std::string(""),
                                  std::string(5000, 'x'), std::string("%s%n")}) {
        auto op = command(cksm, "/b/k", std::nullopt, algorithm);
        expect_generic(op->finish().error, "checksum", "Unknown checksum algorithm \"" + algorithm + "\"");
        expect_end_line(*op, std::nullopt);
    }
    EXPECT_TRUE(s3_calls(S3Kind::head_object).empty());
}

TEST_F(ChecksumCommand, LengthOfTheWholeObjectIsTheWholeObject) {
    object("data", "\"" + std::string(etag_md5) + "\"");
    expect_success(*sum("/b/k", 0, 4), etag_md5);
    EXPECT_EQ(downloads(), 0u);
}

TEST_F(ChecksumCommand, MultipartObjectIsHashedOnceAndThenCached) {
    object("some data", multipart_etag);
    auto op = sum();
    expect_success(*op, md5_of("some data"));
    EXPECT_TRUE(logged("INFO", "op=" + pointer_text(op.get()) + " no_md5_metadata_available"));
    const auto gets = s3_calls(S3Kind::get_object);
    ASSERT_EQ(gets.size(), 1u);
    EXPECT_EQ(gets[0].start, 0u);
    EXPECT_EQ(gets[0].count, 0u);
    EXPECT_FALSE(gets[0].conditions);
    expect_success(*sum(), md5_of("some data"));
    EXPECT_EQ(downloads(), 1u);
}

TEST_F(ChecksumCommand, SumIsCachedUnderTheEtagOfTheHead) {
    object("data", multipart_etag);
    Reply download;
    download.data = "data";
    download.properties = Properties{};
    download.properties->etag = "\"of-the-download-7\"";
    s3_on_call(S3Kind::get_object, 1, download);
    expect_success(*sum(), md5_of("data"));
    EXPECT_EQ(cached("b", "k", multipart_etag, 4), md5_of("data"));
    EXPECT_EQ(cached("b", "k", "\"of-the-download-7\"", 4), "(none)");
}

TEST_F(ChecksumCommand, HeadWithoutPropertiesIsHashedAndNotCached) {
    object("data", "\"" + std::string(etag_md5) + "\"");
    Reply bare;
    bare.null_properties = true;
    s3_on_call(S3Kind::head_object, 1, bare);
    expect_success(*sum(), md5_of("data"));
    EXPECT_EQ(downloads(), 1u);
    EXPECT_EQ(host_logged(2, "Can not cache invalid checksum:  path: 'b/k', checksum: '" + md5_of("data") +
                                 "', etag: '(null)'\n"),
              1);
}

TEST_F(ChecksumCommand, ChangedObjectIsHashedAgain) {
    object("some data", multipart_etag);
    sum();
    object("other data", "\"0123456789abcdef0123456789abcdef-4\"");
    expect_success(*sum(), md5_of("other data"));
    EXPECT_EQ(downloads(), 2u);
}

TEST_F(ChecksumCommand, SumOfATryThatFailedIsForgotten) {
    object("data", multipart_etag);
    Reply early;
    early.status = S3StatusErrorSlowDown;
    early.properties = Properties{};
    early.properties->etag = "\"" + std::string(etag_md5) + "\"";
    s3_script(S3Kind::head_object, early);
    expect_success(*sum(), md5_of("data"));
    EXPECT_EQ(s3_calls(S3Kind::head_object).size(), 2u);
    EXPECT_EQ(downloads(), 1u);
}

TEST_F(ChecksumCommand, MetadataIsTrustedMoreThanTheEtag) {
    object("data", "\"" + std::string(etag_md5) + "\"", {{"md5", other_md5}});
    expect_success(*sum(), other_md5);
    EXPECT_TRUE(logged("DEBUG", std::string("Setting md5sum=") + other_md5 + " from metadata"));
    EXPECT_EQ(downloads(), 0u);
}

TEST_F(ChecksumCommand, MetadataOfAnotherLengthIsPassedOver) {
    object("data", "\"" + std::string(etag_md5) + "\"", {{"md5", "abc"}});
    expect_success(*sum(), etag_md5);
    object("data", "\"" + std::string(etag_md5) + "\"", {{"md5", "abc"}, {"md5", other_md5}});
    expect_success(*sum(), other_md5);
    object("data", "\"" + std::string(etag_md5) + "\"",
           {{"md5", std::string(33, 'a')}, {"md5", std::string(31, 'a')}, {"md5", ""}});
    expect_success(*sum(), etag_md5);
    object("data", "\"" + std::string(etag_md5) + "\"", {{"MD5", other_md5}, {"md5x", other_md5}});
    expect_success(*sum(), etag_md5);
}

TEST_F(ChecksumCommand, MetadataThatIsNoMd5DisablesTheEtag) {
    const std::string bad = std::string(31, 'a') + "g";
    object("data", "\"" + std::string(etag_md5) + "\"", {{"md5", bad}});
    expect_success(*sum(), md5_of("data"));
    EXPECT_EQ(downloads(), 1u);
    expect_success(*sum(), md5_of("data"));
    EXPECT_EQ(downloads(), 1u) << "the cache knows it now";
    // The first of the right length decides, whatever follows.
    object("other", "\"" + std::string(etag_md5) + "\"", {{"md5", bad}, {"md5", other_md5}});
    expect_success(*sum(), md5_of("other"));
    EXPECT_EQ(downloads(), 2u);
}

TEST_F(ChecksumCommand, EncryptedObjectNeverTakesItsEtag) {
    object("data", "\"" + std::string(etag_md5) + "\"").properties.encryption = 2;
    expect_success(*sum(), md5_of("data"));
    EXPECT_EQ(downloads(), 1u);
}

TEST_F(ChecksumCommand, EtagWithOtherLettersIsNoMd5) {
    object("data", "\"0123456789abcdef0123456789abcdeg\"");
    expect_success(*sum(), md5_of("data"));
    EXPECT_EQ(downloads(), 1u);
}

TEST_F(ChecksumCommand, OnlyAnEtagOf34CharactersIsAnMd5) {
    const std::string digits = etag_md5;
    object("data", "\"" + digits + "f");
    expect_success(*sum(), etag_md5);
    size_t hashed = 0;
    for (const auto& etag : {"\"" + digits.substr(1) + "\"", "\"" + digits + "0\"", "\"" + digits + "-1\"",
                             "\"" + digits.substr(1) + "g\"", digits, digits + "00", std::string("\"\"")}) {
        object("data", etag);
        expect_success(*sum(), md5_of("data"));
        EXPECT_EQ(downloads(), ++hashed) << etag;
    }
    // The digits are looked at after the line: one with the quote, two without a good content.
    size_t lines = 0;
    for (const auto& line : log_lines())
        lines += line.message.ends_with(" from etag") ? 1 : 0;
    EXPECT_EQ(lines, 3u);
}

TEST_F(ChecksumCommand, RangeLooksAtNeitherEtagNorMetadata) {
    object("some data", "\"" + std::string(etag_md5) + "\"", {{"md5", other_md5}});
    expect_success(*sum("/b/k", 1, 9), md5_of("ome data"));
    expect_success(*sum("/b/k", 0, 8), md5_of("some dat"));
    EXPECT_EQ(downloads(), 2u);
    EXPECT_FALSE(log_holds("Setting md5sum="));
}

TEST_F(ChecksumCommand, LengthZeroAsksForTheRest) {
    object("some data", multipart_etag);
    expect_success(*sum("/b/k", 0, 0), md5_of("some data"));
    expect_success(*sum("/b/k", 5, 0), md5_of("data"));
    EXPECT_EQ(s3_calls(S3Kind::get_object).at(1).count, 0u);
    expect_success(*sum("/b/k", 0, 0), md5_of("some data"));
    EXPECT_EQ(downloads(), 3u) << "no length of -1, so nothing is cached";
}

TEST_F(ChecksumCommand, RangesOutsideTheObjectAreTheStoresToRefuse) {
    object("data", "\"" + std::string(etag_md5) + "\"");
    struct Range {
        int64_t offset, length;
    };
    int calls = 0;
    for (const auto& [offset, length] : {Range{INT64_MAX, -1}, Range{INT64_MAX, INT64_MAX}, Range{-1, 5},
                                         Range{INT64_MIN, -1}, Range{1, -2}}) {
        s3_fail(S3Kind::get_object, ++calls, S3StatusErrorInvalidRange);
        const auto op = sum("/b/k", offset, length);
        expect_ftp(op->finish().error, 553, "APPEND_NOT_SUPPORTED", std::nullopt);
        EXPECT_EQ(op->finish().text, std::nullopt);
        const auto call = s3_calls(S3Kind::get_object).back();
        EXPECT_EQ(call.start, static_cast<uint64_t>(offset));
        EXPECT_EQ(call.count, length == -1 ? 0 : static_cast<uint64_t>(length));
    }
}

TEST_F(ChecksumCommand, MissingEtagIsHashedAndNotCached) {
    object("data", std::nullopt);
    expect_success(*sum(), md5_of("data"));
    expect_success(*sum(), md5_of("data"));
    EXPECT_EQ(downloads(), 2u);
}

TEST_F(ChecksumCommand, RangeIsDownloadedAndNeverCached) {
    std::string data;
    for (int i = 0; i < 300; ++i)
        data += static_cast<char>('a' + i % 26);
    object(data, "\"" + std::string(etag_md5) + "\"");
    expect_success(*sum("/b/k", 10, 100), md5_of(data.substr(10, 100)));
    const auto gets = s3_calls(S3Kind::get_object);
    ASSERT_EQ(gets.size(), 1u);
    EXPECT_EQ(gets[0].start, 10u);
    EXPECT_EQ(gets[0].count, 100u);
    expect_success(*sum("/b/k", 10, 100), md5_of(data.substr(10, 100)));
    EXPECT_EQ(downloads(), 2u);
    expect_success(*sum("/b/k", 10, -1), md5_of(data.substr(10)));
    EXPECT_EQ(s3_calls(S3Kind::get_object).at(2).count, 0u);
    EXPECT_TRUE(host_log().empty()) << "nor is it tried";
}

TEST_F(ChecksumCommand, RangeThatCoversAMultipartObjectIsNotCached) {
    object("some data", multipart_etag);
    expect_success(*sum("/b/k", 0, 9), md5_of("some data"));
    expect_success(*sum("/b/k", 0, 9), md5_of("some data"));
    EXPECT_EQ(downloads(), 2u);
}

TEST_F(ChecksumCommand, CacheServesALengthOfTheWholeObjectToo) {
    object("some data", multipart_etag);
    sum();
    expect_success(*sum("/b/k", 0, 9), md5_of("some data"));
    EXPECT_EQ(downloads(), 1u);
}

TEST_F(ChecksumCommand, EmptyObject) {
    object("", multipart_etag);
    expect_success(*sum(), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST_F(ChecksumCommand, BlocksArriveInPieces) {
    const std::string data(10000, 'q');
    object(data, multipart_etag);
    s3_push_size(7);
    expect_success(*sum(), md5_of(data));
}

TEST_F(ChecksumCommand, ProgressRepliesFollowTheInterval) {
    // Every look at the clock is a second later.
    int64_t now = 1000;
    set_clock([&] { return now++; });
    update_interval = 5;
    s3_push_size(10);
    object(std::string(600, 'q'), multipart_etag);
    auto op = sum();
    expect_success(*op, md5_of(std::string(600, 'q')));
    // The fifth block comes when the interval is just over.
    std::vector<std::pair<zorvan_result_t, std::string>> expected;
    for (int bytes = 50; bytes <= 600; bytes += 50)
        expected.emplace_back(ZORVAN_SUCCESS, std::to_string(bytes));
    EXPECT_EQ(op->intermediate, expected);
}

TEST_F(ChecksumCommand, NoIntervalNoProgress) {
    int64_t now = 1000;
    set_clock([&] { return now += 100; });
    s3_push_size(10);
    object(std::string(600, 'q'), multipart_etag);
    EXPECT_TRUE(sum()->intermediate.empty());
}

TEST_F(ChecksumCommand, HeadFailureIsReportedWithoutASum) {
    s3_bucket("b");
    auto op = sum("/b/dir/k");
    expect_ftp(op->finish().error, 550, "PATH_NOT_FOUND", "GridFTP-Path: \"b/dir/k\"");
    EXPECT_EQ(op->finish().text, std::nullopt);
    EXPECT_EQ(downloads(), 0u);
    EXPECT_TRUE(
        logged("DEBUG", "S3_head_object: op=" + pointer_text(op.get()) + " status=HttpErrorNotFound[132]"));
}

TEST_F(ChecksumCommand, DownloadFailureIsReportedWithoutASum) {
    object("data", multipart_etag);
    s3_fail(S3Kind::get_object, 1, S3StatusErrorAccessDenied);
    auto op = sum();
    expect_ftp(op->finish().error, 550, "PERMISSION_DENIED", std::nullopt);
    EXPECT_EQ(op->finish().text, std::nullopt);
    expect_success(*sum(), md5_of("data"));
}

TEST_F(ChecksumCommand, HeadAndDownloadHaveRetriesOfTheirOwn) {
    object("data", multipart_etag);
    s3_fail(S3Kind::head_object, 1, S3StatusErrorSlowDown);
    s3_fail(S3Kind::get_object, 1, S3StatusErrorSlowDown);
    auto op = sum();
    expect_success(*op, md5_of("data"));
    EXPECT_EQ(sleeps(), (std::vector<int64_t>{100000, 100000}));
    EXPECT_TRUE(
        logged("INFO", "REST: op=" + pointer_text(op.get()) + " S3_get_object(bucket=b, key=k) try=1"));
}

TEST_F(ChecksumCommand, Md5StateIsNotResetBetweenTries) {
    object("data", multipart_etag);
    Reply reply;
    reply.status = S3StatusConnectionFailed;
    reply.data = "da";
    reply.properties = Properties{};
    s3_on_call(S3Kind::get_object, 1, reply);
    auto op = sum();
    EXPECT_EQ(op->finish().text, md5_of("dadata"));
}

TEST_F(ChecksumCommand, FailingMd5Steps) {
    object("data", multipart_etag);
    fail_md5(Md5Step::init);
    auto first = sum();
    EXPECT_EQ(first->finish().error.text, "System error in malloc");
    EXPECT_EQ(downloads(), 0u);
    fail_md5(Md5Step::update);
    auto second = sum();
    expect_generic(second->finish().error, "checksum", "MD5_Update error");
    EXPECT_EQ(second->finish().text, std::nullopt);
    EXPECT_NE(s3_calls(S3Kind::get_object).at(0).status, S3StatusOK);
    EXPECT_TRUE(
        logged("DEBUG", "S3_get_object: op=" + pointer_text(second.get()) + " status=InternalError[1]"));
    fail_md5(Md5Step::finalize);
    auto third = sum();
    EXPECT_EQ(third->finish().error.type, 6);
    EXPECT_EQ(third->finish().error.text, "Can not finalize checksum.");
    EXPECT_EQ(third->finish().text, std::nullopt);
    fail_md5(Md5Step::none);
    EXPECT_EQ(sum()->finish().text, md5_of("data")) << "nothing of the failed ones is remembered";
    EXPECT_EQ(downloads(), 3u);
}

TEST_F(ChecksumCommand, BucketPathHasANullKeyAndIsNoCrash) {
    s3_bucket("b");
    auto op = sum("/b");
    EXPECT_EQ(s3_calls(S3Kind::head_object).at(0).key, std::nullopt);
    EXPECT_EQ(op->finishes.size(), 1u);
    s3_fail(S3Kind::head_object, 2, S3StatusErrorAccessDenied);
    EXPECT_TRUE(sum("/b")->finish().error.present);
}

}  // namespace
