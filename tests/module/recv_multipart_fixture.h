// What the tests of uploads in parts share. The parts are small: the back end's own function is called.
#pragma once

#include <cerrno>
#include <cstdint>
#include <functional>

#include "recv_multipart.h"
#include "transfer_fixture.h"

namespace module_test {

class RecvMultipartTest : public TransferTest {
  protected:
    static constexpr uint64_t part = 100;

    void SetUp() override {
        TransferTest::SetUp();
        s3_bucket("b");
    }
    std::string config() override {
        return std::string(standard_config) +
               "mime_types_path = " + write_file("mime.types", "text/plain txt\n") + "\n";
    }

    /// A fresh upload with what the operation was set to.
    void run(Operation& op, uint64_t total, uint64_t part_size = part, const std::string& path = "/b/dir/f") {
        call_recv_multipart(op, path, static_cast<int64_t>(total), total, part_size, false);
        finish(op);
    }
    /// A fresh upload of these bytes.
    void upload(Operation& op, const std::string& data, uint64_t part_size = part,
                const std::string& path = "/b/dir/f") {
        op.send_in_blocks(data);
        run(op, data.size(), part_size, path);
    }
    /// A resumed upload of the bytes from an offset on.
    void resume(Operation& op, const std::string& data, uint64_t offset, uint64_t part_size = part,
                const std::string& path = "/b/dir/f") {
        op.write_range = {{static_cast<int64_t>(offset), -1}};
        op.send_in_blocks(data.substr(offset), static_cast<int64_t>(offset));
        call_recv_multipart(op, path, static_cast<int64_t>(data.size() - offset), zorvan_i_s3_unknown_size,
                            part_size, true);
        finish(op);
    }
    /// Cut into parts.
    static std::vector<std::string> cut(const std::string& data, size_t part_size = part) {
        std::vector<std::string> parts;
        for (size_t at = 0; at < data.size(); at += part_size)
            parts.push_back(data.substr(at, part_size));
        return parts;
    }

    static std::vector<S3Call> parts() { return s3_calls(S3Kind::upload_part); }
    /// The kinds of the calls, in order.
    static std::vector<S3Kind> kinds() {
        std::vector<S3Kind> kinds;
        for (const auto& call : s3_calls())
            if (call.kind != S3Kind::initialize && call.kind != S3Kind::user_info) kinds.push_back(call.kind);
        return kinds;
    }
    static Reply reply_of(S3Status status, std::optional<size_t> take = std::nullopt) {
        Reply reply;
        reply.status = status;
        reply.take = take;
        return reply;
    }
    /// A part's success that tells this ETag.
    static Reply part_with(const Text& etag) {
        Reply reply;
        reply.properties = Properties{};
        reply.properties->etag = etag;
        return reply;
    }
    static void expect_stored(const std::string& data, const std::string& key = "dir/f") {
        const auto* object = s3_find("b", key);
        ASSERT_NE(object, nullptr);
        EXPECT_EQ(object->data, data);
        EXPECT_TRUE(s3_upload_ids("b").empty());
    }
    static void expect_not_stored() { EXPECT_EQ(s3_find("b", "dir/f"), nullptr); }
    /// The 553 that says that no upload can be continued, with this cause ("" = none).
    static void expect_not_found(const Operation& op, const std::string& source_file = "",
                                 const std::string& cause = "") {
        EXPECT_EQ(op.finishes.size(), 1u);
        expect_ftp(op.finish().error, 553, "MULTI_PART_UPLOAD_NOT_FOUND", std::nullopt);
        if (cause.empty()) {
            EXPECT_EQ(op.finish().error.cause, nullptr);
        } else {
            ASSERT_NE(op.finish().error.cause, nullptr);
            expect_generic(*op.finish().error.cause, source_file, cause);
        }
    }
    static std::string checksum_text(const std::string& computed, const std::string& expected) {
        return "GridFTP-Computed-Checksum: " + computed + "\nGridFTP-Expected-Checksum: " + expected;
    }
    /// No lines: for tests that run very many uploads.
    static void silence() { zorvan_i_ZORVAN_S3_debug_handle.levels = 0; }
};

using Ranges = std::vector<std::pair<int64_t, int64_t>>;

}  // namespace module_test
