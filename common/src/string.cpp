/*
 * Texts for the C interface: copies and printf results on malloc'd memory that the caller frees.
 * Stateless, so callable on any thread.
 */
#include <zorvan_common.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "c_memory.h"

char* zorvan_libc_strdup(const char* text) {
    if (text == nullptr) return nullptr;
    const size_t size = std::strlen(text) + 1;
    auto* copy = static_cast<char*>(std::malloc(size));
    if (copy != nullptr) std::memcpy(copy, text, size);
    return copy;
}

char* zorvan_common_v_create_string(const char* format, va_list arguments) {
    if (format == nullptr) return nullptr;
    va_list measured;
    va_copy(measured, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    if (length < 0) return nullptr;

    const size_t size = static_cast<size_t>(length) + 1;
    zorvan::common::CText text(static_cast<char*>(std::malloc(size)));
    if (!text) return nullptr;
    // The second rendering can fail or come out longer only when an argument changed under us.
    if (std::vsnprintf(text.get(), size, format, arguments) != length) return nullptr;
    return text.release();
}

char* zorvan_common_create_string(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char* text = zorvan_common_v_create_string(format, arguments);
    va_end(arguments);
    return text;
}
