// main() of a fuzz target in ordinary builds: runs every file of the folders given. The status is 2 when a
// folder is missing or has no file: a corpus that went missing must not look like one that passed.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz.h"

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> files_of(const fs::path& folder) {
    std::vector<fs::path> files;
    std::error_code missing;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder, missing)) {
        if (entry.is_regular_file()) files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

void run(const fs::path& file) {
    // Said beforehand: a target that fails ends the program.
    std::printf("%s\n", file.c_str());
    std::fflush(stdout);
    std::ifstream stream(file, std::ios::binary);
    const std::vector<char> content(std::istreambuf_iterator<char>(stream), {});
    // A block of exactly that size, so that the sanitizers see a read beyond its end.
    const std::vector<std::uint8_t> bytes(content.begin(), content.end());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

}  // namespace

int main(int count, char** arguments) {
    if (count < 2) {
        std::fprintf(stderr, "usage: %s FOLDER...\n", arguments[0]);
        return 2;
    }
    for (int index = 1; index < count; ++index) {
        const std::vector<fs::path> files = files_of(arguments[index]);
        if (files.empty()) {
            std::fprintf(stderr, "%s: no inputs\n", arguments[index]);
            return 2;
        }
        for (const fs::path& file : files)
            run(file);
    }
    return 0;
}
