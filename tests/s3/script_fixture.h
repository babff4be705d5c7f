// A scripted server with the client set up against it: short pauses, so that repetitions are quick.
#pragma once

#include <gtest/gtest.h>

#include "recorder.h"
#include "script_server.h"

namespace s3test {

class Scripted : public ::testing::Test {
  protected:
    void SetUp() override {
        host_ = server_.host();
        ASSERT_EQ(S3_initialize("scripted-test", S3_INIT_ALL, host_.c_str()), S3StatusOK);
        set_defaults();
        S3_set_option(S3OptionRetryPauseMs, 1);
        // However late the server's thread gets to run: a body must not be sent before it was asked for.
        S3_set_option(S3OptionExpectTimeoutMs, 60000);
    }
    void TearDown() override {
        S3_deinitialize();
        set_defaults();
        S3_set_option(S3OptionRetryPauseMs, 200);
    }
    static void set_defaults() {
        S3_set_option(S3OptionStallSeconds, 120);
        S3_set_option(S3OptionSlowStallSeconds, 600);
        S3_set_option(S3OptionExpectTimeoutMs, 1000);
        S3_set_option(S3OptionDownloadResumes, 5);
        S3_set_option(S3OptionUploadResends, 3);
        S3_set_option(S3OptionBucketProbeSeconds, 30);
        S3_set_option(S3OptionMaxIdleConnections, 256);
        S3_set_option(S3OptionIdleConnectionSeconds, 50);
    }

    S3BucketContext context() const {
        S3BucketContext context{};
        context.hostName = host_.c_str();
        context.bucketName = "bucket";
        context.protocol = S3ProtocolHTTP;
        context.uriStyle = S3UriStylePath;
        context.accessKeyId = "ACCESS";
        context.secretAccessKey = "SECRET";
        return context;
    }

    Recorder get(const char* key, uint64_t start = 0, uint64_t count = 0,
                 const S3GetConditions* conditions = nullptr) {
        Recorder recorder;
        get_into(recorder, key, start, count, conditions);
        return recorder;
    }
    void get_into(Recorder& recorder, const char* key, uint64_t start = 0, uint64_t count = 0,
                  const S3GetConditions* conditions = nullptr) {
        const S3BucketContext where = context();
        S3_get_object(&where, key, conditions, start, count, nullptr, 0, &kGet, &recorder);
    }
    Recorder head(const char* key) {
        Recorder recorder;
        const S3BucketContext where = context();
        S3_head_object(&where, key, nullptr, 0, &kResponse, &recorder);
        return recorder;
    }
    Recorder put(const char* key, const std::string& body, const S3PutProperties* properties = nullptr) {
        Recorder recorder;
        recorder.body = body;
        put_from(recorder, key, body.size(), properties);
        return recorder;
    }
    void put_from(Recorder& recorder, const char* key, uint64_t length,
                  const S3PutProperties* properties = nullptr) {
        const S3BucketContext where = context();
        S3_put_object(&where, key, length, properties, nullptr, 0, &kPut, &recorder);
    }
    Recorder list(const char* prefix = nullptr, const char* marker = nullptr, const char* delimiter = "/",
                  int most = 0) {
        Recorder recorder;
        const S3BucketContext where = context();
        S3_list_bucket(&where, prefix, marker, delimiter, most, nullptr, 0, &kList, &recorder);
        return recorder;
    }
    Recorder remove(const char* key) {
        Recorder recorder;
        const S3BucketContext where = context();
        S3_delete_object(&where, key, nullptr, 0, &kResponse, &recorder);
        return recorder;
    }

    ScriptServer server_;
    std::string host_;
};

}  // namespace s3test
