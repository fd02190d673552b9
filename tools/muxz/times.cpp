#include "tools/muxz/times.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace muxz {

std::optional<PhoneTime> ParseNameTime(std::string_view text) {
    using namespace std::chrono;
    const std::string own(text);
    int year_number, date, clock, end = 0;
    if (text.size() != 16 ||
        sscanf(own.c_str(), "%4d_%4d_%6d%n", &year_number, &date, &clock, &end) != 3 || end != 16)
        return std::nullopt;
    const year_month_day day(year(year_number), month(static_cast<unsigned>(date / 100)),
                             std::chrono::day(static_cast<unsigned>(date % 100)));
    const int hour = clock / 10000, minute = clock / 100 % 100, second = clock % 100;
    if (!day.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
    return sys_seconds(sys_days(day) + std::chrono::hours(hour) + std::chrono::minutes(minute))
               .time_since_epoch()
               .count() +
           second;
}

std::string ShowTime(int64_t seconds) {
    const auto time = static_cast<time_t>(seconds);
    tm parts{};
    char text[64];
    if (gmtime_r(&time, &parts) == nullptr) return std::to_string(seconds);
    strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

std::string ShowUtc(UtcTime seconds) { return ShowTime(seconds) + " UTC"; }

std::string ShowDuration(int64_t seconds) {
    char text[64];
    snprintf(text, sizeof(text), "%d:%02d:%02d", static_cast<int>(seconds / 3600 % 24),
             static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60));
    const int64_t days = seconds / 86400;
    return days == 0 ? text : std::to_string(days) + " d " + text;
}

std::string ShowOffset(int32_t seconds_east) {
    const int minutes = std::abs(seconds_east) / 60, rest = std::abs(seconds_east) % 60;
    char text[64];
    snprintf(text, sizeof(text), "UTC%c%02d:%02d", seconds_east < 0 ? '-' : '+', minutes / 60,
             minutes % 60);
    return rest == 0 ? text : text + std::string(":") + std::to_string(rest);
}

}  // namespace muxz
