// One HTTP request and one reply as the operations see them, free of the HTTP
// library. The session fills the request and sends the reply; both belong to
// the one coroutine that handles the exchange.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "content.h"

namespace zorvan::devstore {

using name_value = std::pair<std::string, std::string>;

/// The head of a request.
struct http_request {
    std::string method;
    std::string path;                 ///< as on the wire, still percent-encoded, without the query
    std::string raw_query;            ///< as on the wire, without the '?'
    std::vector<name_value> query;    ///< decoded
    std::vector<name_value> headers;  ///< names in lower case, order kept
    std::optional<std::uint64_t> content_length;
    bool chunked = false;  ///< Transfer-Encoding: chunked
    bool keep_alive = true;
    bool ignore_range = false;  ///< set by a scripted fault: the Range header is signed but not followed

    /// Value of the first header of that (lower-case) name, or an empty view.
    [[nodiscard]] std::string_view header(std::string_view name) const;
    [[nodiscard]] bool has_header(std::string_view name) const;
    /// Value of the first query parameter of that name, or null.
    [[nodiscard]] const std::string* parameter(std::string_view name) const;
    [[nodiscard]] bool has_parameter(std::string_view name) const { return parameter(name) != nullptr; }
    /// Value of a parameter, or an empty text.
    [[nodiscard]] std::string parameter_or_empty(std::string_view name) const;
};

/// Splits "path?query" into the request's fields.
void set_target(http_request& request, std::string_view target);

/// A reply. The body is either `text` or a slice of an object's content.
struct http_response {
    unsigned status = 200;
    std::vector<name_value> headers;  ///< Date, Content-Length and Connection are added by the session
    std::string text;
    content body;  ///< used when `body_length` is set
    std::uint64_t body_offset = 0;
    std::optional<std::uint64_t> body_length;

    /// Bytes that follow the head (or would follow it in a reply to HEAD).
    [[nodiscard]] std::uint64_t length() const { return body_length ? *body_length : text.size(); }
    void set(std::string_view name, std::string_view value);
    void remove(std::string_view name);
};

/// The reason phrase of a status (RFC 9110).
std::string_view reason_phrase(unsigned status);

/// An XML reply: the declaration is put before `document`.
http_response xml_response(std::string document, unsigned status = 200);

}  // namespace zorvan::devstore
