// A download, its store and its host: what the tests of downloads share.
#pragma once

#include "transfer_fixture.h"

namespace module_test {

inline constexpr const char* multipart_etag = "\"0123456789abcdef0123456789abcdef-3\"";

class Send : public TransferTest {
  protected:
    void SetUp() override {
        TransferTest::SetUp();
        // A larger piece would get a buffer of its own size.
        s3_push_size(64);
    }
    // Send a path to its end with what the operation was set to.
    void run(Operation& op, const std::string& path = "/b/dir/f") {
        call_send(op, path);
        finish(op);
    }
    std::string run_content(const std::string& data, Operation& op) {
        s3_object("b", "dir/f", data);
        run(op);
        return op.content();
    }
    // An object whose ETag is no MD5.
    static void multipart_object(const std::string& data) {
        s3_object("b", "dir/f", data).properties.etag = multipart_etag;
    }
    static Reply with_data(const std::string& data, S3Status status, uint64_t length, const Text& etag) {
        Reply reply;
        reply.status = status;
        reply.data = data;
        reply.properties = Properties{};
        reply.properties->length = length;
        reply.properties->etag = etag;
        return reply;
    }
};

}  // namespace module_test
