// A file that exists only for the code under test: fopen() of its path reads the bytes given, fopen() of any
// other path fails. Needs the linker option --wrap=fopen. One at a time, one thread.
#pragma once

#include <string_view>

namespace fuzz {

class MemoryFile {
  public:
    static constexpr const char* path = "/memory/file";

    /// @param content  borrowed for the life of the object
    explicit MemoryFile(std::string_view content);
    ~MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    /// For code that leaves its stream open on purpose: close it, or the process runs out of them.
    void close_what_is_open();
};

}  // namespace fuzz
