// A store user and its keys, from the administration interface (Ceph RADOS Gateway: "Admin Operations", get
// user info). Only whole values are handed on: a key that does not fit its field is left out, never cut.
#include <libs3.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "complete.h"
#include "json.h"

namespace s3 {
namespace {

struct FreeDeleter {
    void operator()(void* memory) const noexcept { std::free(memory); }
};
using UserRecord = std::unique_ptr<RGUserInfo, FreeDeleter>;

std::string_view text_member(const json_t* object, const char* name) {
    const char* text = json_string_value(json_object_get(object, name));
    return text != nullptr ? text : "";
}

int32_t number_member(const json_t* object, const char* name) {
    const json_t* value = json_object_get(object, name);
    if (json_is_true(value)) return 1;
    const json_int_t number = json_integer_value(value);
    return number >= INT32_MIN && number <= INT32_MAX ? static_cast<int32_t>(number) : INT32_MAX;
}

// The record is zero from the start, so a value that is left out is an empty text.
template <size_t N>
bool put_text(char (&field)[N], std::string_view text) {
    if (text.size() >= N) return false;
    std::memcpy(field, text.data(), text.size());
    return true;
}

bool read_key(const json_t* entry, RGUserKey& key) {
    const std::string_view access = text_member(entry, "access_key");
    const std::string_view secret = text_member(entry, "secret_key");
    // Without a secret a request would go out unsigned, as somebody else.
    if (json_is_false(json_object_get(entry, "active")) || access.empty() || secret.empty()) return false;
    key = RGUserKey{};
    return put_text(key.user, text_member(entry, "user")) && put_text(key.accessKey, access) &&
           put_text(key.secretKey, secret);
}

UserRecord read_user(std::string_view text) {
    const Json root(json_loadb(text.data(), text.size(), 0, nullptr));
    if (!json_is_object(root.get()) || text_member(root.get(), "user_id").empty()) return nullptr;
    const json_t* keys = json_object_get(root.get(), "keys");
    const size_t most = json_array_size(keys);
    UserRecord info(static_cast<RGUserInfo*>(std::calloc(1, sizeof(RGUserInfo) + most * sizeof(RGUserKey))));
    if (info == nullptr) throw std::bad_alloc();
    put_text(info->userId, text_member(root.get(), "user_id"));
    put_text(info->displayName, text_member(root.get(), "display_name"));
    put_text(info->email, text_member(root.get(), "email"));
    info->suspended = number_member(root.get(), "suspended");
    info->maxBuckets = number_member(root.get(), "max_buckets");
    for (size_t i = 0; i < most; ++i) {
        RGUserKey key{};
        if (read_key(json_array_get(keys, i), key)) info->keys[info->keyCount++] = key;
    }
    return info;
}

std::string_view without_outer_slashes(std::string_view text) {
    while (text.starts_with('/'))
        text.remove_prefix(1);
    while (text.ends_with('/'))
        text.remove_suffix(1);
    return text;
}

void get_user(RequestPlan& plan, const RGUserInfoHandler& handler, void* callback_data, CallResult& call) {
    ExchangeResult result = perform(plan);
    if (result.status != S3StatusOK) return set_result(call, std::move(result));
    const UserRecord info = read_user(result.body);
    if (info == nullptr) return fail(call, S3StatusInternalError, "the reply does not describe a user");
    call.status = deliver_properties(handler.responseHandler, callback_data, result.headers);
    if (call.status == S3StatusOK && handler.userInfoCallback != nullptr)
        call.status = handler.userInfoCallback(info.get(), callback_data);
}

}  // namespace
}  // namespace s3

extern "C" void RG_get_user_info(const S3BucketContext* bucketContext, const char* userName,
                                 S3RequestContext*, const RGUserInfoHandler* handler, void* callbackData) {
    s3::run_call(handler->responseHandler, callbackData, [&](s3::CallResult& call) {
        if (userName == nullptr || *userName == '\0') throw s3::Refusal{S3StatusErrorInvalidArgument};
        s3::RequestPlan plan;
        plan.store = s3::make_store(*bucketContext);
        // A path beside the buckets, whatever style they are addressed in. It may have several components.
        const std::string_view entry = s3::without_outer_slashes(plan.store.bucket);
        plan.address =
            s3::service_address(plan.store, "/" + std::string(entry.empty() ? "admin" : entry) + "/user");
        plan.query = {{"format", "json"}, {"uid", userName}};
        s3::get_user(plan, *handler, callbackData, call);
    });
}
