// The users file: either one line that names the file and says what is wrong without showing a hash, or as
// many users as there are lines that are neither empty nor comments.
#include "users_file.h"

#include "fuzz.h"
#include "text.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace zorvan::gridftp;
    fuzz::Input input(data, size);
    const std::string_view text = input.rest();
    std::size_t wanted = 0;
    while (!input.rest().empty()) {
        std::string_view line = input.line();
        if (line.ends_with('\r')) line.remove_suffix(1);
        line = trim(line);
        if (!line.empty() && !line.starts_with('#')) ++wanted;
    }
    try {
        const users_file users = users_file::parse(text, "users");
        FUZZ_CHECK(users.size() == wanted);
        FUZZ_CHECK(users_file::parse(text, "users").size() == wanted);
    } catch (const users_file_error& error) {
        const std::string_view message = error.what();
        FUZZ_CHECK(wanted > 0);
        FUZZ_CHECK(message.starts_with("users:"));
        FUZZ_CHECK(message == printable(message));
    }
    return 0;
}
