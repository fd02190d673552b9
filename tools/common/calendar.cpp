#include "calendar.h"

#include <charconv>
#include <chrono>
#include <cstdio>

namespace tools {

namespace {

// Returns `text` with each digit replaced by '0'.
std::string Shape(std::string_view text) {
    std::string shape(text);
    for (char& c : shape) {
        if (c >= '0' && c <= '9') c = '0';
    }
    return shape;
}

int Number(std::string_view text, size_t at, size_t length) {
    return static_cast<int>(ParseDigits(text.substr(at, length)).value_or(-1));
}

}  // namespace

int64_t DayOf(int64_t wall) {
    return (wall >= 0 ? wall : wall - kSecondsPerDay + 1) / kSecondsPerDay * kSecondsPerDay;
}

std::optional<int64_t> WallDay(int year, int month, int day) {
    using namespace std::chrono;
    const year_month_day date(std::chrono::year(year),
                              std::chrono::month(static_cast<unsigned>(month)),
                              std::chrono::day(static_cast<unsigned>(day)));
    if (!date.ok()) return std::nullopt;
    return int64_t{sys_days(date).time_since_epoch().count()} * kSecondsPerDay;
}

std::string ShowDay(int64_t wall) {
    using namespace std::chrono;
    const year_month_day date(sys_days(days(DayOf(wall) / kSecondsPerDay)));
    char text[48];
    snprintf(text, sizeof(text), "%04d-%02u-%02u", int(date.year()), unsigned(date.month()),
             unsigned(date.day()));
    return text;
}

std::string ShowClock(int64_t wall) {
    const int seconds = static_cast<int>(wall - DayOf(wall));
    char text[48];
    snprintf(text, sizeof(text), "%02d:%02d:%02d", seconds / 3600, seconds / 60 % 60, seconds % 60);
    return text;
}

std::string ShowSpan(int64_t seconds) {
    const auto pair = [](int64_t large, const char* unit, int64_t small, const char* small_unit) {
        const std::string text = std::to_string(large) + unit;
        return small == 0 ? text : text + " " + std::to_string(small) + small_unit;
    };
    if (seconds < 60) return std::to_string(seconds) + " s";
    if (seconds < 3600) return pair(seconds / 60, " min", seconds % 60, " s");
    if (seconds < kSecondsPerDay) return pair(seconds / 3600, " h", seconds / 60 % 60, " min");
    return pair(seconds / kSecondsPerDay, " d", seconds / 3600 % 24, " h");
}

std::optional<int64_t> ParseDigits(std::string_view text) {
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || text[0] == '-')
        return std::nullopt;
    return value;
}

std::optional<int64_t> ParseDate(std::string_view text) {
    if (Shape(text) != "0000-00-00") return std::nullopt;
    return WallDay(Number(text, 0, 4), Number(text, 5, 2), Number(text, 8, 2));
}

std::optional<int64_t> ParseClock(std::string_view text) {
    const std::string shape = Shape(text);
    if (shape != "00:00" && shape != "00:00:00") return std::nullopt;
    const int hour = Number(text, 0, 2), minute = Number(text, 3, 2);
    const int second = text.size() > 5 ? Number(text, 6, 2) : 0;
    if (hour > 23 || minute > 59 || second > 60) return std::nullopt;
    return 60 * (60 * int64_t{hour} + minute) + second;
}

}  // namespace tools
