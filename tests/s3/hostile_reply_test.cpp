// Replies that no honest store sends: cut, nested, endless, booby-trapped or in another encoding. Each ends
// in one status, takes bounded memory, and tells its caller nothing that the document does not say.
#include "script_fixture.h"

namespace {

using s3test::Recorder;
using s3test::reply;
using s3test::Step;
using Events = std::vector<std::string>;
using Names = std::vector<std::string>;

std::string repeated(const std::string& text, size_t times) {
    std::string out;
    out.reserve(text.size() * times);
    for (size_t i = 0; i < times; ++i)
        out += text;
    return out;
}

class Hostile : public s3test::Scripted {
  protected:
    struct Request {
        const char* name;
        std::function<void(Recorder&)> run;
        std::string document;
    };

    // Every request whose reply is read, and a reply that it takes.
    std::vector<Request> readers() {
        const auto with_context = [this](auto run) {
            return [this, run](Recorder& recorder) {
                const S3BucketContext where = context();
                run(where, recorder);
            };
        };
        return {
            {"list bucket", [this](Recorder& r) { r = list(); },
             "<?xml version=\"1.0\"?><ListBucketResult><IsTruncated>false</IsTruncated><Contents><Key>a</Key>"
             "<Size>1</Size></Contents></ListBucketResult>"},
            {"list service",
             [this](Recorder& r) {
                 S3_list_service(S3ProtocolHTTP, "A", "S", nullptr, host_.c_str(), nullptr, nullptr, 0,
                                 &s3test::kService, &r);
             },
             "<ListAllMyBucketsResult><Buckets><Bucket><Name>one</Name></Bucket></Buckets>"
             "</ListAllMyBucketsResult>"},
            {"begin upload", with_context([](const S3BucketContext& where, Recorder& r) {
                 S3_initiate_multipart(&where, "key", nullptr, &s3test::kInitiate, nullptr, 0, &r);
             }),
             "<InitiateMultipartUploadResult><UploadId>2~x</UploadId></InitiateMultipartUploadResult>"},
            {"list parts", with_context([](const S3BucketContext& where, Recorder& r) {
                 S3_list_parts(&where, "key", nullptr, "id", nullptr, 0, nullptr, 0, &s3test::kParts, &r);
             }),
             "<ListPartsResult><IsTruncated>false</IsTruncated><Part><PartNumber>1</PartNumber><ETag>e</ETag>"
             "<Size>5</Size></Part></ListPartsResult>"},
            {"list uploads", with_context([](const S3BucketContext& where, Recorder& r) {
                 S3_list_multipart_uploads(&where, nullptr, nullptr, nullptr, "url", nullptr, 0, nullptr, 0,
                                           &s3test::kUploads, &r);
             }),
             "<ListMultipartUploadsResult><IsTruncated>false</IsTruncated><Upload><Key>a</Key><UploadId>i"
             "</UploadId></Upload></ListMultipartUploadsResult>"},
            {"copy", with_context([](const S3BucketContext& where, Recorder& r) {
                 S3_copy_object(&where, "key", nullptr, "to", nullptr, nullptr, 0, nullptr, nullptr, 0,
                                &s3test::kResponse, &r);
             }),
             "<CopyObjectResult><ETag>e</ETag></CopyObjectResult>"},
            {"user", with_context([](const S3BucketContext& where, Recorder& r) {
                 RG_get_user_info(&where, "u", nullptr, &s3test::kUser, &r);
             }),
             R"({"user_id":"u","keys":[{"user":"u","access_key":"A","secret_key":"S"}]})"},
        };
    }

