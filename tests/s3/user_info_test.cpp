// User information against scripted replies.
#include "script_fixture.h"

namespace {

using s3test::Recorder;
using s3test::reply;
using Events = std::vector<std::string>;

class UserInfo : public s3test::Scripted {
  protected:
    Recorder ask(const char* user, S3UriStyle style = S3UriStylePath) {
        Recorder recorder;
        S3BucketContext where = context();
        where.bucketName = nullptr;
        where.uriStyle = style;
        RG_get_user_info(&where, user, nullptr, &s3test::kUser, &recorder);
        return recorder;
    }
};

TEST_F(UserInfo, KeysAreTold) {
    server_.then(
        reply(200, {},
              R"({"tenant":"","user_id":"alice","display_name":"Alice","email":"a@example.org","suspended":1,
                           "max_buckets":1000,"keys":[
                           {"user":"alice:sub","access_key":"A0","secret_key":"S0"},
                           {"user":"alice","access_key":"A1","secret_key":"S/+1","active":true}],"caps":[]})"));
    const Recorder user = ask("tenant$al ice/&", S3UriStyleVirtualHost);
    EXPECT_EQ(user.status, S3StatusOK);
    EXPECT_EQ(user.events, (Events{"properties", "user", "complete"}));
    EXPECT_EQ(user.user_id, "alice");
    EXPECT_EQ(user.user_name, "Alice");
    EXPECT_EQ(user.user_email, "a@example.org");
    EXPECT_EQ(user.suspended, 1);
    EXPECT_EQ(user.max_buckets, 1000);
    ASSERT_EQ(user.user_keys.size(), 2u);
    EXPECT_STREQ(user.user_keys[0].user, "alice:sub");
    EXPECT_STREQ(user.user_keys[1].accessKey, "A1");
    EXPECT_STREQ(user.user_keys[1].secretKey, "S/+1");
    const auto request = server_.requests()[0];
    EXPECT_EQ(request.target, "/admin/user?format=json&uid=tenant%24al%20ice%2F%26");
    EXPECT_EQ(request.header("host"), host_);
    EXPECT_NE(request.header("authorization"), "");
}

TEST_F(UserInfo, KeysThatDoNotFitAreLeftOut) {
    const auto key = [](size_t user, size_t access, size_t secret, const std::string& more = "") {
        return R"({"user":")" + std::string(user, 'u') + R"(","access_key":")" + std::string(access, 'a') +
               R"(","secret_key":")" + std::string(secret, 's') + "\"" + more + "}";
    };
    server_.then(reply(200, {},
                       R"({"user_id":"u","display_name":")" + std::string(512, 'd') +
                           R"(","suspended":true,"keys":[)" + key(47, 255, 47) + "," + key(48, 1, 1) + "," +
                           key(1, 256, 1) + "," + key(1, 1, 48) + "," + key(1, 1, 1, ",\"active\":false") +
                           "," + key(1, 1, 0) + "," + key(1, 0, 1) + ",7]}"));
    const Recorder user = ask("u");
    EXPECT_EQ(user.status, S3StatusOK);
    ASSERT_EQ(user.user_keys.size(), 1u);
    EXPECT_EQ(std::string(user.user_keys[0].accessKey), std::string(255, 'a'));
    EXPECT_EQ(user.user_name, "");
    EXPECT_EQ(user.suspended, 1);
    EXPECT_EQ(user.max_buckets, 0);
}

TEST_F(UserInfo, NoKeysAreNoFailure) {
    server_.then(reply(200, {}, R"({"user_id":"u"})"));
    const Recorder user = ask("u");
    EXPECT_EQ(user.status, S3StatusOK);
    EXPECT_TRUE(user.saw("user"));
    EXPECT_TRUE(user.user_keys.empty());
}

TEST_F(UserInfo, FailuresDoNotReachTheUserCallback) {
    server_.then(reply(404, {}, R"({"Code":"NoSuchUser","Message":"","RequestId":"t","HostId":"h"})"))
        .then(reply(403, {}, R"({"Code":"AccessDenied"})"))
        .then(reply(200, {}, "{\"user_id\":"))
        .then(reply(200, {}, "[]"))
        .then(reply(200, {}, "<user_info/>"));
    const S3Status expected[] = {S3StatusHttpErrorNotFound, S3StatusErrorAccessDenied, S3StatusInternalError,
                                 S3StatusInternalError, S3StatusInternalError};
    for (const S3Status status : expected) {
        const Recorder user = ask("u");
        EXPECT_EQ(user.status, status) << S3_get_status_name(user.status);
        EXPECT_EQ(user.events, Events{"complete"});
    }
    EXPECT_EQ(ask("").status, S3StatusErrorInvalidArgument);
    EXPECT_EQ(ask(nullptr).status, S3StatusErrorInvalidArgument);
}

TEST_F(UserInfo, TheUserCallbackMayRefuse) {
    server_.then(reply(200, {}, R"({"user_id":"u"})"));
    Recorder recorder;
    recorder.refuse_page_with = S3StatusOutOfMemory;
    const S3BucketContext where = context();
    RG_get_user_info(&where, "u", nullptr, &s3test::kUser, &recorder);
    EXPECT_EQ(recorder.status, S3StatusOutOfMemory);
}

TEST_F(UserInfo, TheBucketIsTheEntryOfTheAdministrationInterface) {
    for (const S3UriStyle style : {S3UriStylePath, S3UriStyleVirtualHost}) {
        for (const char* entry : {"ops/v1", "/ops/v1/"}) {
            server_.then(reply(200, {}, R"({"user_id":"u"})"));
            S3BucketContext where = context();
            where.bucketName = entry;
            where.uriStyle = style;
            Recorder recorder;
            RG_get_user_info(&where, "u", nullptr, &s3test::kUser, &recorder);
            EXPECT_EQ(recorder.status, S3StatusOK);
            EXPECT_EQ(server_.requests().back().target, "/ops/v1/user?format=json&uid=u");
        }
    }
}

}  // namespace
