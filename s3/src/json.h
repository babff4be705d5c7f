// JSON replies, read with jansson: the owner of a document.
#pragma once

#include <jansson.h>

#include <memory>

namespace s3 {

struct JsonDeleter {
    void operator()(json_t* value) const noexcept { json_decref(value); }
};
/// Null when the text was no document; jansson's readers take that for an empty one.
using Json = std::unique_ptr<json_t, JsonDeleter>;

}  // namespace s3
