// The S3 client without a network: every exchange is answered by the reply that the input holds - header
// lines up to an empty one, then the body - and the handlers check what the client makes of it.
#pragma once

#include <libs3.h>

#include <string_view>

#include "fuzz.h"

namespace s3_fuzz {

/// Sets the reply of all exchanges to come; borrowed.
void set_reply(std::string_view reply);

/// What became of one call.
struct Call {
    int properties = 0;  ///< how often the properties came
    int results = 0;     ///< how often anything else came
    int ends = 0;
    S3Status status = S3StatusOK;
};

/// Properties and end; the callback data of each call is a Call.
extern const S3ResponseHandler response_handler;

/// After a call: it ended exactly once, and had results only if it went well.
void check_end(const Call& call);

/// A bucket of a store that needs no signature.
S3BucketContext bucket_context();

/// Reads a text to its end, so that a sanitizer sees one that is none; null is allowed.
inline void check_text(const char* text) {
    if (text != nullptr) FUZZ_CHECK(std::string_view(text).size() < 1U << 30U);
}

}  // namespace s3_fuzz
