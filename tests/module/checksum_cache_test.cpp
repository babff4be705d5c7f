// MD5 contexts and the process-wide checksum cache.
#include <cerrno>
#include <cstring>
#include <thread>

#include "module_fixture.h"

using namespace module_test;

namespace {

constexpr const char* empty_md5 = "d41d8cd98f00b204e9800998ecf8427e";
constexpr const char* abc_md5 = "900150983cd24fb0d6963f7d28e17f72";

class Checksum : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        activate();
    }
    void TearDown() override {
        fail_md5(Md5Step::none);
        zorvan_i_s3_checksum_free(&context);
        EXPECT_EQ(context, nullptr);
        ModuleTest::TearDown();
    }
    zorvan_i_s3_checksum_t* context = nullptr;
};

TEST_F(Checksum, NoBytesGiveTheMd5OfEmptyInput) {
    ASSERT_EQ(zorvan_i_s3_checksum_init(&context), ZORVAN_SUCCESS);
    ASSERT_NE(context, nullptr);
    EXPECT_STREQ(context->md5sum, "");
    EXPECT_EQ(context->nbytes, 0u);
    ASSERT_EQ(zorvan_i_s3_checksum_finalize(context), ZORVAN_SUCCESS);
    EXPECT_STREQ(context->md5sum, empty_md5);
}

TEST_F(Checksum, PiecesAreCountedAndSummed) {
    ASSERT_EQ(zorvan_i_s3_checksum_init(&context), ZORVAN_SUCCESS);
    ASSERT_EQ(zorvan_i_s3_checksum_update(context, "a", 1), ZORVAN_SUCCESS);
    ASSERT_EQ(zorvan_i_s3_checksum_update(context, "", 0), ZORVAN_SUCCESS);
    ASSERT_EQ(zorvan_i_s3_checksum_update(context, "bcX", 2), ZORVAN_SUCCESS);
    EXPECT_EQ(context->nbytes, 3u);
    ASSERT_EQ(zorvan_i_s3_checksum_finalize(context), ZORVAN_SUCCESS);
    EXPECT_STREQ(context->md5sum, abc_md5);
}

TEST_F(Checksum, FailedUpdateIsAnErrorAndCountsAllTheSame) {
    ASSERT_EQ(zorvan_i_s3_checksum_init(&context), ZORVAN_SUCCESS);
    fail_md5(Md5Step::update);
    const auto result = zorvan_i_s3_checksum_update(context, "abc", 3);
    expect_generic(view_result(result), "checksum_cache", "checksum update error");
    release_result(result);
    EXPECT_EQ(context->nbytes, 3u);
}

TEST_F(Checksum, FailedFinalisationLeavesTheSumAlone) {
    ASSERT_EQ(zorvan_i_s3_checksum_init(&context), ZORVAN_SUCCESS);
    fail_md5(Md5Step::finalize);
    const auto result = zorvan_i_s3_checksum_finalize(context);
    expect_generic(view_result(result), "checksum_cache", "Can not finalize checksum.");
    release_result(result);
    EXPECT_STREQ(context->md5sum, "");
}

TEST_F(Checksum, FailedInitialisationIsTheMallocErrorAndTheContextIsStored) {
    fail_md5(Md5Step::init);
    const auto result = zorvan_i_s3_checksum_init(&context);
    const auto view = view_result(result);
    EXPECT_EQ(view.text, "System error in malloc");
    EXPECT_EQ(view.type, ZORVAN_ERROR_TYPE_SYSTEM);
    release_result(result);
    EXPECT_NE(context, nullptr);
}

TEST_F(Checksum, FailedAllocationIsTheMallocError) {
    context = reinterpret_cast<zorvan_i_s3_checksum_t*>(this);
    zorvan_result_t result = 0;
    {
        const InModule inside;
        fail_allocation(1);
        result = zorvan_i_s3_checksum_init(&context);
        fail_allocation(0);
    }
    expect_system(view_result(result), "malloc", ENOMEM);
    release_result(result);
    EXPECT_EQ(context, nullptr);
}

TEST_F(Checksum, FreeOfNothingIsHarmless) {
    zorvan_i_s3_checksum_free(&context);
    EXPECT_EQ(context, nullptr);
    EXPECT_TRUE(logged("TRACE", "zorvan_i_s3_checksum_free", "enter"));
    EXPECT_TRUE(logged("TRACE", "zorvan_i_s3_checksum_free", "exit"));
}

// ---------------------------------------------------------------------------------------------- cache

class ChecksumCache : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        activate();
    }
    static std::string find(const char* bucket, const char* key, const char* etag, uint64_t size) {
        char sum[zorvan_i_s3_md5sum_size] = "untouched";
        if (!zorvan_i_s3_checksum_find(bucket, key, etag, size, sum)) return "(none)";
        return sum;
    }
};

