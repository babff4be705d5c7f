// A collection's storage policy: refused with nothing handed out, or taken; and what was taken is, written as
// a policy again, taken as the same.
#include <jansson.h>

#include <string>
#include <vector>

#include "module_result.h"
#include "zorvan_s3.h"

namespace {

using Text = std::unique_ptr<char, decltype(&std::free)>;

struct Policy {
    std::string endpoint, key_id, secret;
    std::vector<std::string> buckets;

    bool operator==(const Policy&) const = default;
};

/// @return whether the policy was taken
bool parse(const std::string& json, Policy& policy) {
    char* endpoint = nullptr;
    char* key_id = nullptr;
    char* secret = nullptr;
    char** buckets = nullptr;
    const zorvan_result_t result =
        zorvan_i_s3_config_parse_json(json.c_str(), &endpoint, &buckets, &key_id, &secret);
    const std::string message = fuzz::text_of(result);
    if (!message.empty()) {
        FUZZ_CHECK(endpoint == nullptr && key_id == nullptr && secret == nullptr && buckets == nullptr);
        return false;
    }
    FUZZ_CHECK(endpoint != nullptr && key_id != nullptr && secret != nullptr);
    const Text owned_endpoint(endpoint, &std::free);
    const Text owned_key_id(key_id, &std::free);
    const Text owned_secret(secret, &std::free);
    policy = {endpoint, key_id, secret, {}};
    for (char** bucket = buckets; bucket != nullptr && *bucket != nullptr; ++bucket) {
        policy.buckets.emplace_back(*bucket);
        std::free(*bucket);
    }
    // A list that is there names somebody: an empty one would allow nothing, null allows everything.
    FUZZ_CHECK(buckets == nullptr || !policy.buckets.empty());
    std::free(buckets);
    FUZZ_CHECK(!policy.endpoint.ends_with('/'));
    return true;
}

std::string write(const Policy& policy) {
    json_t* list = json_array();
    for (const std::string& bucket : policy.buckets)
        json_array_append_new(list, json_string(bucket.c_str()));
    json_t* root =
        json_pack("{s:s,s:s,s:s,s:o}", "s3_endpoint", policy.endpoint.c_str(), "ceph_admin_key_id",
                  policy.key_id.c_str(), "ceph_admin_secret_key", policy.secret.c_str(), "s3_buckets", list);
    const Text text(json_dumps(root, 0), &std::free);
    json_decref(root);
    return text.get();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string json(fuzz::Input(data, size).rest());
    Policy policy;
    if (parse(json, policy)) {
        Policy again;
        FUZZ_CHECK(parse(write(policy), again));
        FUZZ_CHECK(again == policy);
    }
    FUZZ_CHECK(zorvan_error_table_count() == 0);
    return 0;
}
