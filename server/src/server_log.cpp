// The log of the process on spdlog: one logger, swapped as a whole when it is configured, so that lines of
// other threads meanwhile go to the old or to the new one. Made on first use, before main if need be.
#include "server_log.h"

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <utility>

namespace zorvan::gridftp {
namespace {

struct level_name {
    std::string_view name;
    int threshold;  // the highest bit that is still written
};

constexpr std::array level_names{
    level_name{"error", ZORVAN_GFS_LOG_ERROR},       level_name{"warning", ZORVAN_GFS_LOG_WARNING},
    level_name{"transfer", ZORVAN_GFS_LOG_TRANSFER}, level_name{"info", ZORVAN_GFS_LOG_INFO},
    level_name{"debug", ZORVAN_GFS_LOG_DEBUG},
};

// The lowest set bit is the gravest meaning of a level.
constexpr int gravest_bit(int level) {
    return level <= 0 ? ZORVAN_GFS_LOG_ERROR : level & -level;
}

const char* level_word(int level) {
    for (const auto& known : level_names) {
        if (gravest_bit(level) <= known.threshold) {
            return known.name.data();
        }
    }
    return "debug";
}

std::shared_ptr<spdlog::logger> make_logger(spdlog::sink_ptr sink) {
    auto logger = std::make_shared<spdlog::logger>("zorvan-gridftp-server", std::move(sink));
    logger->set_level(spdlog::level::trace);
    logger->set_pattern("%Y-%m-%dT%H:%M:%S.%e%z %P %v");
    logger->flush_on(spdlog::level::trace);
    return logger;
}

struct log_state {
    std::mutex mutex;
    std::shared_ptr<spdlog::logger> logger = make_logger(std::make_shared<spdlog::sinks::stderr_sink_mt>());
    std::atomic<int> threshold{ZORVAN_GFS_LOG_WARNING};
    std::string file;
};

// Never destroyed: threads of back ends may log until the process is gone.
log_state& state() {
    static auto* the_state = new log_state;
    return *the_state;
}

std::shared_ptr<spdlog::logger> open_log(const std::string& file) {
    if (file.empty()) {
        return make_logger(std::make_shared<spdlog::sinks::stderr_sink_mt>());
    }
    return make_logger(std::make_shared<spdlog::sinks::basic_file_sink_mt>(file));
}

}  // namespace

bool configure_log(std::string_view level, const std::string& file, std::string& error) {
    for (const auto& known : level_names) {
        if (known.name != level) {
            continue;
        }
        try {
            auto logger = open_log(file);
            const std::lock_guard lock(state().mutex);
            state().logger = std::move(logger);
            state().file = file;
            state().threshold = known.threshold;
            return true;
        } catch (const std::exception& failure) {
            error = "log file " + file + ": " + failure.what();
            return false;
        }
    }
    error = "unknown log level \"" + std::string(level) + "\"";
    return false;
}

void reopen_log() noexcept {
    try {
        const std::lock_guard lock(state().mutex);
        state().logger = open_log(state().file);
    } catch (const std::exception& failure) {
        log_line(ZORVAN_GFS_LOG_ERROR, failure.what());
    }
}

bool log_enabled(int level) noexcept {
    return gravest_bit(level) <= state().threshold;
}

void log_line(int level, std::string_view text) noexcept {
    if (!log_enabled(level)) {
        return;
    }
    try {
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
            text.remove_suffix(1);
        }
        std::string line = level_word(level);
        line += ' ';
        for (const char c : text) {
            line += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
        }
        std::shared_ptr<spdlog::logger> logger;
        {
            const std::lock_guard lock(state().mutex);
            logger = state().logger;
        }
        logger->log(spdlog::level::info, line);
    } catch (...) {
        // Nothing can be done about a line that cannot be written.
    }
}

}  // namespace zorvan::gridftp

extern "C" void zorvan_gfs_log_message(int level, const char* format, ...) {
    if (format == nullptr || !zorvan::gridftp::log_enabled(level)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    char* text = nullptr;
    const int length = ::vasprintf(&text, format, arguments);
    va_end(arguments);
    if (length >= 0) {
        zorvan::gridftp::log_line(level, std::string_view(text, static_cast<std::size_t>(length)));
        std::free(text);
    }
}
