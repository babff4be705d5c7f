// What fuzz targets share. A target is one file with LLVMFuzzerTestOneInput: it feeds the bytes to one parser
// and checks what must hold whatever they are. The same file is a libFuzzer program (preset fuzz) and, linked
// with replay.cpp, an ordinary test that runs its corpus.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

/// The target. @return 0
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// Ends the program when the condition does not hold; whoever runs the target then has the input.
#define FUZZ_CHECK(condition) ((condition) ? void() : ::fuzz::fail(#condition, __FILE__, __LINE__))

namespace fuzz {

[[noreturn]] inline void fail(const char* condition, const char* file, int line) {
    std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, condition);
    std::abort();
}

/// An input, cut into its fields from the front. Views into the bytes given.
class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : rest_(reinterpret_cast<const char*>(data), size) {
        // The engine's first input has no bytes at all.
        if (size == 0) rest_ = "";
    }

    /// What stands before the next `separator`, which is skipped; everything when there is none.
    std::string_view until(char separator) {
        const std::size_t end = rest_.find(separator);
        const std::string_view field = rest_.substr(0, end);
        rest_ = end == std::string_view::npos ? std::string_view() : rest_.substr(end + 1);
        return field;
    }

    /// The next line, without its LF.
    std::string_view line() { return until('\n'); }

    std::string_view rest() const { return rest_; }

  private:
    std::string_view rest_;
};

/// Whether a text could end a line, or a C string, before its own end.
inline bool breaks_a_line(std::string_view text) {
    using namespace std::string_view_literals;
    return text.find_first_of("\r\n\0"sv) != std::string_view::npos;
}

}  // namespace fuzz
