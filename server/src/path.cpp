/*
 * Path resolution; see path.h.
 */
#include "path.h"

#include "text.h"

namespace zorvan::gridftp {

std::optional<resolved_path> resolve_path(std::string_view directory, std::string_view typed) {
    using namespace std::string_view_literals;
    if (typed.find_first_of("\r\n\0"sv) != std::string_view::npos) return std::nullopt;

    resolved_path result;
    const bool absolute = !typed.empty() && typed.front() == '/';
    if (!absolute && directory != "/") result.path = directory;
    result.names_directory = typed.empty() || typed.back() == '/';

    std::string_view rest = typed;
    while (!rest.empty()) {
        const std::size_t slash = rest.find('/');
        const std::string_view component = rest.substr(0, slash);
        const bool last = slash == std::string_view::npos;
        rest = last ? std::string_view{} : rest.substr(slash + 1);
        if (component.empty()) continue;
        if (component == "." || component == "..") {
            if (component.size() == 2)
                result.path.resize(result.path.rfind('/') == std::string::npos ? 0 : result.path.rfind('/'));
            if (last) result.names_directory = true;
            continue;
        }
        result.path += '/';
        result.path += component;
    }
    if (result.path.empty()) {
        result.path = "/";
        result.names_directory = true;
    }
    return result;
}

std::string_view last_component(std::string_view path) {
    if (path.size() <= 1) return path;
    return path.substr(path.rfind('/') + 1);
}

std::string quoted_path(std::string_view path) {
    std::string text = "\"";
    for (const char byte : single_line(path)) {
        if (byte == '"') text += '"';
        text += byte;
    }
    text += '"';
    return text;
}

}  // namespace zorvan::gridftp
