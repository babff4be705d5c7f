// Paths: the first line is a working directory as it was typed, the rest a path typed there. What comes out
// is canonical, never leaves the root, and is what an independent walk over the components finds.
#include "path.h"

#include <vector>

#include "fuzz.h"
#include "text.h"

namespace {

using namespace zorvan::gridftp;

std::vector<std::string_view> components(std::string_view path) {
    std::vector<std::string_view> result;
    fuzz::Input input(reinterpret_cast<const std::uint8_t*>(path.data()), path.size());
    while (!input.rest().empty()) {
        const std::string_view component = input.until('/');
        if (!component.empty()) result.push_back(component);
    }
    return result;
}

/// The same resolution as a walk with a stack of names.
std::string walk(std::string_view directory, std::string_view typed) {
    std::vector<std::string_view> stack;
    if (!typed.starts_with('/')) stack = components(directory);
    for (const std::string_view component : components(typed)) {
        if (component == ".") continue;
        if (component != "..") {
            stack.push_back(component);
        } else if (!stack.empty()) {
            stack.pop_back();
        }
    }
    std::string path;
    for (const std::string_view component : stack) {
        path += '/';
        path += component;
    }
    return path.empty() ? "/" : path;
}

/// The path inside a 257 reply as a client reads it (RFC 959, appendix II).
std::string unquoted(std::string_view text) {
    FUZZ_CHECK(text.size() >= 2 && text.front() == '"' && text.back() == '"');
    text = text.substr(1, text.size() - 2);
    std::string path;
    for (std::size_t index = 0; index < text.size(); ++index) {
        if (text[index] == '"') {
            ++index;
            FUZZ_CHECK(index < text.size() && text[index] == '"');
        }
        path += text[index];
    }
    return path;
}

void check(const resolved_path& resolved) {
    const std::string& path = resolved.path;
    FUZZ_CHECK(path.starts_with('/'));
    FUZZ_CHECK(path == "/" || !path.ends_with('/'));
    FUZZ_CHECK(path.find("//") == std::string::npos);
    FUZZ_CHECK(!fuzz::breaks_a_line(path));
    const std::vector<std::string_view> names = components(path);
    for (const std::string_view name : names)
        FUZZ_CHECK(name != "." && name != "..");
    FUZZ_CHECK(resolved.is_root() == names.empty());
    FUZZ_CHECK(resolved.is_below_root() == (names.size() == 1));
    FUZZ_CHECK(last_component(path) == (names.empty() ? "/" : names.back()));

    const auto again = resolve_path("/elsewhere", path);
    FUZZ_CHECK(again && again->path == path);
    FUZZ_CHECK(unquoted(quoted_path(path)) == path);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const std::string_view typed_directory = input.line();
    const std::string_view typed = input.rest();
    const auto directory = resolve_path("/", typed_directory);
    FUZZ_CHECK(directory.has_value() == !fuzz::breaks_a_line(typed_directory));
    if (!directory) return 0;
    check(*directory);

    const auto target = resolve_path(directory->path, typed);
    FUZZ_CHECK(target.has_value() == !fuzz::breaks_a_line(typed));
    FUZZ_CHECK(!fuzz::breaks_a_line(quoted_path(typed)));
    if (!target) return 0;
    check(*target);
    FUZZ_CHECK(target->path == walk(directory->path, typed));
    FUZZ_CHECK(target->names_directory || !(typed.empty() || typed.ends_with('/')));
    return 0;
}
