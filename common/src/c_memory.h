/*
 * Ownership of memory that came from malloc: what the C interface hands out is freed with `free`.
 */
#ifndef ZORVAN_COMMON_SRC_C_MEMORY_H
#define ZORVAN_COMMON_SRC_C_MEMORY_H

#include <cstdlib>
#include <memory>

namespace zorvan::common {

struct FreeMemory {
    void operator()(void* memory) const noexcept { std::free(memory); }
};

/** A malloc'd, NUL-terminated text with one owner. */
using CText = std::unique_ptr<char, FreeMemory>;

}  // namespace zorvan::common

#endif