TEST_F(ChecksumCache, EntryIsFoundWithItsEtagAndSize) {
    zorvan_i_s3_checksum_add("b", "k", "\"e-2\"", 3, abc_md5);
    EXPECT_EQ(find("b", "k", "\"e-2\"", 3), abc_md5);
    EXPECT_TRUE(logged("TRACE", "zorvan_i_s3_checksum_find", "exit: 1"));
    EXPECT_FALSE(logged("TRACE", "zorvan_i_s3_checksum_find", "exit: 0"));
    EXPECT_EQ(find("b", "k", "\"e-2\"", 4), "(none)");
    EXPECT_TRUE(logged("TRACE", "zorvan_i_s3_checksum_find", "exit: 0"));
}

TEST_F(ChecksumCache, NewerEntryReplacesTheFirst) {
    zorvan_i_s3_checksum_add("b", "k", "\"e\"", 3, empty_md5);
    zorvan_i_s3_checksum_add("b", "k", "\"e\"", 3, abc_md5);
    EXPECT_EQ(find("b", "k", "\"e\"", 3), abc_md5);
}

TEST_F(ChecksumCache, NewerEtagMakesTheOlderUnfindable) {
    zorvan_i_s3_checksum_add("b", "k", "\"old\"", 3, empty_md5);
    zorvan_i_s3_checksum_add("b", "k", "\"new\"", 4, abc_md5);
    EXPECT_EQ(find("b", "k", "\"old\"", 3), "(none)");
    EXPECT_EQ(find("b", "k", "\"new\"", 4), abc_md5);
}

TEST_F(ChecksumCache, OtherSizeEtagCaseOrQuotesDoNotMatch) {
    zorvan_i_s3_checksum_add("b", "k", "\"etag\"", 3, abc_md5);
    EXPECT_EQ(find("b", "k", "\"etag\"", 4), "(none)");
    EXPECT_EQ(find("b", "k", "\"ETAG\"", 3), "(none)");
    EXPECT_EQ(find("b", "k", "etag", 3), "(none)");
    EXPECT_EQ(find("b", "k", "", 3), "(none)");
    EXPECT_EQ(find("b", "k2", "\"etag\"", 3), "(none)");
    EXPECT_EQ(find("B", "k", "\"etag\"", 3), "(none)");
    EXPECT_EQ(find("b", "k", "\"etag\"", 3), abc_md5);
}

TEST_F(ChecksumCache, NullEtagOfAReplyFindsNothing) {
    zorvan_i_s3_checksum_add("b", "k", "\"etag\"", 3, abc_md5);
    EXPECT_EQ(find("b", "k", nullptr, 3), "(none)");
}

TEST_F(ChecksumCache, SizesBeyond32BitsAreCompared) {
    zorvan_i_s3_checksum_add("b", "k", "\"e\"", (uint64_t{1} << 40) + 1, abc_md5);
    EXPECT_EQ(find("b", "k", "\"e\"", 1), "(none)");
    EXPECT_EQ(find("b", "k", "\"e\"", (uint64_t{1} << 40) + 1), abc_md5);
}

TEST_F(ChecksumCache, EmptyEtagIsNotCachedAndLogged) {
    zorvan_i_s3_checksum_add("b", "k", "\"e\"", 3, abc_md5);
    zorvan_i_s3_checksum_add("b", "k", "", 3, empty_md5);
    EXPECT_EQ(host_logged(2, "Can not cache invalid checksum:  path: 'b/k', checksum: '" +
                                 std::string(empty_md5) + "', etag: ''\n"),
              1);
    EXPECT_EQ(find("b", "k", "\"e\"", 3), abc_md5);
}

TEST_F(ChecksumCache, NullEtagIsNotCachedAndLogged) {
    zorvan_i_s3_checksum_add("b", "k", nullptr, 3, abc_md5);
    ASSERT_EQ(host_log().size(), 1u);
    EXPECT_EQ(host_log()[0].level, 2);
    EXPECT_TRUE(host_log()[0].text.starts_with("Can not cache invalid checksum:  path: 'b/k', checksum: '" +
                                               std::string(abc_md5) + "', etag: '"));
    EXPECT_EQ(find("b", "k", "", 3), "(none)");
}

TEST_F(ChecksumCache, EmptySumIsNotCachedAndLogged) {
    zorvan_i_s3_checksum_add("b", "k", "\"e\"", 3, "");
    EXPECT_EQ(host_logged(2, "Can not cache invalid checksum:  path: 'b/k', checksum: '', etag: '\"e\"'\n"),
              1);
    EXPECT_EQ(find("b", "k", "\"e\"", 3), "(none)");
}

