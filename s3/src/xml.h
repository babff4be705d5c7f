// Reading XML replies with pugixml: complete documents only, no entity expansion beyond XML's own.
#pragma once

#include <pugixml.hpp>
#include <string>
#include <string_view>

namespace s3 {

/// A parsed reply. The nodes live as long as the object.
class XmlReply {
  public:
    /// Parses text; ok() tells whether it is one complete document.
    explicit XmlReply(std::string_view text);
    bool ok() const { return ok_; }
    /// The root element.
    pugi::xml_node root() const { return document_.document_element(); }
    /// Whether the root element is the one wanted (a name space prefix is ignored).
    bool has_root(std::string_view name) const;

  private:
    pugi::xml_document document_;
    bool ok_ = false;
};

/// An element's name without a name space prefix.
std::string_view local_name(const pugi::xml_node& node);

/// Text of the first child element with that name, as it stands there; empty when there is none.
std::string child_text(const pugi::xml_node& node, const char* name);

/// Whether the text of the child is "true".
bool child_is_true(const pugi::xml_node& node, const char* name);

}  // namespace s3
