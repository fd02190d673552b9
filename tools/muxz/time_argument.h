// Parses times in the arguments of commands.
//
// A time is either UTC or wall time, which the phone's clock shows: wall = UTC + UTC offset. Both
// are in seconds since 1970-01-01 00:00:00.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/common/calendar.h"
#include "tools/muxz/times.h"

namespace muxz {

using tools::DayOf;
using tools::kSecondsPerDay;
using tools::ParseClock;
using tools::ParseDate;
using tools::ParseDigits;
using tools::ShowClock;
using tools::ShowDay;
using tools::ShowSpan;
using tools::WallDay;

// A time as the user wrote it.
struct TimeArgument {
    enum class Kind {
        kClock,  // "14:32" or "14:32:10", without a day
        kWall,   // "2026-11-23 14:32:10", also with "T" instead of the space or without seconds
        kUtc,    // seconds since 1970
    };
    Kind kind;
    int64_t seconds;  // kClock: since midnight; kWall: wall time; kUtc: UTC
};
std::optional<TimeArgument> ParseTime(std::string_view text);

// Returns the seconds in "30s", "5m" or "1h". Returns no value for 0.
std::optional<int64_t> ParseSpan(std::string_view text);

// A time range that captures cover.
struct Covered {
    int64_t from, to;    // UTC
    int32_t utc_offset;  // seconds, of the phone's clock; 0 if the user writes times in UTC
};

struct ResolvedTime {
    std::optional<int64_t> utc;  // no value if the time is ambiguous
    // `why` names the possible days if `utc` has no value. `chosen` is the day that Resolve filled
    // in; it is empty if the argument had a day.
    std::string why, chosen;
};
// Returns the UTC time that `time` means.
//
// A kClock time means the day on which `captures` cover it. If they cover it on no day, it means
// the day of the captures, if there is only one. With `from` (UTC), it means the first such time
// after `from`. If several days are possible, or none, the result has no time.
//
// REQUIRES: `captures` is not empty. Its order does not matter.
ResolvedTime Resolve(const TimeArgument& time, const std::vector<Covered>& captures,
                     std::optional<int64_t> from = std::nullopt);

}  // namespace muxz
