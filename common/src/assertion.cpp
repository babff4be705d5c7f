/*
 * Assertions: part of the behaviour in every build type, so that a broken promise stops the process where it
 * shows instead of storing wrong data. Called on any thread; owns nothing.
 */
#include <zorvan_common.h>

#include <cstdio>
#include <cstdlib>

void zorvan_i_assertion_failed(const char* text, const char* file, int line) {
    std::fprintf(stderr, "Assertion %s failed in file %s at line %d\n", text != nullptr ? text : "(none)",
                 file != nullptr ? file : "(none)", line);
    std::fflush(stderr);
    std::abort();
}
