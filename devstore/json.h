// Thin ownership layer over jansson, for the users file, the control port and
// the sidecar files. Values belong to one thread at a time.
#pragma once

#include <jansson.h>

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zorvan::devstore {

struct json_deleter {
    void operator()(json_t* value) const { json_decref(value); }
};

/// An owned reference to a JSON value.
using json_ptr = std::unique_ptr<json_t, json_deleter>;

/// Parses a document; throws std::invalid_argument with line and reason.
inline json_ptr parse_json(std::string_view text) {
    json_error_t error{};
    json_ptr out(json_loadb(text.data(), text.size(), JSON_REJECT_DUPLICATES, &error));
    if (!out) throw std::invalid_argument("line " + std::to_string(error.line) + ": " + error.text);
    return out;
}

/// A string member, or an empty text. Keys of objects are arbitrary UTF-8.
inline std::string json_text(const json_t* object, const char* name) {
    const json_t* value = json_object_get(object, name);
    return json_is_string(value) ? std::string(json_string_value(value), json_string_length(value))
                                 : std::string();
}

/// An integer member, or `fallback`.
inline long long json_number(const json_t* object, const char* name, long long fallback) {
    const json_t* value = json_object_get(object, name);
    return json_is_integer(value) ? json_integer_value(value) : fallback;
}

/// A new JSON string of any bytes; bytes that are no UTF-8 are replaced by '?'.
inline json_t* json_from(std::string_view text) {
    if (json_t* value = json_stringn(text.data(), text.size())) return value;
    std::string ascii(text);
    for (char& c : ascii)
        if (static_cast<unsigned char>(c) >= 0x80) c = '?';
    return json_stringn(ascii.data(), ascii.size());
}

/// The document as text.
inline std::string dump_json(const json_t* value, std::size_t flags = JSON_COMPACT) {
    char* const raw = json_dumps(value, flags | JSON_ENCODE_ANY);
    if (!raw) throw std::runtime_error("JSON cannot be written");
    std::string out(raw);
    std::free(raw);
    return out;
}

}  // namespace zorvan::devstore
