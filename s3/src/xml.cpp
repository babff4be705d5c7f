// Reading XML replies. pugixml reports an element that is not closed as an error, so a cut document never
// passes.
#include "xml.h"

#include "text.h"

namespace s3 {
namespace {

// A name may consist of a blank, so text that is only blanks must survive where it is an element's whole
// content. Line ends are taken as they come: a name may hold them, too.
constexpr unsigned int kParseFlags = pugi::parse_cdata | pugi::parse_escapes | pugi::parse_ws_pcdata_single;

}  // namespace

XmlReply::XmlReply(std::string_view text) {
    // Stores send blanks ahead of a document to keep the connection alive.
    text = trim(text);
    const pugi::xml_parse_result result =
        document_.load_buffer(text.data(), text.size(), kParseFlags, pugi::encoding_utf8);
    ok_ = static_cast<bool>(result) && !root().empty();
}

bool XmlReply::has_root(std::string_view name) const {
    return ok_ && local_name(root()) == name;
}

std::string_view local_name(const pugi::xml_node& node) {
    std::string_view name = node.name();
    const size_t colon = name.find(':');
    return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

std::string child_text(const pugi::xml_node& node, const char* name) {
    return node.child(name).text().get();
}

bool child_is_true(const pugi::xml_node& node, const char* name) {
    return equals_ignore_case(trim(node.child(name).text().get()), "true");
}

}  // namespace s3
