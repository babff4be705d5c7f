// Wraps fopen(), see memory_file.h. The linker option --wrap sends the calls of the code under test here.
#include "memory_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

std::string_view current;
std::vector<std::FILE*> opened;

}  // namespace

extern "C" std::FILE* __wrap_fopen(const char* path, const char* mode);

extern "C" std::FILE* __wrap_fopen(const char* path, const char* mode) {
    if (std::strcmp(path, fuzz::MemoryFile::path) != 0 || std::strcmp(mode, "r") != 0) {
        errno = ENOENT;
        return nullptr;
    }
    // The C library takes no empty buffer: an empty file is one of which everything has been read.
    static char nothing[1];
    std::FILE* file = current.empty() ? ::fmemopen(nothing, 1, "r")
                                      : ::fmemopen(const_cast<char*>(current.data()), current.size(), "r");
    if (file != nullptr && current.empty()) static_cast<void>(std::fgetc(file));
    if (file != nullptr) opened.push_back(file);
    return file;
}

namespace fuzz {

MemoryFile::MemoryFile(std::string_view content) {
    current = content;
}

MemoryFile::~MemoryFile() {
    current = {};
    opened.clear();
}

void MemoryFile::close_what_is_open() {
    for (std::FILE* file : opened)
        std::fclose(file);
    opened.clear();
}

}  // namespace fuzz