    void expect_refused(const Request& request, const std::string& document, const char* what) {
        server_.then(reply(200, {}, document));
        Recorder got;
        request.run(got);
        EXPECT_NE(got.status, S3StatusOK) << request.name << ", " << what;
        EXPECT_EQ(got.events, Events{"complete"}) << request.name << ", " << what;
        EXPECT_EQ(server_.steps_left(), 0u) << request.name << ", " << what;
    }
};

TEST_F(Hostile, WholeDocumentsAreTaken) {
    for (const Request& request : readers()) {
        server_.then(reply(200, {}, request.document));
        Recorder got;
        request.run(got);
        EXPECT_EQ(got.status, S3StatusOK) << request.name;
    }
}

TEST_F(Hostile, DocumentsCutAnywhereAreRefused) {
    for (const Request& request : readers()) {
        for (size_t cut = 0; cut < request.document.size(); ++cut)
            expect_refused(request, request.document.substr(0, cut), std::to_string(cut).c_str());
    }
}

TEST_F(Hostile, OtherDocumentsAreRefused) {
    const std::string doctype =
        "<?xml version=\"1.0\"?><!DOCTYPE a [<!ENTITY x SYSTEM \"file:///etc/passwd\">]><a>&x;</a>";
    for (const Request& request : readers()) {
        expect_refused(request, "", "nothing");
        expect_refused(request, std::string(1000, '\0'), "zeros");
        expect_refused(request, "<html><body>no</body></html>", "a page");
        expect_refused(request, "[]", "an array");
        expect_refused(request, "\xff\xfe<\0a\0>\0", "another encoding");
        expect_refused(request, repeated("<a>", 300'000), "nested XML");
        expect_refused(request, repeated("[", 300'000), "nested JSON");
        expect_refused(request, repeated("{\"a\":", 300'000), "nested objects");
        expect_refused(request, doctype, "an external entity");
        // The whole document, but something after it or in it that ends a C text.
        std::string spoilt = request.document;
        spoilt.insert(spoilt.size() / 2, 1, '\0');
        expect_refused(request, spoilt, "a zero inside");
    }
}

TEST_F(Hostile, EntitiesAreNotExpanded) {
    std::string bomb = "<?xml version=\"1.0\"?><!DOCTYPE l [<!ENTITY a0 \"ha\">";
    for (int i = 1; i < 40; ++i) {
        const std::string before = "&a" + std::to_string(i - 1) + ";";
        bomb += "<!ENTITY a" + std::to_string(i) + " \"" + before + before + "\">";
    }
    bomb +=
        "]><ListBucketResult><IsTruncated>false</IsTruncated><Contents><Key>&a39;</Key></Contents>"
        "</ListBucketResult>";
    server_.then(reply(200, {}, bomb));
    const Recorder listed = list();
    EXPECT_EQ(listed.status, S3StatusOK);
    EXPECT_EQ(listed.keys, Names{"&a39;"});
}

TEST_F(Hostile, BytesThatAreNoTextStayAsTheyAre) {
    const std::string names = "\xc3\x28\xff\xf8";
    server_.then(reply(200, {},
                       "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><ListBucketResult><IsTruncated>false"
                       "</IsTruncated><Contents><Key>" +
                           names + "</Key></Contents></ListBucketResult>"));
    EXPECT_EQ(list().keys, Names{names});
    server_.then(reply(200, {}, "{\"user_id\":\"" + names + "\"}"));
    Recorder user;
    const S3BucketContext where = context();
    RG_get_user_info(&where, "u", nullptr, &s3test::kUser, &user);
    EXPECT_EQ(user.status, S3StatusInternalError);
}

TEST_F(Hostile, DeepButWholeDocumentsAreRead) {
    const std::string nested = repeated("<a>", 100'000) + repeated("</a>", 100'000);
    server_.then(reply(200, {},
                       "<ListBucketResult>" + nested +
                           "<IsTruncated>false</IsTruncated><Contents><Key>k</Key></Contents>"
                           "</ListBucketResult>"));
    EXPECT_EQ(list().keys, Names{"k"});
}

// Sent for as long as the client listens: it must be the one that ends this.
Step endless(const std::string& head, const std::string& again) {
    Step step;
    step.reply = head;
    step.again_for_ever = again;
    return step;
}

TEST_F(Hostile, EndlessRepliesEnd) {
    const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    const std::string chunk = "10000\r\n" + repeated("<Contents/>12345", 4096) + "\r\n";
    server_.then(endless(chunked, chunk));
    const Recorder listed = list();
    EXPECT_EQ(listed.status, S3StatusXmlDocumentTooLarge);
    EXPECT_EQ(listed.events, Events{"complete"});

    server_.then(endless("HTTP/1.1 404 No\r\nTransfer-Encoding: chunked\r\n\r\n", chunk));
    EXPECT_EQ(list().status, S3StatusHttpErrorNotFound);

    server_.then(endless("HTTP/1.1 200 OK\r\n", "x-amz-meta-more: " + std::string(1000, 'm') + "\r\n"));
    const Recorder headers = head("key");
    EXPECT_EQ(headers.status, S3StatusHeadersTooLong);
    EXPECT_EQ(headers.events, Events{"complete"});

    server_.then(endless("", "HTTP/1.1 100 Continue\r\n\r\n"));
    EXPECT_EQ(head("key").status, S3StatusHeadersTooLong);

    server_.then(endless("HTTP/1.1 200 OK\r\nx-amz-meta-long: ", std::string(1000, 'l')));
    EXPECT_NE(head("key").status, S3StatusOK);
    EXPECT_EQ(server_.steps_left(), 0u);
}

TEST_F(Hostile, GarbageInsteadOfHttpIsAFailure) {
    for (const std::string& garbage :
         {std::string("\0\0\0\0", 4), std::string("SSH-2.0-x\r\n"), std::string("HTTP/1.1 abc\r\n\r\n"),
          std::string("HTTP/9.9 200 OK\r\n\r\n"),
          std::string("HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\n"),
          std::string("HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999999\r\n\r\nx"),
          std::string("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n")}) {
        // More than once: what looks like a cut is asked for again.
        for (int i = 0; i < 8; ++i) {
            Step step;
            step.reply = garbage;
            step.close = true;
            server_.then(step);
        }
        const Recorder got = get("key");
        EXPECT_NE(got.status, S3StatusOK) << garbage;
        EXPECT_EQ(got.completions, 1);
        EXPECT_EQ(got.data, "");
    }
}

TEST_F(Hostile, NumbersOutOfRangeAreNoNumbers) {
    server_.then(
        reply(200, {}, R"({"user_id":"u","suspended":99999999999,"max_buckets":-99999999999,"keys":7})"));
    Recorder user;
    const S3BucketContext where = context();
    RG_get_user_info(&where, "u", nullptr, &s3test::kUser, &user);
    EXPECT_EQ(user.status, S3StatusOK);
    EXPECT_EQ(user.suspended, INT32_MAX);
    EXPECT_EQ(user.max_buckets, INT32_MAX);
    EXPECT_TRUE(user.user_keys.empty());
    server_.then(
        reply(200, {},
              "<ListBucketResult><IsTruncated>false</IsTruncated><Contents><Key>k</Key><Size>-1</Size>"
              "</Contents><Contents><Key>l</Key><Size>18446744073709551616</Size></Contents>"
              "</ListBucketResult>"));
    EXPECT_EQ(list().sizes, (std::vector<uint64_t>{0, 0}));
}

}  // namespace
