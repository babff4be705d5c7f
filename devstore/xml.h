// The store's XML: a small writer for replies and the parsers of the four
// request documents. Pure; documents belong to the caller.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zorvan::devstore {

/// Writes elements in order; names are borrowed literals, texts are escaped.
class xml_writer {
  public:
    /// Opens <name> or <name xmlns="S3's namespace">.
    xml_writer& open(std::string_view name, bool with_namespace = false);
    xml_writer& close();
    /// <name>text</name>
    xml_writer& text(std::string_view name, std::string_view value);
    xml_writer& number(std::string_view name, std::uint64_t value);
    xml_writer& boolean(std::string_view name, bool value);
    /// Ends the document; every element must be closed.
    std::string finish();

  private:
    std::string out_;
    std::vector<std::string> open_;
};

/// A part named by a CompleteMultipartUpload document; the ETag is without quotes.
struct requested_part {
    unsigned number = 0;
    std::string etag;
};

/// A Delete document.
struct delete_request {
    bool quiet = false;
    std::vector<std::string> keys;
};

/// A RestoreRequest document.
struct restore_request {
    std::optional<unsigned> days;
    std::string tier;
};

/// All four throw s3_failure MalformedXML. Namespaces and their prefixes do not matter.
std::vector<requested_part> parse_complete(std::string_view document);
delete_request parse_delete(std::string_view document);
restore_request parse_restore(std::string_view document);
/// The LocationConstraint of a CreateBucketConfiguration; an empty body gives an empty text.
std::string parse_location(std::string_view document);

}  // namespace zorvan::devstore
