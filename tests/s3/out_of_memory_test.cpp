// Memory that runs out: every allocation of every call fails once, alone and with all that follow. A call
// ends exactly once, with the store's answer or as out of memory, and the library goes on working.
#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "failing_system.h"
#include "script_fixture.h"

namespace {

using s3test::error_reply;
using s3test::reply;
using zorvan::test::FailingAllocations;

// What the handlers note. They allocate nothing: only the client's own allocations are to fail.
struct Outcome {
    int completions = 0;
    S3Status status = S3StatusInternalError;
    uint64_t bytes = 0;
    int told = 0;  // of what the call is about: entries, ids, users
};

Outcome& outcome_of(void* data) {
    return *static_cast<Outcome*>(data);
}
S3Status on_properties(const S3ResponseProperties*, void*) {
    return S3StatusOK;
}
void on_complete(S3Status status, const S3ErrorDetails*, void* data) {
    ++outcome_of(data).completions;
    outcome_of(data).status = status;
}
S3Status on_get_data(int size, const char*, void* data) {
    outcome_of(data).bytes += static_cast<uint64_t>(size);
    return S3StatusOK;
}
int on_put_data(int room, char* buffer, void* data) {
    std::memset(buffer, 'x', static_cast<size_t>(room));
    outcome_of(data).bytes += static_cast<uint64_t>(room);
    return room;
}
S3Status tell(void* data, int count) {
    outcome_of(data).told += count;
    return S3StatusOK;
}

constexpr S3ResponseHandler kEnd{on_properties, on_complete};
constexpr S3GetObjectHandler kGet{kEnd, on_get_data};
constexpr S3PutObjectHandler kPut{kEnd, on_put_data};
constexpr S3ListBucketHandler kList{kEnd, [](int, const char*, int count, const S3ListBucketContent*, int,
                                             const char**, void* data) { return tell(data, count); }};
constexpr S3ListServiceHandler kService{
    kEnd, [](const char*, const char*, const char*, int64_t, void* data) { return tell(data, 1); }};
constexpr S3MultipartInitialHandler kInitiate{kEnd, [](const char*, void* data) { return tell(data, 1); }};
constexpr S3MultipartCommitHandler kCommit{
    kEnd, on_put_data, [](const char*, const char*, void* data) { return tell(data, 1); }};
constexpr S3ListPartsHandler kParts{
    kEnd, [](int, const char*, const char*, const char*, const char*, const char*, const char*, int count,
             int, const S3ListPart*, void* data) { return tell(data, count); }};
constexpr S3ListMultipartUploadsHandler kUploads{
    kEnd, [](int, const char*, const char*, int count, const S3ListMultipartUpload*, int, const char**,
             void* data) { return tell(data, count); }};
constexpr S3AbortMultipartUploadHandler kAbort{kEnd, nullptr};
constexpr RGUserInfoHandler kUser{
    kEnd, [](const RGUserInfo* info, void* data) { return tell(data, info->keyCount); }};

// Longer than what a string holds in itself, so that no copy of it comes without an allocation.
const std::string kKey = "a/folder with blanks/and a name that is long enough";
const std::string kEtag = "\"" + std::string(32, 'a') + "\"";

class OutOfMemory : public s3test::Scripted {
  protected:
    using Call = std::function<void(const S3BucketContext&, Outcome&)>;

