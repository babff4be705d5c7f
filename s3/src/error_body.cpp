// Error documents: <Error> of the S3 API ("Error Responses"), its JSON form of administration interfaces, and
// everything that is neither.
#include "error_body.h"

#include "json.h"
#include "status.h"
#include "text.h"
#include "xml.h"

namespace s3 {
namespace {

void set_field(ErrorReply& reply, const std::string& name, std::string value) {
    // Stores send empty elements for what they do not say.
    if (value.empty() && (name == "Message" || name == "Resource" || name == "FurtherDetails")) return;
    if (name == "Message") {
        reply.info.message = std::move(value);
    } else if (name == "Resource") {
        reply.info.resource = std::move(value);
    } else if (name == "FurtherDetails") {
        reply.info.further_details = std::move(value);
    } else {
        reply.info.extra.emplace_back(name, std::move(value));
    }
}

// Real documents nest two or three levels; a hostile one must not use up the stack.
constexpr int kDeepestElement = 16;

void read_elements(const pugi::xml_node& parent, const std::string& path, ErrorReply& reply,
                   std::string& code, int depth = 0) {
    if (depth == kDeepestElement) return;
    for (const pugi::xml_node& node : parent.children()) {
        if (node.type() != pugi::node_element) continue;
        const std::string name = path + std::string(local_name(node));
        const pugi::xml_node child =
            node.find_child([](const pugi::xml_node& inner) { return inner.type() == pugi::node_element; });
        if (child) {
            read_elements(node, name + "/", reply, code, depth + 1);
        } else if (name == "Code") {
            code = trim(node.text().get());
        } else {
            set_field(reply, name, node.text().get());
        }
    }
}

pugi::xml_node find_error_element(const XmlReply& document) {
    if (document.has_root("Error")) return document.root();
    if (document.has_root("ErrorResponse")) return document.root().child("Error");
    return {};
}

std::optional<ErrorReply> read_xml_error(std::string_view body, S3Status status_for_unknown) {
    if (!body.starts_with('<')) return std::nullopt;
    const XmlReply document(body);
    const pugi::xml_node error = find_error_element(document);
    if (!error) return std::nullopt;
    ErrorReply reply;
    std::string code;
    read_elements(error, "", reply, code);
    if (code.empty()) return std::nullopt;
    reply.has_code = true;
    reply.status = status_from_error_code(code).value_or(status_for_unknown);
    return reply;
}

std::optional<ErrorReply> read_json_error(std::string_view body, S3Status status_for_unknown) {
    if (!body.starts_with('{')) return std::nullopt;
    const Json root(json_loadb(body.data(), body.size(), JSON_REJECT_DUPLICATES, nullptr));
    const char* code = json_string_value(json_object_get(root.get(), "Code"));
    if (code == nullptr || *code == '\0') return std::nullopt;
    ErrorReply reply;
    reply.has_code = true;
    reply.status = status_from_error_code(code).value_or(status_for_unknown);
    const char* name = nullptr;
    json_t* value = nullptr;
    json_object_foreach(root.get(), name, value) {
        const char* text = json_string_value(value);
        if (text != nullptr && std::string_view(name) != "Code") set_field(reply, name, text);
    }
    return reply;
}

}  // namespace

const std::string* ErrorInfo::find_extra(std::string_view name) const {
    for (const auto& [key, value] : extra) {
        if (key == name) return &value;
    }
    return nullptr;
}

ErrorReply read_error_body(std::string_view body, long http_status) {
    body = trim(body);
    const S3Status by_http = status_from_http(http_status);
    if (auto reply = read_xml_error(body, S3StatusErrorUnknown)) return std::move(*reply);
    // Administration interfaces have codes of their own (NoSuchUser): the HTTP status says more than
    // "unknown".
    if (auto reply = read_json_error(body, by_http)) return std::move(*reply);
    ErrorReply reply;
    reply.status = by_http;
    return reply;
}

std::optional<ErrorReply> error_inside_success(std::string_view body) {
    return read_xml_error(trim(body), S3StatusErrorUnknown);
}

ErrorDetailsView::ErrorDetailsView(const ErrorInfo& info) {
    extra_.reserve(info.extra.size());
    for (const auto& [name, value] : info.extra)
        extra_.push_back({name.c_str(), value.c_str()});
    details_.message = text_or_null(info.message);
    details_.resource = text_or_null(info.resource);
    details_.furtherDetails = text_or_null(info.further_details);
    details_.extraDetailsCount = static_cast<int>(extra_.size());
    details_.extraDetails = extra_.empty() ? nullptr : extra_.data();
}

}  // namespace s3
