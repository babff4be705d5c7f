// The user administration: GET {entry}/user and GET {entry}/metadata/user in
// the RADOS Gateway's JSON. The caller must be a user administrator.
#include "json.h"
#include "operations.h"
#include "text.h"
#include "xml.h"

namespace zorvan::devstore {
namespace {

json_t* quota() {
    json_t* const out = json_object();
    json_object_set_new(out, "enabled", json_false());
    json_object_set_new(out, "check_on_raw", json_false());
    json_object_set_new(out, "max_size", json_integer(-1));
    json_object_set_new(out, "max_size_kb", json_integer(0));
    json_object_set_new(out, "max_objects", json_integer(-1));
    return out;
}

json_ptr describe(const user& entry) {
    json_ptr root(json_object());
    const auto set = [&](const char* name, json_t* value) { json_object_set_new(root.get(), name, value); };
    const auto dollar = entry.uid.find('$');
    const bool tenanted = dollar != std::string::npos;
    set("tenant", json_from(tenanted ? entry.uid.substr(0, dollar) : std::string()));
    set("user_id", json_from(tenanted ? entry.uid.substr(dollar + 1) : entry.uid));
    set("display_name", json_from(entry.display_name));
    set("email", json_from(entry.email));
    set("suspended", json_integer(entry.suspended ? 1 : 0));
    set("max_buckets", json_integer(1000));
    set("subusers", json_array());
    json_t* const keys = json_array();
    for (const auto& key : entry.keys) {
        json_t* const item = json_object();
        json_object_set_new(item, "user", json_from(entry.uid));
        json_object_set_new(item, "access_key", json_from(key.id));
        json_object_set_new(item, "secret_key", json_from(key.secret));
        json_array_append_new(keys, item);
    }
    set("keys", keys);
    set("swift_keys", json_array());
    json_t* const caps = json_array();
    if (entry.admin) {
        for (const auto* type : {"buckets", "metadata", "usage", "users"}) {
            json_t* const item = json_object();
            json_object_set_new(item, "type", json_string(type));
            json_object_set_new(item, "perm", json_string("*"));
            json_array_append_new(caps, item);
        }
    }
    set("caps", caps);
    set("op_mask", json_string("read, write, delete"));
    set("system", json_string("false"));
    set("admin", json_string("false"));
    set("default_placement", json_string(""));
    set("default_storage_class", json_string(""));
    set("placement_tags", json_array());
    set("bucket_quota", quota());
    set("user_quota", quota());
    set("temp_url_keys", json_array());
    set("type", json_string("rgw"));
    set("mfa_ids", json_array());
    return root;
}

std::string describe_xml(const user& entry) {
    xml_writer xml;
    const auto dollar = entry.uid.find('$');
    const bool tenanted = dollar != std::string::npos;
    xml.open("user_info").text("tenant", tenanted ? entry.uid.substr(0, dollar) : std::string());
    xml.text("user_id", tenanted ? entry.uid.substr(dollar + 1) : entry.uid);
    xml.text("display_name", entry.display_name).text("email", entry.email);
    xml.number("suspended", entry.suspended ? 1 : 0).number("max_buckets", 1000);
    xml.open("subusers").close().open("keys");
    for (const auto& key : entry.keys)
        xml.open("key")
            .text("user", entry.uid)
            .text("access_key", key.id)
            .text("secret_key", key.secret)
            .close();
    xml.close().close();
    return xml.finish();
}

}  // namespace

reply admin_request(exchange& x, std::string_view resource) {
    if (!x.auth.caller || !x.auth.caller->admin) throw s3_failure("AccessDenied");
    if (x.request.method != "GET") throw s3_failure("MethodNotAllowed");
    http_response out;
    if (resource == "metadata/user") {
        const json_ptr list(json_array());
        for (const auto& uid : x.data.users.uids())
            json_array_append_new(list.get(), json_from(uid));
        out.text = dump_json(list.get());
        co_return out;
    }
    if (resource != "user") throw s3_failure("MethodNotAllowed");
    user_ptr found;
    if (const auto* uid = x.request.parameter("uid"); uid && !uid->empty()) {
        found = x.data.users.find(*uid);
    } else if (const auto* key = x.request.parameter("access-key")) {
        std::string secret;
        found = x.data.users.find_by_key(*key, secret);
    } else {
        throw s3_failure("InvalidArgument");
    }
    if (!found) throw s3_failure("NoSuchUser");
    if (x.request.parameter_or_empty("format") == "xml") co_return xml_response(describe_xml(*found));
    // No Content-Type here: the gateway sends none, and clients have to live with it.
    out.text = dump_json(describe(*found).get());
    co_return out;
}

}  // namespace zorvan::devstore
