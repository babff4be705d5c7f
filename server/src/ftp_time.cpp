/*
 * Time formats; see ftp_time.h. The calendar is std::chrono's, so neither the time zone nor the C library's
 * shared buffers are involved.
 */
#include "ftp_time.h"

#include <fmt/format.h>

#include <array>
#include <chrono>

#include "text.h"

namespace zorvan::gridftp {

namespace {

struct broken_down_time {
    int year = 1970;
    unsigned month = 1;
    unsigned day = 1;
    int hour = 0;
    int minute = 0;
    int second = 0;
};

// The first second of year 1000 and the first of year 10000: between them years have four digits.
constexpr std::int64_t first_time =
    std::chrono::sys_seconds{std::chrono::sys_days{std::chrono::year{1000} / 1 / 1}}
        .time_since_epoch()
        .count();
constexpr std::int64_t end_time =
    std::chrono::sys_seconds{std::chrono::sys_days{std::chrono::year{10000} / 1 / 1}}
        .time_since_epoch()
        .count();

std::optional<broken_down_time> break_down(std::int64_t seconds) {
    using namespace std::chrono;
    if (seconds == -1 || seconds < first_time || seconds >= end_time) return std::nullopt;
    const sys_seconds time{std::chrono::seconds{seconds}};
    const sys_days day = floor<days>(time);
    const year_month_day date{day};
    const hh_mm_ss clock{time - day};
    return broken_down_time{static_cast<int>(date.year()),
                            static_cast<unsigned>(date.month()),
                            static_cast<unsigned>(date.day()),
                            static_cast<int>(clock.hours().count()),
                            static_cast<int>(clock.minutes().count()),
                            static_cast<int>(clock.seconds().count())};
}

}  // namespace

std::optional<std::string> format_time_value(std::int64_t seconds) {
    const auto time = break_down(seconds);
    if (!time) return std::nullopt;
    return fmt::format("{:04}{:02}{:02}{:02}{:02}{:02}", time->year, time->month, time->day, time->hour,
                       time->minute, time->second);
}

std::optional<std::int64_t> parse_time_value(std::string_view text) {
    using namespace std::chrono;
    constexpr std::size_t digits = 14;
    if (text.size() > digits) {
        if (text[digits] != '.' || !parse_decimal(text.substr(digits + 1))) return std::nullopt;
        text = text.substr(0, digits);
    }
    if (text.size() != digits || !parse_decimal(text)) return std::nullopt;
    const auto number = [&](std::size_t begin, std::size_t length) {
        return static_cast<int>(*parse_decimal(text.substr(begin, length)));
    };
    const year_month_day date{year{number(0, 4)}, month{static_cast<unsigned>(number(4, 2))},
                              day{static_cast<unsigned>(number(6, 2))}};
    const int hour = number(8, 2);
    const int minute = number(10, 2);
    const int second = number(12, 2);
    // 60 is a leap second (RFC 3659, 2.3).
    if (!date.ok() || number(0, 4) < 1000 || hour > 23 || minute > 59 || second > 60) return std::nullopt;
    return (sys_seconds{sys_days{date}} + hours{hour} + minutes{minute} + seconds{second})
        .time_since_epoch()
        .count();
}

std::string format_list_time(std::int64_t seconds, std::int64_t now) {
    constexpr std::array<std::string_view, 12> months = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    constexpr std::int64_t half_a_year = 31556952 / 2;
    const auto time = break_down(seconds);
    if (!time) return "Jan  1  1970";
    const std::string_view month = months.at(time->month - 1);
    if (seconds > now || seconds < now - half_a_year) {
        return fmt::format("{} {:2}  {:04}", month, time->day, time->year);
    }
    return fmt::format("{} {:2} {:02}:{:02}", month, time->day, time->hour, time->minute);
}

std::int64_t current_time() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace zorvan::gridftp