TEST_F(ChecksumCache, NullKeyIsAnEmptyOne) {
    zorvan_i_s3_checksum_add("b", nullptr, "\"e\"", 3, abc_md5);
    EXPECT_EQ(find("b", nullptr, "\"e\"", 3), abc_md5);
    EXPECT_EQ(find("b", "", "\"e\"", 3), abc_md5);
}

TEST_F(ChecksumCache, NothingIsWrittenWhenNothingIsFound) {
    char sum[zorvan_i_s3_md5sum_size] = "untouched";
    EXPECT_FALSE(zorvan_i_s3_checksum_find("b", "k", "\"e\"", 3, sum));
    EXPECT_STREQ(sum, "untouched");
}

TEST_F(ChecksumCache, LongKeysAreWhole) {
    const std::string key = std::string(2000, 'k');
    const std::string other = key + "x";
    zorvan_i_s3_checksum_add("b", key.c_str(), "\"e\"", 3, abc_md5);
    EXPECT_EQ(find("b", key.c_str(), "\"e\"", 3), abc_md5);
    EXPECT_EQ(find("b", other.c_str(), "\"e\"", 3), "(none)");
}

TEST_F(ChecksumCache, DeactivationForgets) {
    zorvan_i_s3_checksum_add("b", "k", "\"e\"", 3, abc_md5);
    deactivate();
    activate();
    EXPECT_EQ(find("b", "k", "\"e\"", 3), "(none)");
}

TEST_F(ChecksumCache, ManyThreadsAddAndFind) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 500; ++i) {
                const auto key = "k" + std::to_string((i * (t + 1)) % 50);
                zorvan_i_s3_checksum_add("b", key.c_str(), "\"e\"", 3, abc_md5);
                EXPECT_EQ(find("b", key.c_str(), "\"e\"", 3), abc_md5);
            }
        });
    for (auto& thread : threads)
        thread.join();
}

TEST_F(ChecksumCache, AllocationThatFailsIsHarmless) {
    int unknown = 0;
    for (long n = 1; n < 12; ++n) {
        {
            const InModule inside;
            fail_allocation(n);
            zorvan_i_s3_checksum_add("b", "k", "\"e\"", 3, abc_md5);
            fail_allocation(0);
        }
        const auto found = find("b", "k", "\"e\"", 3);
        EXPECT_TRUE(found == abc_md5 || found == "(none)") << found;
        unknown += found == "(none)";
    }
    EXPECT_GT(unknown, 1) << "copies that fail leave no half entry";
    zorvan_i_s3_checksum_add("b", "k", "\"e\"", 3, abc_md5);
    EXPECT_EQ(find("b", "k", "\"e\"", 3), abc_md5);
}

// ------------------------------------------------------------------------- an ETag that is the MD5 itself

class EtagMd5 : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        activate();
    }
    static std::string taken(const char* etag, char encryption = 0) {
        S3ResponseProperties properties{};
        properties.eTag = etag;
        properties.usesServerSideEncryption = encryption;
        char sum[zorvan_i_s3_md5sum_size] = "x";
        const bool is = zorvan_i_s3_metadata_has_checksum(&properties, sum);
        EXPECT_EQ(is, sum[0] != '\0');
        return is ? sum : "(none)";
    }
};

TEST_F(EtagMd5, QuotedDigitsAreTheMd5) {
    EXPECT_EQ(taken("\"900150983cd24fb0d6963f7d28e17f72\""), abc_md5);
    EXPECT_EQ(taken("\"900150983CD24FB0D6963F7D28E17F72\""), "900150983CD24FB0D6963F7D28E17F72");
    EXPECT_EQ(taken("\"900150983cd24fb0d6963f7d28e17f72\"", 1), abc_md5);
}

TEST_F(EtagMd5, EverythingElseIsNot) {
    EXPECT_EQ(taken(nullptr), "(none)");
    EXPECT_EQ(taken(""), "(none)");
    EXPECT_EQ(taken("900150983cd24fb0d6963f7d28e17f72"), "(none)");
    EXPECT_EQ(taken("\"900150983cd24fb0d6963f7d28e17f72-2\""), "(none)");
    EXPECT_EQ(taken("\"900150983cd24fb0d6963f7d28e17f-2\""), "(none)");
    EXPECT_EQ(taken("\"900150983cd24fb0d6963f7d28e17g72\""), "(none)");
    EXPECT_EQ(taken("\"900150983cd24fb0d6963f7d28e17f72\"", 2), "(none)");
}

}  // namespace
