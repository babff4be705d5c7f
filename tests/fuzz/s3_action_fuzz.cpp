// Replies to requests that change or fetch an object: the first line says which (copy, commit, initiate,
// part, put, head, get, delete), the rest is the reply. A success that is none - an error document behind a
// 200, a reply without the ETag that proves it - must not be taken for one.
#include <cstring>
#include <string>

#include "s3_exchange.h"

namespace {

using s3_fuzz::Call;
using s3_fuzz::check_text;

constexpr std::string_view commit_document =
    "<CompleteMultipartUpload><Part><PartNumber>1</PartNumber>"
    "<ETag>\"0cc175b9c0f1b6a831c399e269772661\"</ETag></Part></CompleteMultipartUpload>";
constexpr std::string_view content = "some bytes";

struct Action : Call {
    std::size_t sent = 0;      ///< bytes of the body that the client has taken
    std::size_t received = 0;  ///< bytes of a download
};

int give(std::string_view text, int room, char* buffer, Action& action) {
    FUZZ_CHECK(room > 0);
    const std::string_view rest = text.substr(action.sent, static_cast<std::size_t>(room));
    rest.copy(buffer, rest.size());
    action.sent += rest.size();
    return static_cast<int>(rest.size());
}

int give_commit(int room, char* buffer, void* data) {
    return give(commit_document, room, buffer, *static_cast<Action*>(static_cast<Call*>(data)));
}

int give_content(int room, char* buffer, void* data) {
    return give(content, room, buffer, *static_cast<Action*>(static_cast<Call*>(data)));
}

S3Status take_commit(const char* location, const char* etag, void* data) {
    ++static_cast<Call*>(data)->results;
    check_text(location);
    check_text(etag);
    FUZZ_CHECK(etag == nullptr || std::strchr(etag, '"') != nullptr);
    return S3StatusOK;
}

S3Status take_id(const char* id, void* data) {
    ++static_cast<Call*>(data)->results;
    FUZZ_CHECK(id == nullptr || *id != '\0');
    return S3StatusOK;
}

S3Status take_bytes(int count, const char* bytes, void* data) {
    auto& action = *static_cast<Action*>(static_cast<Call*>(data));
    ++action.results;
    FUZZ_CHECK(count > 0 && bytes != nullptr);
    action.received += static_cast<std::size_t>(count);
    return S3StatusOK;
}

void copy(const S3BucketContext& context, Action& action) {
    char etag[64];
    std::memset(etag, '#', sizeof etag);
    std::int64_t modified = 0;
    constexpr int room = 16;
    S3_copy_object(&context, "key", nullptr, "other", nullptr, &modified, room, etag, nullptr, 0,
                   &s3_fuzz::response_handler, static_cast<Call*>(&action));
    FUZZ_CHECK(std::memchr(etag, '\0', room) != nullptr && etag[room] == '#');
    FUZZ_CHECK((action.status == S3StatusOK) == (*etag != '\0'));
    FUZZ_CHECK(action.status == S3StatusOK || modified == -1);
}

void get(const S3BucketContext& context, Action& action) {
    const S3GetObjectHandler handler{s3_fuzz::response_handler, take_bytes};
    constexpr std::uint64_t wanted = 8;
    S3_get_object(&context, "key", nullptr, 4, wanted, nullptr, 0, &handler, static_cast<Call*>(&action));
    // More than was asked for would go to the wrong place of somebody's file.
    FUZZ_CHECK(action.received <= wanted);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const std::string_view kind = input.line();
    s3_fuzz::set_reply(input.rest());
    const S3BucketContext context = s3_fuzz::bucket_context();
    const S3ResponseHandler& handler = s3_fuzz::response_handler;
    Action action;
    void* const call = static_cast<Call*>(&action);
    if (kind == "copy") {
        copy(context, action);
    } else if (kind == "commit") {
        const S3MultipartCommitHandler commit{handler, give_commit, take_commit};
        S3_complete_multipart_upload(&context, "key", &commit, "id", commit_document.size(), nullptr, 0,
                                     call);
    } else if (kind == "initiate") {
        const S3MultipartInitialHandler initiate{handler, take_id};
        S3_initiate_multipart(&context, "key", nullptr, &initiate, nullptr, 0, call);
    } else if (kind == "part") {
        const S3PutObjectHandler put{handler, give_content};
        S3_upload_part(&context, "key", nullptr, &put, 1, "id", content.size(), nullptr, 0, call);
    } else if (kind == "put") {
        const S3PutObjectHandler put{handler, give_content};
        S3_put_object(&context, "key", content.size(), nullptr, nullptr, 0, &put, call);
    } else if (kind == "head") {
        S3_head_object(&context, "key", nullptr, 0, &handler, call);
        // The one request that shows its headers after a failure, too.
        FUZZ_CHECK(action.ends == 1);
        return 0;
    } else if (kind == "get") {
        get(context, action);
    } else if (kind == "delete") {
        S3_delete_object(&context, "key", nullptr, 0, &handler, call);
    } else {
        return 0;
    }
    s3_fuzz::check_end(action);
    FUZZ_CHECK(action.status != S3StatusOK || action.properties == 1);
    FUZZ_CHECK(kind == "get" || action.results == 0 || action.status == S3StatusOK);
    return 0;
}
