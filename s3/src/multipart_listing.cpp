// Listing multipart uploads (S3: ListMultipartUploads) and the parts of one (S3: ListParts). The page
// callback runs once per page, after the whole document was read and found sound.
#include <libs3.h>

#include "listing.h"
#include "multipart.h"
#include "text.h"

namespace s3 {
namespace {

struct People {
    std::string initiator_id, initiator_name, owner_id, owner_name, storage_class;

    explicit People(const pugi::xml_node& node)
        : initiator_id(child_text(node.child("Initiator"), "ID")),
          initiator_name(child_text(node.child("Initiator"), "DisplayName")),
          owner_id(child_text(node.child("Owner"), "ID")),
          owner_name(child_text(node.child("Owner"), "DisplayName")),
          storage_class(child_text(node, "StorageClass")) {}
};

struct ListedPart {
    std::string etag;
    int64_t last_modified;
    uint64_t number;
    uint64_t size;
};

// False when a part could not be named again in a commit.
bool read_parts(const pugi::xml_node& root, std::vector<ListedPart>& parts) {
    for (const pugi::xml_node& node : root.children("Part")) {
        const auto number = parse_u64(trim(child_text(node, "PartNumber")));
        const auto size = parse_u64(trim(child_text(node, "Size")));
        std::string etag = child_text(node, "ETag");
        if (!number || *number < 1 || *number > kHighestPartNumber || !size || !is_usable_part_etag(etag))
            return false;
        parts.push_back({std::move(etag), parse_iso8601(child_text(node, "LastModified")), *number, *size});
    }
    return true;
}

// Parts are listed by number: a marker that is not above the one asked with leads back to a page already
// told.
bool goes_back(const std::string& marker, std::string_view asked) {
    const auto next = parse_u64(marker);
    const auto last = parse_u64(trim(asked));
    return next && last ? *next <= *last : marker == asked;
}

void list_parts(RequestPlan& plan, std::string_view asked, const S3ListPartsHandler& handler,
                void* callback_data, CallResult& call) {
    ExchangeResult result = perform(plan);
    if (result.status != S3StatusOK) return set_result(call, std::move(result));
    const XmlReply document(result.body);
    if (!document.has_root("ListPartsResult"))
        return fail(call, S3StatusXmlParseFailure, "the list of parts is not one complete document");
    std::vector<ListedPart> listed;
    if (!read_parts(document.root(), listed))
        return fail(call, S3StatusInternalError, "a listed part has no usable number, size or ETag");
    // Stores name the next marker on the last page too: only IsTruncated counts.
    const bool truncated = child_is_true(document.root(), "IsTruncated");
    std::string marker;
    if (truncated) {
        marker = trim(child_text(document.root(), "NextPartNumberMarker"));
        if (marker.empty() && !listed.empty()) marker = std::to_string(listed.back().number);
        if (marker.empty())
            return fail(call, S3StatusInternalError, "the list of parts goes on but has no marker");
        // A store that does not move on would keep its caller for ever.
        if (goes_back(marker, asked))
            return fail(call, S3StatusInternalError, "the list of parts repeats its page");
    }
    std::vector<S3ListPart> parts;
    parts.reserve(listed.size());
    for (const ListedPart& part : listed)
        parts.push_back({part.etag.c_str(), part.last_modified, part.number, part.size});
    const People people(document.root());
    call.status = deliver_properties(handler.responseHandler, callback_data, result.headers);
    if (call.status != S3StatusOK || handler.responseXmlCallback == nullptr) return;
    call.status = handler.responseXmlCallback(
        truncated ? 1 : 0, truncated ? marker.c_str() : nullptr, people.initiator_id.c_str(),
        people.initiator_name.c_str(), nonempty_or_null(people.owner_id), nonempty_or_null(people.owner_name),
        people.storage_class.c_str(), static_cast<int>(parts.size()), 0, parts.data(), callback_data);
}

struct ListedUpload {
    ListedName key;
    std::string id;
    People people;
    int64_t initiated;
};

struct UploadPage {
    bool truncated = false;
    std::string key_marker, id_marker;
    std::vector<ListedUpload> uploads;
    std::vector<std::string> prefixes;
};

UploadPage read_uploads(const XmlReply& document, const NameDecoder& decode) {
    UploadPage page;
    const pugi::xml_node root = document.root();
    page.truncated = child_is_true(root, "IsTruncated");
    for (const pugi::xml_node& node : root.children("Upload")) {
        std::string raw = child_text(node, "Key");
        std::string name = decode(raw);
        page.uploads.push_back({{std::move(raw), std::move(name)},
                                child_text(node, "UploadId"),
                                People(node),
                                parse_iso8601(child_text(node, "Initiated"))});
    }
    ListedName last;
    if (!page.uploads.empty()) last = page.uploads.back().key;
    for (const pugi::xml_node& node : root.children("CommonPrefixes")) {
        for (const pugi::xml_node& prefix : node.children()) {
            // Old gateways wrote the element's name with its parent's before it.
            const std::string_view name = prefix.name();
            if (name != "Prefix" && !name.ends_with(".Prefix")) continue;
            page.prefixes.push_back(decode(prefix.text().get()));
            if (page.prefixes.back() > last.name) last = {prefix.text().get(), page.prefixes.back()};
        }
    }
    if (!page.truncated) return page;
    page.key_marker = next_marker(child_text(root, "NextKeyMarker"), last, decode);
    page.id_marker = child_text(root, "NextUploadIdMarker");
    const bool ends_with_upload = !page.uploads.empty() && page.key_marker == page.uploads.back().key.name;
    if (page.id_marker.empty() && ends_with_upload) page.id_marker = page.uploads.back().id;
    return page;
}

S3Status tell_uploads(const UploadPage& page, const S3ListMultipartUploadsHandler& handler,
                      void* callback_data) {
    if (handler.responseXmlCallback == nullptr) return S3StatusOK;
    std::vector<S3ListMultipartUpload> uploads;
    uploads.reserve(page.uploads.size());
    for (const ListedUpload& upload : page.uploads) {
        const People& people = upload.people;
        uploads.push_back({upload.key.name.c_str(), upload.id.c_str(), people.initiator_id.c_str(),
                           people.initiator_name.c_str(), nonempty_or_null(people.owner_id),
                           nonempty_or_null(people.owner_name), people.storage_class.c_str(),
                           upload.initiated});
    }
    std::vector<const char*> prefixes;
    prefixes.reserve(page.prefixes.size());
    for (const std::string& prefix : page.prefixes)
        prefixes.push_back(prefix.c_str());
    return handler.responseXmlCallback(
        page.truncated ? 1 : 0, page.truncated ? page.key_marker.c_str() : nullptr,
        page.truncated ? page.id_marker.c_str() : nullptr, static_cast<int>(uploads.size()), uploads.data(),
        static_cast<int>(prefixes.size()), prefixes.data(), callback_data);
}

// Some gateways encode the keys of this listing when asked to but do not say so, which nobody could undo. So
// names are asked for as they are, and encoded only where they spoil the document or where the store may have
// put the replacement character for what XML cannot hold.
ExchangeResult ask_for_uploads(RequestPlan& plan, bool encoding_chosen) {
    constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
    ExchangeResult plain = perform(plan);
    if (plain.status != S3StatusOK || encoding_chosen) return plain;
    const bool readable = XmlReply(plain.body).ok();
    if (readable && plain.body.find(kReplacement) == std::string::npos) return plain;
    plan.query.emplace_back("encoding-type", "url");
    ExchangeResult encoded = perform(plan);
    if (encoded.status != S3StatusOK) return encoded;
    const XmlReply document(encoded.body);
    const bool says_so = NameDecoder(document, encoded.body, encoded.headers).encoded();
    return says_so ? std::move(encoded) : std::move(plain);
}

struct UploadMarkers {
    std::string_view key, id;
};

void list_uploads(RequestPlan& plan, bool encoding_chosen, const UploadMarkers& asked,
                  const S3ListMultipartUploadsHandler& handler, void* callback_data, CallResult& call) {
    ExchangeResult result = ask_for_uploads(plan, encoding_chosen);
    if (result.status != S3StatusOK) return set_result(call, std::move(result));
    const XmlReply document(result.body);
    if (!document.has_root("ListMultipartUploadsResult"))
        return fail(call, S3StatusXmlParseFailure, "the list of uploads is not one complete document");
    const NameDecoder decode(document, result.body, result.headers);
    const UploadPage page = read_uploads(document, decode);
    if (page.truncated && page.key_marker.empty())
        return fail(call, S3StatusInternalError, "the list of uploads goes on but has no marker");
    if (page.truncated && page.key_marker == asked.key && page.id_marker == asked.id)
        return fail(call, S3StatusInternalError, "the list of uploads repeats its page");
    call.status = deliver_properties(handler.responseHandler, callback_data, result.headers);
    if (call.status == S3StatusOK) call.status = tell_uploads(page, handler, callback_data);
}

}  // namespace
}  // namespace s3

