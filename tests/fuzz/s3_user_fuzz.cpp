// A user of the store as the administration interface describes it: the reply, headers and JSON. Keys are
// whole or left out, and every field ends within its room.
#include <cstring>

#include "s3_exchange.h"

namespace {

template <std::size_t N>
bool ends(const char (&field)[N]) {
    return std::memchr(field, '\0', N) != nullptr;
}

S3Status take_user(const RGUserInfo* info, void* data) {
    ++static_cast<s3_fuzz::Call*>(data)->results;
    FUZZ_CHECK(ends(info->userId) && ends(info->displayName) && ends(info->email));
    FUZZ_CHECK(info->keyCount >= 0);
    for (int index = 0; index < info->keyCount; ++index) {
        const RGUserKey& key = info->keys[index];
        FUZZ_CHECK(ends(key.user) && ends(key.accessKey) && ends(key.secretKey));
        FUZZ_CHECK(*key.accessKey != '\0' && *key.secretKey != '\0');
    }
    return S3StatusOK;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    s3_fuzz::set_reply(fuzz::Input(data, size).rest());
    const S3BucketContext context = s3_fuzz::bucket_context();
    const RGUserInfoHandler handler{s3_fuzz::response_handler, take_user};
    s3_fuzz::Call call;
    RG_get_user_info(&context, "alice", nullptr, &handler, &call);
    s3_fuzz::check_end(call);
    FUZZ_CHECK(call.results == (call.status == S3StatusOK ? 1 : 0));
    return 0;
}
