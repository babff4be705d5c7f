// How far a transfer is: the text, which is a pure function, and its display on a terminal or in a log.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>

#include "socket.h"

namespace zorvan::copy {

struct progress {
    std::string name;
    std::uint64_t done = 0;              ///< bytes, those of a former run included
    std::optional<std::uint64_t> total;  ///< bytes, if known
    double rate = 0;                     ///< bytes a second
    bool finished = false;
    double seconds = 0;  ///< since the beginning
};

/// "999 B", "1.0 KiB", "20.0 MiB".
std::string format_bytes(std::uint64_t bytes);
/// "0:07", "12:00", "3:01:59"; "--:--" for what nobody can tell.
std::string format_time(double seconds);
/// One line of at most `width` columns: name, bar, percent, bytes, rate, and the time left or, at the end,
/// taken.
std::string format_progress(const progress& state, std::size_t width);

/// Bytes a second over the last seconds. Times are seconds from any fixed point.
class rate_meter {
  public:
    void add(double time, std::uint64_t bytes);
    double rate() const;

  private:
    std::deque<std::pair<double, std::uint64_t>> samples_;
};

enum class display_kind : std::uint8_t {
    none,
    bar,   ///< one line that is written over and over
    lines  ///< a line every few seconds
};

/// Shows one file's transfer after another on standard error. One thread.
class progress_display {
  public:
    explicit progress_display(display_kind kind) : kind_(kind) {}
    void begin(const std::string& name, std::optional<std::uint64_t> total, std::uint64_t done);
    void update(std::uint64_t done);
    /// @param good  show the file as finished; otherwise only free the line for a message
    void end(bool good);

  private:
    void show(bool last);

    display_kind kind_;
    progress state_;
    rate_meter meter_;
    clock::time_point begun_;
    clock::time_point shown_;
    std::uint64_t first_ = 0;
    bool active_ = false;
};

}  // namespace zorvan::copy
