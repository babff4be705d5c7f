// Which way an upload takes: refused, one request, or many parts.
#include <cerrno>
#include <cstdint>

#include "transfer_fixture.h"

using namespace module_test;

namespace {

constexpr int64_t mib5 = 5242880;
constexpr int64_t gib5 = 5368709120;
constexpr int64_t default_part = 500000000;
constexpr int64_t tb5 = 5000000000000;
constexpr int64_t tib5 = 5497558138880;

enum class Way { refused, single, multipart };

class RecvDispatch : public TransferTest {
  protected:
    // Start an upload whose worker cannot be made, and see where it went.
    Way way(int64_t alloc_size, bool truncate = true) {
        const auto size = log_text().size();
        last = std::make_unique<Operation>();
        fail_next_thread(EAGAIN);
        call_recv(*last, "/b/dir/f", alloc_size, truncate);
        EXPECT_FALSE(last->finishes.empty());
        EXPECT_EQ(last->finish().kind, Ending::transfer);
        EXPECT_NE(last->finish().result, ZORVAN_SUCCESS);
        faults_reset();
        const auto log = log_text().substr(size);
        const bool single = log.find("zorvan_i_s3_recv_single: enter") != std::string::npos;
        const bool multipart = log.find("zorvan_i_s3_recv_multipart: enter") != std::string::npos;
        EXPECT_FALSE(single && multipart);
        EXPECT_EQ(last->finishes.size(), single || multipart ? 2u : 1u);
        last->close();
        return single ? Way::single : multipart ? Way::multipart : Way::refused;
    }
    void expect_text(const char* text) {
        expect_generic(last->finish().error, "recv", text);
        EXPECT_EQ(last->finish().error.function, "zorvan_i_s3_recv");
    }
    void part_size(long long bytes) { zorvan_i_s3_part_size = bytes; }
    void TearDown() override {
        last.reset();
        TransferTest::TearDown();
    }
    std::unique_ptr<Operation> last;
};

TEST_F(RecvDispatch, DefaultPartSizeDecidesBetweenSingleAndMultipart) {
    EXPECT_EQ(way(0), Way::single);
    EXPECT_EQ(way(1), Way::single);
    EXPECT_EQ(way(default_part), Way::single);
    EXPECT_EQ(way(default_part + 1), Way::multipart);
    EXPECT_EQ(way(tb5), Way::multipart);
}

TEST_F(RecvDispatch, DefaultPartSizeRefusesMoreThan5DecimalTerabytes) {
    EXPECT_EQ(way(tb5 + 1), Way::refused);
    expect_text("File upload too large");
    EXPECT_EQ(way(INT64_MAX), Way::refused);
    expect_text("File upload too large");
}

TEST_F(RecvDispatch, NegativePartSizeIsTheDefault) {
    part_size(-1);
    EXPECT_EQ(way(default_part), Way::single);
    EXPECT_EQ(way(default_part + 1), Way::multipart);
    EXPECT_EQ(way(tb5 + 1), Way::refused);
}

TEST_F(RecvDispatch, ConfiguredPartSizeDecides) {
    part_size(mib5);
    EXPECT_EQ(way(mib5), Way::single);
    EXPECT_EQ(way(mib5 + 1), Way::multipart);
    EXPECT_EQ(way(0), Way::single);
}

TEST_F(RecvDispatch, PartSizeBelowTheMinimumIsRefused) {
    part_size(mib5 - 1);
    EXPECT_EQ(way(10), Way::refused);
    expect_text("Multipart upload part size is too small");
    EXPECT_EQ(way(10, false), Way::refused);
    expect_text("Multipart upload part size is too small");
    part_size(1);
    EXPECT_EQ(way(0), Way::refused);
}

TEST_F(RecvDispatch, PartSizeAboveTheMaximumIsRefused) {
    part_size(gib5 + 1);
    EXPECT_EQ(way(10), Way::refused);
    expect_text("Multipart upload part size is too large");
    EXPECT_EQ(way(10, false), Way::refused);
    expect_text("Multipart upload part size is too large");
}

TEST_F(RecvDispatch, ThePartSizeIsLookedAtBeforeTheSize) {
    part_size(mib5 - 1);
    EXPECT_EQ(way(INT64_MAX), Way::refused);
    expect_text("Multipart upload part size is too small");
    part_size(gib5 + 1);
    EXPECT_EQ(way(INT64_MAX), Way::refused);
    expect_text("Multipart upload part size is too large");
    part_size(INT64_MAX);
    EXPECT_EQ(way(INT64_MAX), Way::refused);
    expect_text("Multipart upload part size is too large");
}

TEST_F(RecvDispatch, LimitsOfThePartSizeAreAccepted) {
    part_size(mib5);
    EXPECT_EQ(way(1), Way::single);
    part_size(gib5);
    EXPECT_EQ(way(1), Way::single);
    EXPECT_EQ(way(gib5), Way::single);
    EXPECT_EQ(way(gib5 + 1), Way::multipart);
}

TEST_F(RecvDispatch, TenThousandPartsAreTheLimit) {
    part_size(mib5);
    EXPECT_EQ(way(52428800000), Way::multipart);
    EXPECT_EQ(way(52428800001), Way::refused);
    expect_text("File upload too large");
}

TEST_F(RecvDispatch, FiveTebibytesAreTheLimitOfLargeParts) {
    part_size(gib5);
    EXPECT_EQ(way(tib5), Way::multipart);
    EXPECT_EQ(way(tib5 + 1), Way::refused);
    expect_text("File upload too large");
}

TEST_F(RecvDispatch, WithoutTruncationItIsAMultipartUploadWhateverTheSize) {
    EXPECT_EQ(way(10, false), Way::multipart);
    EXPECT_EQ(way(0, false), Way::multipart);
    EXPECT_EQ(way(tb5 + 1, false), Way::multipart);
    part_size(mib5);
    EXPECT_EQ(way(10, false), Way::multipart);
    EXPECT_EQ(way(52428800001, false), Way::multipart);
}

TEST_F(RecvDispatch, RestrictedSessionsRefuseAppending) {
    session->restricted_endpoint = true;
    EXPECT_EQ(way(10, false), Way::refused);
    expect_ftp(last->finish().error, 553, "APPEND_NOT_SUPPORTED", std::nullopt);
    EXPECT_EQ(last->finish().error.cause, nullptr);
    EXPECT_EQ(way(tb5 + 1, false), Way::refused) << "before the size is looked at";
    expect_ftp(last->finish().error, 553, "APPEND_NOT_SUPPORTED", std::nullopt);
}

TEST_F(RecvDispatch, RestrictedSessionsUseSingleRequestsOnly) {
    session->restricted_endpoint = true;
    EXPECT_EQ(way(default_part + 1), Way::single);
    EXPECT_EQ(way(tb5), Way::single);
    EXPECT_EQ(way(tb5 + 1), Way::refused);
    expect_text("File upload too large");
}

TEST_F(RecvDispatch, RestrictedSessionsDoNotLookAtThePartSize) {
    session->restricted_endpoint = true;
    part_size(1);
    EXPECT_EQ(way(10), Way::single);
}

TEST_F(RecvDispatch, EntryIsLogged) {
    way(10);
    EXPECT_TRUE(
        logged("INFO", "zorvan_i_s3_recv", "recv op=" + pointer_text(last.get()) + " pathname=/b/dir/f"));
    EXPECT_TRUE(logged("INFO", "zorvan_i_s3_recv_single",
                       "recv: op=" + pointer_text(last.get()) + " pathname=/b/dir/f"));
}

// ---------------------------------------------------------------------------- failures of the set-up

TEST_F(RecvDispatch, FailedThreadFinishesTwiceWithOneResult) {
    EXPECT_EQ(way(10), Way::single);
    expect_generic(last->finishes[0].error, "recv_single", "zorvan_thread_create");
    EXPECT_EQ(last->finishes[0].result, last->finishes[1].result);
    EXPECT_TRUE(logged("INFO", "zorvan_i_s3_recv_single",
                       "finished_transfer: op=" + pointer_text(last.get()) +
                           " result=" + result_text(last->finishes[0].result)));
    EXPECT_EQ(last->begin_transfers, 0);
    EXPECT_TRUE(s3_calls(S3Kind::put_object).empty());
}

TEST_F(RecvDispatch, FailedAllocationFinishesTwiceWithOneResult) {
    Operation op;
    fail_allocation(1);
    call_recv(op, "/b/dir/f", 10);
    fail_allocation(0);
    ASSERT_EQ(op.finishes.size(), 2u);
    EXPECT_EQ(op.finish().error.errno_value, ENOMEM);
    EXPECT_EQ(op.finish().error.type, ZORVAN_ERROR_TYPE_SYSTEM);
    EXPECT_NE(op.finish().error.text->find("malloc"), std::string::npos);
    op.close();
}

TEST_F(RecvDispatch, ForbiddenBucketFinishesTwiceWithOneResult) {
    session->allowed_buckets = static_cast<char**>(std::calloc(1, sizeof(char*)));
    const auto threads = threads_asked_for();
    Operation op;
    call_recv(op, "/b/dir/f", 10);
    ASSERT_EQ(op.finishes.size(), 2u);
    expect_ftp(op.finish().error, 550, "PERMISSION_DENIED", std::nullopt);
    EXPECT_EQ(threads_asked_for(), threads);
    EXPECT_FALSE(log_holds("finished_transfer: op=" + pointer_text(&op)));
    op.close();
}

}  // namespace
