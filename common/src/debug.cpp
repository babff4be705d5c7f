/*
 * Reads a component's debug settings from its environment variable.
 *
 * All of the value is read before the output is opened, so that a bad value never truncates a file. A value
 * that cannot be read is told once per process and value: a module may be activated many times. The handle is
 * the component's own, which writes the lines and closes the file.
 */
#include <zorvan_common.h>

#include <strings.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "never_destroyed.h"

namespace {

constexpr uint32_t kEveryLevel = 0xffffffffU;
constexpr uint32_t kThreadIdsFlag = 1;
constexpr uint32_t kTimestampsFlag = 2;
constexpr size_t kMostFields = 4;

struct Settings {
    uint32_t levels = 0;
    uint32_t timestamp_levels = 0;
    std::string file;
    bool append = false;
    bool thread_ids = false;
};

bool same_word(std::string_view left, std::string_view right) {
    return left.size() == right.size() && strncasecmp(left.data(), right.data(), left.size()) == 0;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    for (size_t end = text.find(separator); end != std::string_view::npos; end = text.find(separator)) {
        parts.push_back(text.substr(0, end));
        text.remove_prefix(end + 1);
    }
    parts.push_back(text);
    return parts;
}

/** A decimal number of 32 bits and nothing else. */
std::optional<uint32_t> read_number(std::string_view text) {
    uint32_t number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc{} || stop != end) return std::nullopt;
    return number;
}

/** The mask of one number or level word. */
std::optional<uint32_t> read_level(std::string_view word, const std::vector<std::string_view>& names) {
    if (const auto number = read_number(word)) return number;
    if (same_word(word, "ALL")) return kEveryLevel;
    uint32_t bit = 1;
    for (const std::string_view name : names) {
        if (name.empty()) continue;  // more than one blank between two words
        if (same_word(word, name)) return bit;
        bit <<= 1;
    }
    return std::nullopt;
}

/** The mask of a LEVELS field: words or numbers joined by "|", inverted by a leading "^". */
std::optional<uint32_t> read_levels(std::string_view field, const std::vector<std::string_view>& names) {
    const bool inverted = field.starts_with('^');
    if (inverted) field.remove_prefix(1);
    uint32_t mask = 0;
    for (const std::string_view word : split(field, '|')) {
        const auto level = read_level(word, names);
        if (!level) return std::nullopt;
        mask |= *level;
    }
    return inverted ? ~mask : mask;
}

std::optional<Settings> read_settings(std::string_view value, std::string_view level_names) {
    const auto fields = split(value, ',');
    const auto names = split(level_names, ' ');
    if (fields.size() > kMostFields) return std::nullopt;
    const auto field = [&fields](size_t index) {
        return index < fields.size() ? fields[index] : std::string_view{};
    };

    Settings settings;
    const auto levels = read_levels(field(0), names);
    if (!levels) return std::nullopt;
    settings.levels = *levels;

    std::string_view file = field(1);
    settings.append = file.starts_with('#');
    if (settings.append) file.remove_prefix(1);
    if (settings.append && file.empty()) return std::nullopt;
    settings.file = file;

    if (!field(2).empty()) {
        const auto flags = read_number(field(2));
        if (!flags) return std::nullopt;
        settings.thread_ids = (*flags & kThreadIdsFlag) != 0;
        if ((*flags & kTimestampsFlag) != 0) settings.timestamp_levels = settings.levels;
    }
    if (!field(3).empty()) {
        const auto timestamp_levels = read_levels(field(3), names);
        if (!timestamp_levels) return std::nullopt;
        settings.timestamp_levels |= *timestamp_levels;
    }
    return settings;
}

/** Says on standard error what is wrong with a value, the first time. */
void complain_once(const char* variable, const char* value, const char* reason) {
    struct Said {
        std::mutex mutex;
        std::set<std::string> complaints;
    };
    static zorvan::common::NeverDestroyed<Said> said;
    const std::string complaint = std::string(variable) + "=\"" + value + "\": " + reason;
    const std::lock_guard lock(said.value.mutex);
    if (!said.value.complaints.insert(complaint).second) return;
    std::fprintf(stderr, "%s: logging is off\n", complaint.c_str());
}

int init(zorvan_debug_handle_t& handle, const char* variable, const char* level_names) {
    const char* value = std::getenv(variable);
    if (value == nullptr || *value == '\0') return -1;
    const auto settings = read_settings(value, level_names);
    if (!settings) {
        complain_once(variable, value, "not of the form LEVELS[,FILE[,FLAGS[,TIMESTAMP_LEVELS]]]");
        return -1;
    }
    if (settings->levels == 0) return -1;

    FILE* file = stderr;
    if (!settings->file.empty()) {
        file = std::fopen(settings->file.c_str(), settings->append ? "ae" : "we");
        if (file == nullptr) {
            char buffer[256];
            complain_once(variable, value, ::strerror_r(errno, buffer, sizeof buffer));
            return -1;
        }
        // Whoever follows the file, or reads it after a crash, sees every finished line.
        std::setvbuf(file, nullptr, _IOLBF, 0);
    }
    handle = {.levels = settings->levels,
              .timestamp_levels = settings->timestamp_levels,
              .file = file,
              .thread_ids = settings->thread_ids ? 1 : 0,
              .using_file = file != stderr ? 1 : 0};
    return 0;
}

}  // namespace

int zorvan_debug_init(zorvan_debug_handle_t* handle, const char* environment_variable,
                      const char* level_names) {
    if (handle == nullptr) return -1;
    *handle = {};
    if (environment_variable == nullptr) return -1;
    try {
        return init(*handle, environment_variable, level_names != nullptr ? level_names : "");
    } catch (const std::bad_alloc&) {
        return -1;
    }
}
