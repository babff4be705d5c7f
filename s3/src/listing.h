// What all listings share: encoded names and the marker of the next page.
#pragma once

#include <string>
#include <string_view>

#include "response_headers.h"
#include "xml.h"

namespace s3 {

/// Decodes the names of one listing document, which says itself whether they are encoded (EncodingType=url).
class NameDecoder {
  public:
    NameDecoder(const XmlReply& document, std::string_view text, const ResponseHeaders& headers);
    bool encoded() const { return encoded_; }
    /// The name; as it stands there when it holds an encoded NUL, which no C string can.
    std::string operator()(std::string_view raw) const;

  private:
    bool encoded_ = false;
    bool plus_is_space_ = false;
};

/// A name as the document holds it and as it is.
struct ListedName {
    std::string raw;
    std::string name;
};

/// The marker of the next page. Stores differ in whether they encode the marker of an encoded listing, so one
/// that could be read both ways is taken from the last name of the page. Empty when there is none, or none
/// that a request could send.
std::string next_marker(std::string_view raw_marker, const ListedName& last, const NameDecoder& decode);

}  // namespace s3
