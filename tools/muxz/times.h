// Times as names, headers and people write them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace muxz {

// Seconds since 1970-01-01 00:00:00 on the phone's own clock, as names tell it: local time.
using PhoneTime = int64_t;
// Seconds since 1970-01-01 00:00:00 UTC, as headers tell it.
using UtcTime = int64_t;

// What "2024_0131_235959" says; none when it is no time.
std::optional<PhoneTime> ParseNameTime(std::string_view text);

// "2024-01-31 23:59:59"
std::string ShowTime(int64_t seconds);
// "2024-01-31 23:59:59 UTC"
std::string ShowUtc(UtcTime seconds);
// "1:02:03", with days in front when there are any
std::string ShowDuration(int64_t seconds);
// "UTC+01:00"
std::string ShowOffset(int32_t seconds_east);

}  // namespace muxz
