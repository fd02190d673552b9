#include "tools/muxz/time_argument.h"

#include <algorithm>
#include <iterator>
#include <set>

namespace muxz {

namespace {

// Returns the UTC offset of the capture that is closest to `time`. `is_wall`: `time` is wall time,
// else UTC.
int32_t OffsetAt(int64_t time, bool is_wall, const std::vector<Covered>& captures) {
    const auto distance = [=](const Covered& capture) {
        const int32_t offset = is_wall ? capture.utc_offset : 0;
        const int64_t from = capture.from + offset, to = capture.to + offset;
        return time < from ? from - time : std::max<int64_t>(time - to, 0);
    };
    return std::min_element(
               captures.begin(), captures.end(),
               [&](const Covered& a, const Covered& b) { return distance(a) < distance(b); })
        ->utc_offset;
}

std::string Names(const std::set<int64_t>& days) {
    constexpr size_t kShown = 5;
    std::string text;
    size_t count = 0;
    for (auto day = days.begin(); day != days.end() && count < kShown; ++day, ++count)
        text += (count == 0 ? "" : ", ") + ShowDay(*day);
    return days.size() > kShown ? text + ", ..." : text;
}

ResolvedTime ResolveClock(int64_t clock, const std::vector<Covered>& captures) {
    std::set<int64_t> fitting, all;
    for (const Covered& capture : captures) {
        const int64_t from = capture.from + capture.utc_offset;
        const int64_t to = capture.to + capture.utc_offset;
        all.insert({DayOf(from), DayOf(to)});
        // If the clock was set, a capture may cover years. The message names only a few days, so
        // 100 are enough.
        for (int64_t day = DayOf(from); day <= to && fitting.size() < 100; day += kSecondsPerDay) {
            if (day + clock >= from && day + clock <= to) fitting.insert(day);
        }
    }
    const std::set<int64_t>& days = fitting.empty() ? all : fitting;
    if (days.size() == 1) {
        const int64_t wall = *days.begin() + clock;
        return {wall - OffsetAt(wall, true, captures), "", ShowDay(wall)};
    }
    return {std::nullopt,
            (fitting.empty() ? "no capture covers " : "more than one day has a ") +
                ShowClock(clock) + ": give it with a date, of " + Names(days),
            ""};
}

}  // namespace

std::optional<TimeArgument> ParseTime(std::string_view text) {
    if (const auto clock = ParseClock(text)) return {{TimeArgument::Kind::kClock, *clock}};
    if (text.size() > 11 && (text[10] == ' ' || text[10] == 'T')) {
        const auto day = ParseDate(text.substr(0, 10));
        const auto clock = ParseClock(text.substr(11));
        if (!day || !clock) return std::nullopt;
        return {{TimeArgument::Kind::kWall, *day + *clock}};
    }
    const auto seconds = ParseDigits(text);
    // Later than the year 9999 is no time that a phone's clock can show.
    if (!seconds || *seconds > *WallDay(9999, 12, 31)) return std::nullopt;
    return {{TimeArgument::Kind::kUtc, *seconds}};
}

std::optional<int64_t> ParseSpan(std::string_view text) {
    constexpr int64_t kLongest = kSecondsPerDay * 366 * 100;
    if (text.empty()) return std::nullopt;
    const int64_t unit = text.back() == 's'   ? 1
                         : text.back() == 'm' ? 60
                         : text.back() == 'h' ? 3600
                                              : 0;
    const auto count = ParseDigits(text.substr(0, text.size() - 1));
    if (unit == 0 || !count || *count == 0 || *count > kLongest / unit) return std::nullopt;
    return *count * unit;
}

ResolvedTime Resolve(const TimeArgument& time, const std::vector<Covered>& captures,
                     std::optional<int64_t> from) {
    switch (time.kind) {
        case TimeArgument::Kind::kUtc:
            return {time.seconds, "", ""};
        case TimeArgument::Kind::kWall:
            return {time.seconds - OffsetAt(time.seconds, true, captures), "", ""};
        case TimeArgument::Kind::kClock:
            break;
    }
    if (!from) return ResolveClock(time.seconds, captures);
    const int32_t offset = OffsetAt(*from, false, captures);
    int64_t wall = DayOf(*from + offset) + time.seconds;
    if (wall < *from + offset) wall += kSecondsPerDay;
    return {wall - offset, "", ShowDay(wall)};
}

}  // namespace muxz