extern "C" void S3_list_parts(const S3BucketContext* bucketContext, const char* key,
                              const char* partnumbermarker, const char* uploadid, const char* encodingtype,
                              int maxparts, S3RequestContext*, int timeoutMs,
                              const S3ListPartsHandler* handler, void* callbackData) {
    s3::run_call(handler->responseHandler, callbackData, [&](s3::CallResult& call) {
        s3::RequestPlan plan = s3::upload_plan("GET", *bucketContext, key, timeoutMs);
        s3::check_upload_id(uploadid);
        s3::add_query(plan, "encoding-type", encodingtype);
        if (maxparts > 0) plan.query.emplace_back("max-parts", std::to_string(maxparts));
        s3::add_query(plan, "part-number-marker", partnumbermarker);
        s3::add_query(plan, "uploadId", uploadid);
        const char* const asked = partnumbermarker != nullptr ? partnumbermarker : "";
        s3::list_parts(plan, asked, *handler, callbackData, call);
    });
}

extern "C" void S3_list_multipart_uploads(const S3BucketContext* bucketContext, const char* prefix,
                                          const char* keymarker, const char* uploadidmarker,
                                          const char* encodingtype, const char* delimiter, int maxuploads,
                                          S3RequestContext*, int timeoutMs,
                                          const S3ListMultipartUploadsHandler* handler, void* callbackData) {
    s3::run_call(handler->responseHandler, callbackData, [&](s3::CallResult& call) {
        s3::RequestPlan plan = s3::make_plan("GET", *bucketContext, nullptr, timeoutMs);
        s3::add_query(plan, "delimiter", delimiter);
        const bool chosen = encodingtype != nullptr && *encodingtype != '\0';
        s3::add_query(plan, "encoding-type", encodingtype);
        s3::add_query(plan, "key-marker", keymarker);
        if (maxuploads > 0) plan.query.emplace_back("max-uploads", std::to_string(maxuploads));
        s3::add_query(plan, "prefix", prefix);
        s3::add_query(plan, "upload-id-marker", uploadidmarker);
        plan.query.emplace_back("uploads", "");
        const s3::UploadMarkers asked{.key = keymarker != nullptr ? keymarker : "",
                                      .id = uploadidmarker != nullptr ? uploadidmarker : ""};
        s3::list_uploads(plan, chosen, asked, *handler, callbackData, call);
    });
}
