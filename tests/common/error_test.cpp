// Error objects: what they carry, who owns them, how they read, and the table of results.

#include <cerrno>
#include <climits>
#include <cstring>
#include <vector>

#include "support.h"

namespace {

using zorvan::test::consume;
using zorvan::test::friendly;
using zorvan::test::generic_error;
using zorvan::test::take;

constexpr zorvan_module_descriptor_t kModule{.name = "error_test",
                                             .activate = nullptr,
                                             .deactivate = nullptr,
                                             .reserved_1 = nullptr,
                                             .reserved_2 = nullptr,
                                             .version = nullptr};

class ErrorTest : public zorvan::test::CommonTest {};

TEST_F(ErrorTest, AGenericErrorCarriesWhatItWasGiven) {
    std::string file = "start_ceph";
    std::string function = "start";
    zorvan_error_t* cause = generic_error("the cause");
    zorvan_error_t* error =
        zorvan_error_construct_error(&kModule, cause, ZORVAN_ERROR_TYPE_GENERIC, file.c_str(),
                                     function.c_str(), 42, "%s is %d", "answer", 42);
    file.assign("overwritten");  // the object has copies
    function.assign("overwritten");
    EXPECT_EQ(zorvan_error_get_type(error), 6);
    EXPECT_EQ(zorvan_error_get_module(error), &kModule);
    EXPECT_EQ(zorvan_error_get_cause(error), cause);
    EXPECT_STREQ(zorvan_error_get_source_file(error), "start_ceph");
    EXPECT_STREQ(zorvan_error_get_function(error), "start");
    EXPECT_EQ(zorvan_error_get_line(error), 42);
    EXPECT_STREQ(zorvan_error_get_text(error), "answer is 42");
    EXPECT_EQ(zorvan_error_get_errno(error), 0);
    EXPECT_EQ(zorvan_error_get_ftp_code(error), 0);
    EXPECT_EQ(zorvan_error_get_ftp_word(error), nullptr);
    zorvan_error_free(error);  // and its cause: the leak checker would tell
}

TEST_F(ErrorTest, EveryOptionalPartMayBeNull) {
    zorvan_error_t* error = zorvan_error_construct_error(nullptr, nullptr, 9, nullptr, nullptr, 0, nullptr);
    EXPECT_EQ(zorvan_error_get_type(error), 9);
    EXPECT_EQ(zorvan_error_get_module(error), nullptr);
    EXPECT_EQ(zorvan_error_get_cause(error), nullptr);
    EXPECT_EQ(zorvan_error_get_source_file(error), nullptr);
    EXPECT_EQ(zorvan_error_get_function(error), nullptr);
    EXPECT_EQ(zorvan_error_get_text(error), nullptr);
    EXPECT_EQ(friendly(error), "unknown error");
    zorvan_error_free(error);

    error = zorvan_gfs_ftp_response_error_construct(nullptr, nullptr, 451, nullptr, nullptr);
    EXPECT_EQ(zorvan_error_get_ftp_word(error), nullptr);
    EXPECT_EQ(friendly(error), "451");
    zorvan_error_free(error);
}

TEST_F(ErrorTest, ASystemErrorCarriesItsErrno) {
    zorvan_error_t* error = zorvan_i_gfs_error_system(nullptr, ENOENT, "System error%s%s", " in ", "open");
    EXPECT_EQ(zorvan_error_get_type(error), ZORVAN_ERROR_TYPE_SYSTEM);
    EXPECT_EQ(zorvan_error_get_errno(error), ENOENT);
    EXPECT_STREQ(zorvan_error_get_text(error), "System error in open");
    EXPECT_EQ(friendly(error), "System error in open: No such file or directory");
    zorvan_error_free(error);

    error = zorvan_i_gfs_error_system(nullptr, EACCES, nullptr);
    EXPECT_EQ(friendly(error), "Permission denied");
    zorvan_error_free(error);
}

TEST_F(ErrorTest, AnFtpResponseCarriesItsCodeAndWord) {
    std::string word = "PATH_NOT_FOUND";
    zorvan_error_t* error = zorvan_gfs_ftp_response_error_construct(&kModule, nullptr, 550, word.c_str(),
                                                                    "No such %s:\nlook again", "file");
    word.assign("overwritten");
    EXPECT_EQ(zorvan_error_get_type(error), ZORVAN_ERROR_TYPE_FTP_RESPONSE);
    EXPECT_EQ(zorvan_error_get_module(error), &kModule);
    EXPECT_EQ(zorvan_error_get_ftp_code(error), 550);
    EXPECT_STREQ(zorvan_error_get_ftp_word(error), "PATH_NOT_FOUND");
    EXPECT_STREQ(zorvan_error_get_text(error), "No such file:\nlook again");
    EXPECT_EQ(friendly(error), "No such file:\nlook again");
    zorvan_error_free(error);
}

TEST_F(ErrorTest, AnFtpResponseWithoutATextShowsItsCodeAndWord) {
    zorvan_error_t* error =
        zorvan_gfs_ftp_response_error_construct(nullptr, nullptr, 553, "PERMISSION_DENIED", nullptr);
    EXPECT_EQ(zorvan_error_get_text(error), nullptr);
    EXPECT_EQ(friendly(error), "553 PERMISSION_DENIED");
    zorvan_error_free(error);
}

TEST_F(ErrorTest, CausesFollowOnLinesOfTheirOwn) {
    zorvan_error_t* root = zorvan_i_gfs_error_system(nullptr, ECONNREFUSED, "connect");
    zorvan_error_t* middle =
        zorvan_gfs_ftp_response_error_construct(nullptr, root, 451, "STORE_GONE", nullptr);
    zorvan_error_t* top = generic_error("upload failed\n", middle);
    EXPECT_EQ(friendly(top), "upload failed\n451 STORE_GONE\nconnect: Connection refused");
    EXPECT_EQ(friendly(middle), "451 STORE_GONE\nconnect: Connection refused");
    zorvan_error_free(top);
}

TEST_F(ErrorTest, NullIsAnUnknownErrorAndHasNoProperties) {
    EXPECT_EQ(friendly(nullptr), "unknown error");
    EXPECT_EQ(zorvan_error_get_type(nullptr), 0);
    EXPECT_EQ(zorvan_error_get_cause(nullptr), nullptr);
    EXPECT_EQ(zorvan_error_get_module(nullptr), nullptr);
    EXPECT_EQ(zorvan_error_get_source_file(nullptr), nullptr);
    EXPECT_EQ(zorvan_error_get_function(nullptr), nullptr);
    EXPECT_EQ(zorvan_error_get_line(nullptr), 0);
    EXPECT_EQ(zorvan_error_get_text(nullptr), nullptr);
    EXPECT_EQ(zorvan_error_get_errno(nullptr), 0);
    EXPECT_EQ(zorvan_error_get_ftp_code(nullptr), 0);
    EXPECT_EQ(zorvan_error_get_ftp_word(nullptr), nullptr);
    zorvan_error_free(nullptr);
}

TEST_F(ErrorTest, TheFriendlyTextOutlivesTheObjectAndTheObjectTheText) {
    zorvan_error_t* error = generic_error("still here");
    EXPECT_EQ(take(zorvan_error_print_friendly(error)), "still here");
    char* text = zorvan_error_print_friendly(error);
    zorvan_error_free(error);
    EXPECT_EQ(take(text), "still here");
}

TEST_F(ErrorTest, AnEndlessChainOfCausesIsFreedWithoutRecursion) {
    zorvan_error_t* chain = nullptr;
    constexpr int kLength = 200'000;
    for (int i = 0; i < kLength; ++i) {
        chain = zorvan_i_gfs_error_system(chain, EIO, nullptr);
    }
    int length = 0;
    for (const zorvan_error_t* error = chain; error != nullptr; error = zorvan_error_get_cause(error)) {
        ++length;
    }
    EXPECT_EQ(length, kLength);
    zorvan_error_free(chain);
}

TEST_F(ErrorTest, ALongTextIsKeptWhole) {
    const std::string text(100'000, 'x');
    EXPECT_EQ(consume(zorvan_error_put(generic_error(text.c_str()))), text);
}

TEST_F(ErrorTest, PutPeekAndGetMoveTheObject) {
    zorvan_error_t* error = generic_error("moved");
    const zorvan_result_t result = zorvan_error_put(error);
    EXPECT_NE(result, ZORVAN_SUCCESS);
    EXPECT_NE(result, ZORVAN_FAILURE);
    EXPECT_EQ(zorvan_error_table_count(), 1U);
    EXPECT_EQ(zorvan_error_peek(result), error);
    EXPECT_EQ(zorvan_error_peek(result), error);  // it stays
    EXPECT_EQ(zorvan_error_table_count(), 1U);
    EXPECT_EQ(zorvan_error_get(result), error);
    EXPECT_EQ(zorvan_error_table_count(), 0U);
    EXPECT_EQ(zorvan_error_peek(result), nullptr);
    EXPECT_EQ(zorvan_error_get(result), nullptr);  // twice is not a crash
    EXPECT_EQ(friendly(error), "moved");           // the taker owns it
    zorvan_error_free(error);
}

TEST_F(ErrorTest, UnknownHandlesAreAnsweredWithNull) {
    for (const zorvan_result_t unknown :
         {ZORVAN_SUCCESS, ZORVAN_FAILURE, 0x7fffffffU, 0x80000000U, 0xfffffff0U}) {
        EXPECT_EQ(zorvan_error_peek(unknown), nullptr) << unknown;
        EXPECT_EQ(zorvan_error_get(unknown), nullptr) << unknown;
    }
}

TEST_F(ErrorTest, PuttingNullIsStillAFailureWithAnObject) {
    const zorvan_result_t result = zorvan_error_put(nullptr);
    EXPECT_NE(result, ZORVAN_SUCCESS);
    EXPECT_NE(result, ZORVAN_FAILURE);
    EXPECT_EQ(consume(result), "unknown error");
}

TEST_F(ErrorTest, AReleasedHandleDoesNotComeBackSoon) {
    const zorvan_result_t released = zorvan_error_put(generic_error("first"));
    zorvan_error_free(zorvan_error_get(released));
    for (int i = 0; i < 100'000; ++i) {
        const zorvan_result_t result = zorvan_error_put(generic_error("later"));
        ASSERT_NE(result, released);
        zorvan_error_free(zorvan_error_get(result));
    }
}

TEST_F(ErrorTest, ManyLiveObjectsHaveHandlesOfTheirOwn) {
    std::vector<zorvan_result_t> results;
    for (int i = 0; i < 10'000; ++i) {
        results.push_back(zorvan_error_put(generic_error(std::to_string(i).c_str())));
    }
    EXPECT_EQ(zorvan_error_table_count(), results.size());
    for (size_t i = 0; i < results.size(); ++i) {
        ASSERT_EQ(consume(results[i]), std::to_string(i));
    }
}

}  // namespace
