// Writer and parsers; see xml.h. pugixml expands no external entities.
#include "xml.h"

#include <pugixml.hpp>

#include "errors.h"
#include "text.h"

namespace zorvan::devstore {
namespace {

std::string_view local_name(const pugi::xml_node& node) {
    std::string_view name = node.name();
    const auto colon = name.find(':');
    return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

pugi::xml_node child(const pugi::xml_node& parent, std::string_view name) {
    return parent.find_child([&](const pugi::xml_node& node) { return local_name(node) == name; });
}

pugi::xml_node parse(pugi::xml_document& document, std::string_view text, std::string_view root) {
    if (!document.load_buffer(text.data(), text.size(), pugi::parse_default | pugi::parse_ws_pcdata_single))
        throw s3_failure("MalformedXML");
    const auto node = document.document_element();
    if (local_name(node) != root) throw s3_failure("MalformedXML");
    return node;
}

}  // namespace

xml_writer& xml_writer::open(std::string_view name, bool with_namespace) {
    out_ += '<';
    out_ += name;
    if (with_namespace) out_ += R"( xmlns="http://s3.amazonaws.com/doc/2006-03-01/")";
    out_ += '>';
    open_.emplace_back(name);
    return *this;
}

xml_writer& xml_writer::close() {
    out_ += "</";
    out_ += open_.back();
    out_ += '>';
    open_.pop_back();
    return *this;
}

xml_writer& xml_writer::text(std::string_view name, std::string_view value) {
    out_ += '<';
    out_ += name;
    out_ += '>';
    out_ += xml_escape(value);
    out_ += "</";
    out_ += name;
    out_ += '>';
    return *this;
}

xml_writer& xml_writer::number(std::string_view name, std::uint64_t value) {
    return text(name, std::to_string(value));
}

xml_writer& xml_writer::boolean(std::string_view name, bool value) {
    return text(name, value ? "true" : "false");
}

std::string xml_writer::finish() {
    return std::move(out_);
}

std::vector<requested_part> parse_complete(std::string_view document) {
    pugi::xml_document tree;
    std::vector<requested_part> out;
    for (const auto& part : parse(tree, document, "CompleteMultipartUpload").children()) {
        if (part.type() != pugi::node_element) continue;
        if (local_name(part) != "Part") throw s3_failure("MalformedXML");
        const auto number = parse_number(trim(child(part, "PartNumber").text().get()));
        std::string_view etag = trim(child(part, "ETag").text().get());
        if (!number || *number == 0 || *number > 10000 || etag.empty()) throw s3_failure("MalformedXML");
        if (etag.size() >= 2 && etag.front() == '"' && etag.back() == '"')
            etag = etag.substr(1, etag.size() - 2);
        out.push_back({static_cast<unsigned>(*number), std::string(etag)});
    }
    if (out.empty()) throw s3_failure("MalformedXML");
    return out;
}

delete_request parse_delete(std::string_view document) {
    pugi::xml_document tree;
    delete_request out;
    const auto root = parse(tree, document, "Delete");
    out.quiet = std::string_view(child(root, "Quiet").text().get()) == "true";
    for (const auto& object : root.children()) {
        if (local_name(object) != "Object") continue;
        const std::string key = child(object, "Key").text().get();
        if (key.empty()) throw s3_failure("MalformedXML");
        out.keys.push_back(key);
    }
    if (out.keys.empty() || out.keys.size() > 1000) throw s3_failure("MalformedXML");
    return out;
}

restore_request parse_restore(std::string_view document) {
    pugi::xml_document tree;
    restore_request out;
    const auto root = parse(tree, document, "RestoreRequest");
    if (const auto days = child(root, "Days")) {
        const auto number = parse_number(trim(days.text().get()));
        if (!number || *number == 0 || *number > 36500) throw s3_failure("MalformedXML");
        out.days = static_cast<unsigned>(*number);
    }
    if (const auto parameters = child(root, "GlacierJobParameters"))
        out.tier = child(parameters, "Tier").text().get();
    if (out.tier.empty()) out.tier = child(root, "Tier").text().get();
    return out;
}

std::string parse_location(std::string_view document) {
    if (trim(document).empty()) return {};
    pugi::xml_document tree;
    return child(parse(tree, document, "CreateBucketConfiguration"), "LocationConstraint").text().get();
}

}  // namespace zorvan::devstore
