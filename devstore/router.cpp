// Routing; see router.h. The tables below list what is there; a subresource
// that is not is refused, so that nothing is stored or removed by a request
// that meant something else.
#include "router.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iostream>

#include "errors.h"
#include "json.h"
#include "text.h"
#include "xml.h"

namespace zorvan::devstore {
namespace {

using operation = reply (*)(exchange&);

struct route {
    std::string_view method;
    bool on_object;
    std::string_view parameter;  ///< must be in the query; empty: none
    operation run;
};

// The first that fits wins.
constexpr auto routes = std::to_array<route>({
    {"GET", false, "location", bucket_location},
    {"GET", false, "uploads", list_uploads},
    {"GET", false, "versioning", bucket_versioning},
    {"POST", false, "delete", delete_objects},
    {"GET", true, "uploadId", list_parts},
    {"PUT", true, "uploadId", upload_part},
    {"DELETE", true, "uploadId", abort_upload},
    {"POST", true, "uploadId", complete_upload},
    {"POST", true, "uploads", create_upload},
    {"POST", true, "restore", restore_object},
    {"GET", false, "", list_objects},
    {"HEAD", false, "", head_bucket},
    {"PUT", false, "", create_bucket},
    {"DELETE", false, "", delete_bucket},
    {"GET", true, "", get_object},
    {"HEAD", true, "", get_object},
    {"PUT", true, "", put_object},
    {"DELETE", true, "", delete_object},
});

constexpr auto subresources = std::to_array<std::string_view>({"accelerate",
                                                               "acl",
                                                               "analytics",
                                                               "attributes",
                                                               "cors",
                                                               "encryption",
                                                               "intelligent-tiering",
                                                               "inventory",
                                                               "legal-hold",
                                                               "lifecycle",
                                                               "logging",
                                                               "metrics",
                                                               "notification",
                                                               "object-lock",
                                                               "ownershipControls",
                                                               "policy",
                                                               "policyStatus",
                                                               "publicAccessBlock",
                                                               "replication",
                                                               "requestPayment",
                                                               "retention",
                                                               "select",
                                                               "tagging",
                                                               "torrent",
                                                               "versionId",
                                                               "versions",
                                                               "website"});

struct address {
    std::string bucket;
    std::string key;
    bool path_style = true;
};

address address_of(const http_request& request, const settings& config) {
    address out;
    std::string_view path = request.path;
    path.remove_prefix(std::min<std::size_t>(1, path.size()));
    const auto host = to_lower(request.header("host").substr(0, request.header("host").find(':')));
    const std::string suffix = "." + config.dns_name;
    if (!config.dns_name.empty() && host.size() > suffix.size() && host.ends_with(suffix)) {
        out.path_style = false;
        out.bucket = host.substr(0, host.size() - suffix.size());
        out.key = url_decode(path);
        return out;
    }
    const auto slash = path.find('/');
    out.bucket = url_decode(path.substr(0, slash));
    if (slash != std::string_view::npos) out.key = url_decode(path.substr(slash + 1));
    return out;
}

// The path below the administration's entry, or nothing.
std::optional<std::string> admin_resource(const http_request& request, const settings& config) {
    const std::string entry = "/" + config.admin_entry + "/";
    if (config.admin_entry.empty() || !request.path.starts_with(entry)) return std::nullopt;
    return request.path.substr(entry.size());
}

operation find_operation(const exchange& x) {
    for (const auto name : subresources)
        if (x.request.has_parameter(name)) throw s3_failure("NotImplemented");
    const bool on_object = !x.key.empty();
    for (const auto& entry : routes) {
        if (entry.method != x.request.method || entry.on_object != on_object) continue;
        if (!entry.parameter.empty() && !x.request.has_parameter(entry.parameter)) continue;
        if (entry.run == list_objects && x.request.parameter_or_empty("list-type") == "2")
            return list_objects_v2;
        const bool copy = x.request.has_header("x-amz-copy-source");
        if (entry.run == upload_part && copy) return upload_part_copy;
        if (entry.run == put_object && copy) return copy_object;
        return entry.run;
    }
    throw s3_failure("MethodNotAllowed");
}

void check_region(const exchange& x) {
    if (!x.data.config.aws || x.bucket.empty() || x.request.has_parameter("location")) return;
    if (x.request.method == "PUT" && x.key.empty()) return;
    const auto region = x.data.index.region_of(x.bucket);
    if (region && x.auth.caller && *region != x.auth.region)
        throw s3_failure("PermanentRedirect", {{"Bucket", x.bucket}, {"Region", *region}},
                         {{"x-amz-bucket-region", *region}});
}

http_response error_reply(const s3_failure& failure, const store& data, const std::string& bucket,
                          const std::string& request_id, bool as_json) {
    const auto& entry = failure.entry();
    const std::string_view message = data.config.aws ? entry.message : std::string_view();
    const std::string host_id = "devstore-default-default";
    http_response out;
    if (as_json) {
        const json_ptr document(json_object());
        json_object_set_new(document.get(), "Code", json_from(entry.code));
        json_object_set_new(document.get(), "Message", json_from(message));
        json_object_set_new(document.get(), "RequestId", json_from(request_id));
        json_object_set_new(document.get(), "HostId", json_from(host_id));
        out.text = dump_json(document.get());
        out.set("Content-Type", "application/json");
    } else {
        xml_writer xml;
        xml.open("Error").text("Code", entry.code).text("Message", message);
        // The gateway names no details.
        if (data.config.aws)
            for (const auto& [name, value] : failure.details())
                xml.text(name, value);
        if (!bucket.empty()) xml.text("BucketName", bucket);
        xml.text("RequestId", request_id).text("HostId", host_id).close();
        out = xml_response(xml.finish());
    }
    out.status = entry.status;
    for (const auto& [name, value] : failure.headers())
        out.set(name, value);
    if (entry.status == 304) out.text.clear();
    return out;
}

boost::asio::awaitable<http_response> dispatch(exchange& x, const std::optional<std::string>& admin) {
    x.auth = authenticate(x.request, x.data.users, x.data.clock.request_time());
    if (admin) co_return co_await admin_request(x, *admin);
    if (!x.auth.caller) throw s3_failure("AccessDenied");
    if (x.bucket.empty()) {
        if (x.request.method != "GET") throw s3_failure("MethodNotAllowed");
        co_return co_await list_buckets(x);
    }
    if (x.key.size() > 1024) throw s3_failure("KeyTooLongError");
    const auto run = find_operation(x);
    check_region(x);
    co_return co_await run(x);
}

}  // namespace

void note_bucket_request(store& data, const http_request& request) {
    if (request.method == "HEAD" || admin_resource(request, data.config)) return;
    const auto where = address_of(request, data.config);
    if (!where.bucket.empty() && where.key.empty()) data.log.count_on_bucket(where.bucket, request);
}

std::string new_request_id(store& data) {
    std::array<char, 64> text{};
    const int n = std::snprintf(text.data(), text.size(), "tx%021llx-%010llx-1001-default",
                                static_cast<unsigned long long>(++data.request_counter),
                                static_cast<unsigned long long>(data.clock.request_time()));
    return {text.data(), static_cast<std::size_t>(n)};
}

boost::asio::awaitable<http_response> handle(store& data, const http_request& request, body_reader& body) {
    const auto request_id = new_request_id(data);
    const auto admin = admin_resource(request, data.config);
    exchange x{data, request, body, {}, {}, {}};
    if (!admin) {
        auto where = address_of(request, data.config);
        x.bucket = std::move(where.bucket);
        x.key = std::move(where.key);
    }
    http_response out;
    try {
        out = co_await dispatch(x, admin);
    } catch (const s3_failure& failure) {
        out = error_reply(failure, data, x.bucket, request_id, admin.has_value());
    } catch (const connection_lost&) {
        throw;
    } catch (const std::exception& error) {
        std::cerr << "request " << request_id << " failed: " << error.what() << std::endl;
        out = error_reply(s3_failure("InternalError"), data, x.bucket, request_id, admin.has_value());
    }
    out.set("x-amz-request-id", request_id);
    co_return out;
}

}  // namespace zorvan::devstore