    /// The call with allocation after allocation failing, until none is left that could; in the end as much
    /// memory is in use as was before.
    void sweep(const char* what, const std::string& answer, const Outcome& expected, const Call& call) {
        long blocks = 0;
        for (const long how_many : {1L, -1L, 1L}) {
            // The first two rounds make what is made once in a process.
            S3_deinitialize();
            blocks = zorvan::test::live_blocks();
            ASSERT_EQ(S3_initialize("scripted-test", S3_INIT_ALL, host_.c_str()), S3StatusOK);
            // Its own server: what a call that failed has left of the script is nobody else's.
            s3test::ScriptServer server;
            const std::string host = server.host();
            S3BucketContext where = context();
            where.hostName = host.c_str();
            long failures = 0;
            for (long after = 0;; ++after) {
                // A request that was given up may reach the server later, and take a step then.
                while (server.steps_left() < 3)
                    server.then(answer);
                Outcome outcome;
                bool failed = false;
                {
                    const FailingAllocations failing(after, how_many);
                    call(where, outcome);
                    failed = failing.failed();
                }
                SCOPED_TRACE(std::string(what) + ", allocation " + std::to_string(after) + " of " +
                             (how_many == 1 ? "one" : "all"));
                ASSERT_EQ(outcome.completions, 1);
                if (outcome.status == S3StatusOutOfMemory && failed) {
                    ++failures;
                    ASSERT_LE(outcome.bytes, expected.bytes);
                    continue;
                }
                ASSERT_EQ(outcome.status, expected.status);
                ASSERT_EQ(outcome.bytes, expected.bytes);
                ASSERT_EQ(outcome.told, expected.told);
                if (!failed) break;
            }
            EXPECT_GT(failures, 0) << what;
        }
        S3_deinitialize();
        EXPECT_EQ(zorvan::test::live_blocks(), blocks) << what << " leaks";
        ASSERT_EQ(S3_initialize("scripted-test", S3_INIT_ALL, host_.c_str()), S3StatusOK);
    }
    static Outcome ends(S3Status status, uint64_t bytes = 0, int told = 0) {
        return {.completions = 1, .status = status, .bytes = bytes, .told = told};
    }
};

TEST_F(OutOfMemory, Objects) {
    const char* const key = kKey.c_str();
    sweep("get", reply(200, {{"ETag", kEtag}, {"x-amz-meta-md5", "long enough to be allocated"}}, "hello"),
          ends(S3StatusOK, 5), [&](const S3BucketContext& where, Outcome& outcome) {
              S3_get_object(&where, key, nullptr, 0, 0, nullptr, 0, &kGet, &outcome);
          });
    sweep("head", reply(200, {{"ETag", kEtag}}), ends(S3StatusOK),
          [&](const S3BucketContext& where, Outcome& outcome) {
              S3_head_object(&where, key, nullptr, 0, &kEnd, &outcome);
          });
    sweep("an error with a document", error_reply(404, "NoSuchKey", "there is no object of this name"),
          ends(S3StatusErrorNoSuchKey), [&](const S3BucketContext& where, Outcome& outcome) {
              S3_get_object(&where, key, nullptr, 0, 0, nullptr, 0, &kGet, &outcome);
          });
    sweep("put", reply(200, {{"ETag", kEtag}}), ends(S3StatusOK, 100),
          [&](const S3BucketContext& where, Outcome& outcome) {
              S3_put_object(&where, key, 100, nullptr, nullptr, 0, &kPut, &outcome);
          });
    // Announced with "Expect", and so read only when the store wants it.
    constexpr uint64_t kAnnounced = 1024 * 1024;
    sweep("put of a large object", reply(200, {{"ETag", kEtag}}), ends(S3StatusOK, kAnnounced),
          [&](const S3BucketContext& where, Outcome& outcome) {
              S3_put_object(&where, key, kAnnounced, nullptr, nullptr, 0, &kPut, &outcome);
          });
    sweep("copy", reply(200, {}, "<CopyObjectResult><ETag>" + kEtag + "</ETag></CopyObjectResult>"),
          ends(S3StatusOK), [&](const S3BucketContext& where, Outcome& outcome) {
              S3_copy_object(&where, key, nullptr, "another name that is long enough", nullptr, nullptr, 0,
                             nullptr, nullptr, 0, &kEnd, &outcome);
          });
    sweep("delete", reply(204), ends(S3StatusOK), [&](const S3BucketContext& where, Outcome& outcome) {
        S3_delete_object(&where, key, nullptr, 0, &kEnd, &outcome);
    });
    sweep("restore", reply(202), ends(S3StatusOK), [&](const S3BucketContext& where, Outcome& outcome) {
        S3_restore_object(&where, key, 3, "Standard", nullptr, 0, &kEnd, &outcome);
    });
}

TEST_F(OutOfMemory, Listings) {
    sweep("objects",
          reply(200, {},
                "<ListBucketResult><IsTruncated>true</IsTruncated><Contents><Key>" + kKey +
                    "</Key><Size>1</Size></Contents><CommonPrefixes><Prefix>a/</Prefix></CommonPrefixes>"
                    "</ListBucketResult>"),
          ends(S3StatusOK, 0, 1), [&](const S3BucketContext& where, Outcome& outcome) {
              S3_list_bucket(&where, kKey.c_str(), nullptr, "/", 0, nullptr, 0, &kList, &outcome);
          });
    sweep("buckets",
          reply(200, {},
                "<ListAllMyBucketsResult><Buckets><Bucket><Name>a-bucket-with-a-long-name</Name></Bucket>"
                "<Bucket><Name>b</Name></Bucket></Buckets></ListAllMyBucketsResult>"),
          ends(S3StatusOK, 0, 2), [&](const S3BucketContext& where, Outcome& outcome) {
              S3_list_service(S3ProtocolHTTP, "A", "S", nullptr, where.hostName, nullptr, nullptr, 0,
                              &kService, &outcome);
          });
    sweep("a bucket is made", reply(200), ends(S3StatusOK),
          [&](const S3BucketContext& where, Outcome& outcome) {
              S3_create_bucket(S3ProtocolHTTP, "A", "S", nullptr, where.hostName, "a-bucket-with-a-long-name",
                               nullptr, S3CannedAclPrivate, "eu", nullptr, 0, &kEnd, &outcome);
          });
    sweep("a bucket is deleted", reply(204), ends(S3StatusOK),
          [&](const S3BucketContext& where, Outcome& outcome) {
              S3_delete_bucket(S3ProtocolHTTP, S3UriStylePath, "A", "S", nullptr, where.hostName,
                               "a-bucket-with-a-long-name", nullptr, nullptr, 0, &kEnd, &outcome);
          });
    sweep(
        "a user",
        reply(200, {}, R"({"user_id":"alice","keys":[{"user":"alice","access_key":"A","secret_key":"S"}]})"),
        ends(S3StatusOK, 0, 1), [&](const S3BucketContext& where, Outcome& outcome) {
            RG_get_user_info(&where, "a tenant$a user of a long name", nullptr, &kUser, &outcome);
        });
}

TEST_F(OutOfMemory, MultipartUploads) {
    const char* const key = kKey.c_str();
    const char* const id = "2~an id that is long enough to be allocated";
    sweep("begin",
          reply(200, {},
                "<InitiateMultipartUploadResult><UploadId>2~id</UploadId></InitiateMultipartUploadResult>"),
          ends(S3StatusOK, 0, 1), [&](const S3BucketContext& where, Outcome& outcome) {
              S3_initiate_multipart(&where, key, nullptr, &kInitiate, nullptr, 0, &outcome);
          });
    sweep("a part", reply(200, {{"ETag", kEtag}}), ends(S3StatusOK, 100),
          [&](const S3BucketContext& where, Outcome& outcome) {
              S3_upload_part(&where, key, nullptr, &kPut, 1, id, 100, nullptr, 0, &outcome);
          });
    sweep("commit",
          reply(200, {},
                "<CompleteMultipartUploadResult><ETag>" + kEtag + "</ETag></CompleteMultipartUploadResult>"),
          ends(S3StatusOK, 100, 1), [&](const S3BucketContext& where, Outcome& outcome) {
              S3_complete_multipart_upload(&where, key, &kCommit, id, 100, nullptr, 0, &outcome);
          });
    sweep("abort", reply(204), ends(S3StatusOK), [&](const S3BucketContext& where, Outcome& outcome) {
        S3_abort_multipart_upload_ex(&where, key, id, 0, &kAbort, nullptr, &outcome);
    });
    sweep("parts",
          reply(200, {},
                "<ListPartsResult><Part><PartNumber>1</PartNumber><Size>5</Size><ETag>" + kEtag +
                    "</ETag></Part></ListPartsResult>"),
          ends(S3StatusOK, 0, 1), [&](const S3BucketContext& where, Outcome& outcome) {
              S3_list_parts(&where, key, nullptr, id, nullptr, 0, nullptr, 0, &kParts, &outcome);
          });
    sweep("uploads",
          reply(200, {},
                "<ListMultipartUploadsResult><Upload><Key>" + kKey +
                    "</Key><UploadId>2~id</UploadId></Upload><CommonPrefixes><Prefix>a/</Prefix>"
                    "</CommonPrefixes></ListMultipartUploadsResult>"),
          ends(S3StatusOK, 0, 1), [&](const S3BucketContext& where, Outcome& outcome) {
              S3_list_multipart_uploads(&where, key, nullptr, nullptr, nullptr, "/", 0, nullptr, 0, &kUploads,
                                        &outcome);
          });
}

TEST_F(OutOfMemory, TheLibrarysOwnLife) {
    const std::string host = "a-host-with-a-name-of-some-length.example.org:8443";
    for (const bool anew : {true, false}) {
        long failures = 0;
        for (long after = 0;; ++after) {
            if (anew) S3_deinitialize();
            const FailingAllocations failing(after, 1);
            const S3Status status = S3_initialize("an agent of some length", S3_INIT_ALL, host.c_str());
            if (!failing.failed()) {
                EXPECT_EQ(status, S3StatusOK);
                break;
            }
            ASSERT_EQ(status, S3StatusOutOfMemory) << after;
            ++failures;
        }
        EXPECT_GT(failures, 0) << anew;
    }
    {
        const FailingAllocations failing(0, 1);
        EXPECT_EQ(S3_set_thread_default_host(host.c_str()), S3StatusOutOfMemory);
    }
    // Nothing of the failed call is left.
    ASSERT_EQ(S3_initialize("scripted-test", S3_INIT_ALL, host_.c_str()), S3StatusOK);
    host_.clear();
    server_.then(reply(200));
    EXPECT_EQ(head("key").status, S3StatusOK) << "the library's host, not the thread's";
}

}  // namespace
