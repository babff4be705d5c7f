// Listing a bucket (S3: ListObjects, version 1), and what all listings share.
#include "listing.h"

#include <libs3.h>

#include <algorithm>

#include "complete.h"
#include "text.h"

namespace s3 {

NameDecoder::NameDecoder(const XmlReply& document, std::string_view text, const ResponseHeaders& headers)
    : encoded_(equals_ignore_case(child_text(document.root(), "EncodingType"), "url")) {
    if (!encoded_) return;
    // Two dialects: a blank is "%20" and "+" is itself, or a blank is "+" and "+" is "%2B".
    const std::string server = headers.server.value_or("");
    const bool form_dialect = server.starts_with("AmazonS3") || server.starts_with("MinIO");
    plus_is_space_ = form_dialect || (text.find("%2B") != std::string_view::npos &&
                                      text.find("%20") == std::string_view::npos);
}

std::string NameDecoder::operator()(std::string_view raw) const {
    if (!encoded_) return std::string(raw);
    std::string name = decode_percent(raw, plus_is_space_);
    // A NUL would cut the name short, and so give it to another object: better one that nobody has.
    return name.find('\0') == std::string::npos ? name : std::string(raw);
}

std::string next_marker(std::string_view raw_marker, const ListedName& last, const NameDecoder& decode) {
    const bool plain = raw_marker.find_first_of("%+") == std::string_view::npos;
    if (!raw_marker.empty() && (!decode.encoded() || plain)) return std::string(raw_marker);
    const std::string raw = last.name.empty() ? std::string(raw_marker) : last.raw;
    std::string marker = decode(raw);
    // A name with a NUL is left encoded, and as that it would be another place of the listing.
    const bool has_nul = decode.encoded() && marker == raw && raw.find("%00") != std::string::npos;
    return has_nul ? std::string() : marker;
}

namespace {

struct ListedObject {
    ListedName key;
    std::string etag;
    std::optional<std::string> owner_id, owner_name;
    int64_t last_modified = -1;
    uint64_t size = 0;
};

struct ObjectPage {
    bool truncated = false;
    std::string marker;
    std::vector<ListedObject> objects;
    std::vector<ListedName> prefixes;
};

std::optional<std::string> optional_text(const pugi::xml_node& node, const char* name) {
    const pugi::xml_node child = node.child(name);
    return child ? std::optional<std::string>(child.text().get()) : std::nullopt;
}

ObjectPage read_page(const XmlReply& document, const NameDecoder& decode) {
    ObjectPage page;
    const pugi::xml_node root = document.root();
    page.truncated = child_is_true(root, "IsTruncated");
    for (const pugi::xml_node& node : root.children("Contents")) {
        ListedObject object;
        object.key.raw = child_text(node, "Key");
        object.key.name = decode(object.key.raw);
        object.etag = child_text(node, "ETag");
        object.last_modified = parse_iso8601(child_text(node, "LastModified"));
        object.size = parse_u64(trim(child_text(node, "Size"))).value_or(0);
        const pugi::xml_node owner = node.child("Owner");
        object.owner_id = optional_text(owner, "ID");
        object.owner_name = optional_text(owner, "DisplayName");
        page.objects.push_back(std::move(object));
    }
    for (const pugi::xml_node& node : root.children("CommonPrefixes")) {
        for (const pugi::xml_node& prefix : node.children("Prefix")) {
            std::string raw = prefix.text().get();
            std::string name = decode(raw);
            page.prefixes.push_back({std::move(raw), std::move(name)});
        }
    }
    if (page.truncated) {
        ListedName last;
        if (!page.objects.empty()) last = page.objects.back().key;
        if (!page.prefixes.empty() && page.prefixes.back().name > last.name) last = page.prefixes.back();
        page.marker = next_marker(child_text(root, "NextMarker"), last, decode);
    }
    return page;
}

S3Status tell_page(const ObjectPage& page, const S3ListBucketHandler& handler, void* callback_data) {
    if (handler.listBucketCallback == nullptr) return S3StatusOK;
    std::vector<S3ListBucketContent> contents;
    contents.reserve(page.objects.size());
    for (const ListedObject& object : page.objects) {
        contents.push_back({object.key.name.c_str(), object.last_modified, object.etag.c_str(), object.size,
                            text_or_null(object.owner_id), text_or_null(object.owner_name)});
    }
    std::vector<const char*> prefixes;
    prefixes.reserve(page.prefixes.size());
    for (const ListedName& prefix : page.prefixes)
        prefixes.push_back(prefix.name.c_str());
    return handler.listBucketCallback(page.truncated ? 1 : 0, page.truncated ? page.marker.c_str() : nullptr,
                                      static_cast<int>(contents.size()), contents.data(),
                                      static_cast<int>(prefixes.size()), prefixes.data(), callback_data);
}

void list_bucket(RequestPlan& plan, std::string_view marker, const S3ListBucketHandler& handler,
                 void* callback_data, CallResult& call) {
    ExchangeResult result = perform(plan);
    if (result.status != S3StatusOK) return set_result(call, std::move(result));
    const XmlReply document(result.body);
    if (!document.has_root("ListBucketResult"))
        return fail(call, S3StatusXmlParseFailure, "the listing is not one complete document");
    const NameDecoder decode(document, result.body, result.headers);
    const ObjectPage page = read_page(document, decode);
    if (page.truncated && page.marker.empty())
        return fail(call, S3StatusInternalError,
                    "the listing goes on but names neither entries nor a marker");
    // A store that does not move on would keep its caller for ever.
    if (page.truncated && page.marker == marker)
        return fail(call, S3StatusInternalError, "the listing repeats its page");
    call.status = deliver_properties(handler.responseHandler, callback_data, result.headers);
    if (call.status == S3StatusOK) call.status = tell_page(page, handler, callback_data);
}

}  // namespace
}  // namespace s3

extern "C" void S3_list_bucket(const S3BucketContext* bucketContext, const char* prefix, const char* marker,
                               const char* delimiter, int maxkeys, S3RequestContext*, int timeoutMs,
                               const S3ListBucketHandler* handler, void* callbackData) {
    s3::run_call(handler->responseHandler, callbackData, [&](s3::CallResult& call) {
        s3::RequestPlan plan = s3::make_plan("GET", *bucketContext, nullptr, timeoutMs);
        s3::add_query(plan, "delimiter", delimiter);
        // Keys may hold bytes that XML cannot.
        s3::add_query(plan, "encoding-type", "url");
        s3::add_query(plan, "marker", marker);
        if (maxkeys > 0) plan.query.emplace_back("max-keys", std::to_string(maxkeys));
        s3::add_query(plan, "prefix", prefix);
        s3::list_bucket(plan, marker != nullptr ? marker : "", *handler, callbackData, call);
    });
}
