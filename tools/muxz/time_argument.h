// Points in time as log text and the arguments of commands have them.
//
// A time is UTC, or what the phone's clock showed: wall = UTC + UTC offset, both in seconds.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/muxz/times.h"

namespace muxz {

constexpr int64_t kSecondsPerDay = int64_t{24} * 60 * 60;

// The wall seconds of a date at midnight; nothing when there is no such day.
std::optional<int64_t> WallDay(int year, int month, int day);

// "14:32:10" and "2026-11-23".
std::string ShowClock(int64_t wall);
std::string ShowDay(int64_t wall);
// "3 s", "4 min 10 s", "2 h 5 min", "3 d 1 h".
std::string ShowSpan(int64_t seconds);

// Reads digits, exactly as many as `text` has; nothing when anything else is in it.
std::optional<int64_t> ParseDigits(std::string_view text);
// "14:32" or "14:32:10": seconds since midnight.
std::optional<int64_t> ParseClock(std::string_view text);

// A point in time as a person wrote it.
struct TimeArgument {
    enum class Kind {
        kClock,  // "14:32", "14:32:10": on the day that the captures tell
        kWall,   // "2026-11-23 14:32:10", a "T" in place of the space, or without the seconds
        kUtc,    // seconds since 1970
    };
    Kind kind;
    int64_t seconds;  // since midnight, wall seconds or UTC
};
std::optional<TimeArgument> ParseTime(std::string_view text);

// "30s", "5m", "1h": seconds, above 0.
std::optional<int64_t> ParseSpan(std::string_view text);

// A part of the time that captures cover.
struct Covered {
    int64_t from, to;    // UTC
    int32_t utc_offset;  // of the phone's clock, or 0 when times are told in UTC
};

// Tells the UTC time that an argument means, given what the captures cover, in any order but not
// empty.
//
// A time of day means the day on which the captures cover it, else the day of the captures when
// there is only one. With `from` it means the first such time from there on. When more than one day
// fits, or none, there is no time, and `why` names the candidates. `chosen` is the day that was
// filled in, empty when the argument had one.
struct ResolvedTime {
    std::optional<int64_t> utc;
    std::string why, chosen;
};
ResolvedTime Resolve(const TimeArgument& time, const std::vector<Covered>& captures,
                     std::optional<int64_t> from = std::nullopt);

}  // namespace muxz
