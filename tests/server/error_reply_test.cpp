// From errors to replies, letter by letter, beginning with real error objects.
#include "error_reply.h"

#include <gtest/gtest.h>
#include <zorvan_common.h>

#include <cerrno>

using namespace zorvan::gridftp;

namespace {

class ErrorReply : public ::testing::Test {
  protected:
    void TearDown() override { EXPECT_EQ(zorvan_error_table_count(), 0U); }

    static operation_error taken(zorvan_error_t* error) {
        return operation_error::take(zorvan_error_put(error));
    }
    static zorvan_error_t* generic(zorvan_error_t* cause, const char* text) {
        return zorvan_error_construct_error(nullptr, cause, ZORVAN_ERROR_TYPE_GENERIC, "file", "function", 1,
                                            "%s", text);
    }
    static zorvan_error_t* store_error(const char* text) {
        return zorvan_error_construct_error(nullptr, nullptr, ZORVAN_ERROR_TYPE_S3, "file", "function", 1,
                                            "%s", text);
    }
    static zorvan_error_t* coded(zorvan_error_t* cause, int code, const char* word, const char* text) {
        if (text == nullptr)
            return zorvan_gfs_ftp_response_error_construct(nullptr, cause, code, word, nullptr);
        return zorvan_gfs_ftp_response_error_construct(nullptr, cause, code, word, "%s", text);
    }
};

}  // namespace

TEST_F(ErrorReply, CodeWordTextAndCause) {
    const operation_error error = taken(coded(store_error("HttpErrorNotFound\nsecond line"), 550,
                                              "PATH_NOT_FOUND", "GridFTP-Path: /b/k\nmore"));
    EXPECT_EQ(error_reply(error, error_context::transfer),
              "550-PATH_NOT_FOUND\r\n550-GridFTP-Path: /b/k\r\n550-more\r\n550 HttpErrorNotFound\r\n");
    EXPECT_EQ(error_reply(error, error_context::login), error_reply(error, error_context::command));
}

TEST_F(ErrorReply, WithoutTextAndCauseOneLine) {
    EXPECT_EQ(
        error_reply(taken(coded(nullptr, 553, "APPEND_NOT_SUPPORTED", nullptr)), error_context::transfer),
        "553 APPEND_NOT_SUPPORTED\r\n");
}

TEST_F(ErrorReply, WithACauseButNoText) {
    EXPECT_EQ(error_reply(taken(coded(generic(nullptr, "Existing MPU has too many parts."), 553,
                                      "MULTI_PART_UPLOAD_NOT_FOUND", nullptr)),
                          error_context::transfer),
              "553-MULTI_PART_UPLOAD_NOT_FOUND\r\n553 Existing MPU has too many parts.\r\n");
}

TEST_F(ErrorReply, WithATextButNoCause) {
    EXPECT_EQ(
        error_reply(taken(coded(nullptr, 553, "PATH_EXISTS", "GridFTP-Path: /b/x")), error_context::command),
        "553-PATH_EXISTS\r\n553-GridFTP-Path: /b/x\r\n553 \r\n");
}

TEST_F(ErrorReply, ThePlainFailure) {
    for (const auto context : {error_context::command, error_context::transfer}) {
        EXPECT_EQ(error_reply(operation_error::take(ZORVAN_FAILURE), context),
                  "500 command not supported by this storage\r\n");
    }
}

// Clients take 530 alone for a log-in that was refused.
TEST_F(ErrorReply, ThePlainFailureOfALogIn) {
    EXPECT_EQ(error_reply(operation_error::take(ZORVAN_FAILURE), error_context::login),
              "530 The storage refused the log-in.\r\n");
}

TEST_F(ErrorReply, WithoutACodeTheContextChooses) {
    EXPECT_EQ(error_reply(taken(generic(nullptr, "no such key pair")), error_context::login),
              "530 no such key pair\r\n");
    EXPECT_EQ(error_reply(taken(generic(nullptr, "bad name")), error_context::command), "550 bad name\r\n");
    EXPECT_EQ(error_reply(taken(store_error("slow down")), error_context::command), "550 slow down\r\n");
}

TEST_F(ErrorReply, TransfersWithoutACode) {
    EXPECT_EQ(
        error_reply_code(taken(zorvan_i_gfs_error_system(nullptr, EFBIG, "x")), error_context::transfer),
        552);
    EXPECT_EQ(
        error_reply_code(taken(zorvan_i_gfs_error_system(nullptr, EINVAL, "x")), error_context::transfer),
        550);
    EXPECT_EQ(
        error_reply_code(taken(zorvan_i_gfs_error_system(nullptr, ENOMEM, "x")), error_context::transfer),
        451);
    EXPECT_EQ(error_reply_code(taken(generic(nullptr, "x")), error_context::transfer), 550);
    EXPECT_EQ(error_reply_code(taken(store_error("x")), error_context::transfer), 451);
}

TEST_F(ErrorReply, CausesAreLines) {
    EXPECT_EQ(error_reply(taken(generic(store_error("inner"), "outer")), error_context::command),
              "550-outer\r\n550 inner\r\n");
}

TEST_F(ErrorReply, NoTextCanForgeALine) {
    const std::string text = error_reply(taken(generic(nullptr, "a\r\n226 done")), error_context::command);
    EXPECT_EQ(text.find("\r\n226 "), std::string::npos) << text;
}

TEST_F(ErrorReply, TheChannelsOwnFailures) {
    EXPECT_EQ(
        error_reply(operation_error::channel(426, "The data connection failed."), error_context::transfer),
        "426 The data connection failed.\r\n");
    EXPECT_EQ(error_reply(operation_error::server(552, "", "The spool is full."), error_context::transfer),
              "552 The spool is full.\r\n");
    EXPECT_EQ(error_reply(operation_error::server(550, "INCORRECT_CHECKSUM", "They differ."),
                          error_context::transfer),
              "550-INCORRECT_CHECKSUM\r\n550 They differ.\r\n");
    EXPECT_EQ(error_reply(operation_error::server(550, "INCORRECT_CHECKSUM", ""), error_context::transfer),
              "550 INCORRECT_CHECKSUM\r\n");
}
