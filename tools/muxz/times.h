// Times in names and headers, and times for people.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace muxz {

// Local time on the phone's clock, as in names: seconds since 1970-01-01 00:00:00 local time.
using PhoneTime = int64_t;
// UTC, as in headers: seconds since 1970-01-01 00:00:00 UTC.
using UtcTime = int64_t;

// Parses "2024_0131_235959". Returns no value if `text` is no time.
std::optional<PhoneTime> ParseNameTime(std::string_view text);

// "2024-01-31 23:59:59"
std::string ShowTime(int64_t seconds);
// "2024-01-31 23:59:59 UTC"
std::string ShowUtc(UtcTime seconds);
// "1:02:03", with days in front if there are any
std::string ShowDuration(int64_t seconds);
// "UTC+01:00"
std::string ShowOffset(int32_t seconds_east);

}  // namespace muxz
