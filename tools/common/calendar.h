// Parses and formats dates, times of day and durations.
//
// A time is either UTC or wall time, which the phone's clock shows: wall = UTC + UTC offset. Both
// are in seconds since 1970-01-01 00:00:00.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tools {

constexpr int64_t kSecondsPerDay = int64_t{24} * 60 * 60;

// Returns the wall time of a date at midnight. Returns no value if there is no such day.
std::optional<int64_t> WallDay(int year, int month, int day);
// Returns the wall time of the midnight at or before `wall`.
int64_t DayOf(int64_t wall);

// "14:32:10" and "2026-11-23".
std::string ShowClock(int64_t wall);
std::string ShowDay(int64_t wall);
// "3 s", "4 min 10 s", "2 h 5 min", "3 d 1 h".
std::string ShowSpan(int64_t seconds);

// Returns the number in `text`. Returns no value if `text` has anything besides digits.
std::optional<int64_t> ParseDigits(std::string_view text);
// Returns the wall time at midnight of "2026-11-23".
std::optional<int64_t> ParseDate(std::string_view text);
// Returns the seconds since midnight in "14:32" or "14:32:10".
std::optional<int64_t> ParseClock(std::string_view text);

}  // namespace tools
