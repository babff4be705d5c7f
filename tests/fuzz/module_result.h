// Results of the module in fuzz targets.
#pragma once

#include <zorvan_common.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "fuzz.h"

namespace fuzz {

/// Takes a failure's text and frees it. @return "" for success
inline std::string text_of(zorvan_result_t result) {
    if (result == ZORVAN_SUCCESS) return {};
    zorvan_error_t* error = zorvan_error_get(result);
    FUZZ_CHECK(error != nullptr);
    const std::unique_ptr<char, decltype(&std::free)> text(zorvan_error_print_friendly(error), &std::free);
    zorvan_error_free(error);
    FUZZ_CHECK(text != nullptr && *text != '\0');
    return text.get();
}

}  // namespace fuzz
