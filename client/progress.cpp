// The progress line; see progress.h.
#include "progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "text.h"

namespace zorvan::copy {
namespace {

constexpr double window_seconds = 5;
constexpr milliseconds between_lines{5000};
constexpr std::size_t widest = 400;
constexpr std::size_t widest_bar = 30;

std::string fixed(double value, int digits) {
    std::array<char, 64> buffer{};
    const int length = std::snprintf(buffer.data(), buffer.size(), "%.*f", digits, value);
    return {buffer.data(), static_cast<std::size_t>(length)};
}

std::string right(const std::string& text, std::size_t width) {
    return text.size() >= width ? text : std::string(width - text.size(), ' ') + text;
}

/// Columns of a text, one for each character of it.
std::size_t columns(const std::string& text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return (byte & 0xc0) != 0x80; }));
}

/// The end of a name says more than its beginning.
std::string fitted(std::string name, std::size_t width) {
    if (columns(name) <= width) return name + std::string(width - columns(name), ' ');
    if (width < 4) return std::string(width, '.');
    while (columns(name) > width - 3) {
        name.erase(0, 1);
        while (!name.empty() && (name.front() & 0xc0) == 0x80) {
            name.erase(0, 1);
        }
    }
    return "..." + name;
}

std::size_t terminal_width() {
    winsize size{};
    return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

double share(const progress& state) {
    if (!state.total) return 0;
    if (*state.total == 0) return state.finished ? 1 : 0;
    return std::min(1.0, static_cast<double>(state.done) / static_cast<double>(*state.total));
}

}  // namespace

std::string format_bytes(std::uint64_t bytes) {
    if (bytes < 1024) return std::to_string(bytes) + " B";
    constexpr std::array<const char*, 6> units{"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    auto value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    // What would round to 1024.0 is one of the next unit.
    while (value >= 1023.95 && unit + 1 < units.size()) {
        value /= 1024;
        ++unit;
    }
    return fixed(value, 1) + " " + units[unit];
}

std::string format_time(double seconds) {
    constexpr double longest = 99.0 * 3600;
    if (!(seconds >= 0) || seconds > longest) return "--:--";
    const auto whole = static_cast<unsigned>(std::ceil(seconds));
    const auto two = [](unsigned value) { return (value < 10 ? "0" : "") + std::to_string(value); };
    if (whole < 3600) return std::to_string(whole / 60) + ":" + two(whole % 60);
    return std::to_string(whole / 3600) + ":" + two(whole / 60 % 60) + ":" + two(whole % 60);
}

std::string format_progress(const progress& state, std::size_t width) {
    width = std::min(width, widest);
    const double part = share(state);
    std::string numbers;
    if (state.total) {
        // 100 % means all of it.
        const bool all = state.done >= *state.total && (*state.total > 0 || state.finished);
        const auto percent = all ? 100U : std::min(99U, static_cast<unsigned>(part * 100));
        numbers += " " + right(std::to_string(percent), 3) + "%";
    }
    numbers += " " + right(format_bytes(state.done), 10);
    numbers += " " + right(format_bytes(static_cast<std::uint64_t>(std::max(0.0, state.rate))) + "/s", 12);
    double time = state.seconds;
    if (!state.finished) {
        const bool known = state.total && state.rate > 0 && *state.total >= state.done;
        time = known ? static_cast<double>(*state.total - state.done) / state.rate : -1;
    }
    numbers += " " + right(format_time(time), 7);
    if (numbers.size() >= width) return numbers.substr(0, width);

    const std::size_t room = width - numbers.size();
    std::size_t bar = state.total && room >= 24 ? std::min(widest_bar, room / 2) : 0;
    const std::size_t name = room - bar;
    std::string line = fitted(gridftp::printable(state.name), name);
    if (bar > 0) {
        bar -= 3;
        const auto filled = static_cast<std::size_t>(part * static_cast<double>(bar));
        line += " [" + std::string(filled, '#') + std::string(bar - filled, '.') + "]";
    }
    return line + numbers;
}

void rate_meter::add(double time, std::uint64_t bytes) {
    samples_.emplace_back(time, bytes);
    while (samples_.size() > 2 && samples_[1].first <= time - window_seconds) {
        samples_.pop_front();
    }
}

double rate_meter::rate() const {
    if (samples_.size() < 2) return 0;
    const auto& [first_time, first_bytes] = samples_.front();
    const auto& [last_time, last_bytes] = samples_.back();
    if (last_time <= first_time || last_bytes < first_bytes) return 0;
    return static_cast<double>(last_bytes - first_bytes) / (last_time - first_time);
}

void progress_display::begin(const std::string& name, std::optional<std::uint64_t> total,
                             std::uint64_t done) {
    state_ = {};
    state_.name = name;
    state_.total = total;
    state_.done = done;
    meter_ = {};
    meter_.add(0, done);
    begun_ = clock::now();
    shown_ = begun_;
    first_ = done;
    active_ = true;
    if (kind_ == display_kind::bar) show(false);
}

void progress_display::update(std::uint64_t done) {
    if (!active_) return;
    state_.done = done;
    const auto now = clock::now();
    state_.seconds = std::chrono::duration<double>(now - begun_).count();
    meter_.add(state_.seconds, done);
    state_.rate = meter_.rate();
    if (kind_ == display_kind::bar || (kind_ == display_kind::lines && now - shown_ >= between_lines)) {
        shown_ = now;
        show(false);
    }
}

void progress_display::end(bool good) {
    if (!active_) return;
    active_ = false;
    if (good) {
        state_.finished = true;
        state_.seconds = std::chrono::duration<double>(clock::now() - begun_).count();
        if (state_.seconds > 0) state_.rate = static_cast<double>(state_.done - first_) / state_.seconds;
        show(true);
    } else if (kind_ == display_kind::bar) {
        std::fputs("\n", stderr);
    }
}

void progress_display::show(bool last) {
    if (kind_ == display_kind::none) return;
    constexpr std::size_t line_width = 100;
    const bool bar = kind_ == display_kind::bar;
    // The last column stays free: some terminals begin a new line there.
    const auto text = format_progress(state_, bar ? terminal_width() - 1 : line_width);
    std::fprintf(stderr, bar ? "\r%s%s" : "%s%s", text.c_str(), bar && !last ? "" : "\n");
    std::fflush(stderr);
}

}  // namespace zorvan::copy
