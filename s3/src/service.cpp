// Listing the caller's buckets (S3: ListBuckets).
#include <libs3.h>

#include <set>

#include "complete.h"
#include "text.h"
#include "xml.h"

namespace s3 {
namespace {

struct ListedBucket {
    std::string name;
    int64_t created = -1;
};

struct BucketList {
    std::optional<std::string> owner_id, owner_name;
    std::vector<ListedBucket> buckets;
    std::set<std::string, std::less<>> seen;
};

// Returns the token of the next page, empty at the end.
std::string read_buckets(const XmlReply& document, BucketList& list) {
    const pugi::xml_node root = document.root();
    const pugi::xml_node owner = root.child("Owner");
    if (owner.child("ID")) list.owner_id = child_text(owner, "ID");
    if (owner.child("DisplayName")) list.owner_name = child_text(owner, "DisplayName");
    for (const pugi::xml_node& node : root.child("Buckets").children("Bucket")) {
        std::string name = child_text(node, "Name");
        if (name.empty() || !list.seen.insert(name).second) continue;
        list.buckets.push_back({std::move(name), parse_iso8601(child_text(node, "CreationDate"))});
    }
    return child_text(root, "ContinuationToken");
}

void list_service(RequestPlan& plan, const S3ListServiceHandler& handler, void* callback_data,
                  CallResult& call) {
    BucketList list;
    ResponseHeaders headers;
    for (std::string token;;) {
        plan.query.clear();
        if (!token.empty()) plan.query.emplace_back("continuation-token", token);
        ExchangeResult result = perform(plan);
        if (result.status != S3StatusOK) return set_result(call, std::move(result));
        const XmlReply document(result.body);
        if (!document.has_root("ListAllMyBucketsResult"))
            return fail(call, S3StatusXmlParseFailure, "the list of buckets is not one complete document");
        headers = std::move(result.headers);
        std::string next = read_buckets(document, list);
        if (next.empty()) break;
        if (next == token) return fail(call, S3StatusInternalError, "the list of buckets repeats its page");
        token = std::move(next);
    }
    call.status = deliver_properties(handler.responseHandler, callback_data, headers);
    if (handler.listServiceCallback == nullptr) return;
    const char* owner_id = text_or_null(list.owner_id);
    const char* owner_name = text_or_null(list.owner_name);
    for (const ListedBucket& bucket : list.buckets) {
        if (call.status != S3StatusOK) return;
        call.status = handler.listServiceCallback(owner_id, owner_name, bucket.name.c_str(), bucket.created,
                                                  callback_data);
    }
}

}  // namespace
}  // namespace s3

extern "C" void S3_list_service(S3Protocol protocol, const char* accessKeyId, const char* secretAccessKey,
                                const char* securityToken, const char* hostName, const char* authRegion,
                                S3RequestContext*, int timeoutMs, const S3ListServiceHandler* handler,
                                void* callbackData) {
    s3::run_call(handler->responseHandler, callbackData, [&](s3::CallResult& call) {
        s3::RequestPlan plan;
        plan.deadline = s3::Deadline(timeoutMs);
        plan.store = s3::make_store(protocol, S3UriStylePath, accessKeyId, secretAccessKey, securityToken,
                                    hostName, nullptr, authRegion);
        plan.address = s3::service_address(plan.store, "/");
        s3::list_service(plan, *handler, callbackData, call);
    });
}
