// The MIME file: whatever it holds, each extension leads to the type of the first line that names it.
#include <cstring>
#include <map>

#include "fuzz.h"
#include "memory_file.h"
#include "zorvan_s3.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = fuzz::Input(data, size).rest();
    fuzz::MemoryFile file(text);
    FUZZ_CHECK(zorvan_i_s3_mime_types_init() == 0);
    FUZZ_CHECK(zorvan_i_s3_mime_types_parse(fuzz::MemoryFile::path) == 0);
    // Every word of the file is asked for, as an extension and as the end of a key.
    std::string word;
    for (const char byte : text) {
        if (byte != '\0' && std::strchr(" \t\n\v\f\r", byte) == nullptr) {
            word += byte;
            continue;
        }
        const char* type = zorvan_i_s3_mime_type_of_extension(word.c_str());
        if (type != nullptr) {
            const std::string_view shown(type);
            FUZZ_CHECK(word.size() <= 30 && !word.empty());
            FUZZ_CHECK(!shown.empty() && shown.find_first_of(" \t\n\v\f\r#") == std::string_view::npos);
            FUZZ_CHECK(text.find(shown) != std::string_view::npos);
            if (word.find('.') == std::string::npos)
                FUZZ_CHECK(zorvan_i_s3_mime_type_of_key(("dir/a." + word).c_str()) == type);
        }
        word.clear();
    }
    FUZZ_CHECK(zorvan_i_s3_mime_type_of_key(nullptr) == nullptr);
    zorvan_i_s3_mime_types_destroy();
    file.close_what_is_open();
    return 0;
}
