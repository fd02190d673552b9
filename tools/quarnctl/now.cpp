#include "now.h"

#include <chrono>
#include <cstdio>
#include <ctime>

namespace quarnctl {

using std::chrono::milliseconds;

std::string Now(bool with_offset) {
    const auto now = std::chrono::system_clock::now();
    const time_t whole = std::chrono::system_clock::to_time_t(now);
    const auto ms = std::chrono::duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    tm local = {};
    localtime_r(&whole, &local);
    char day[32], offset[16] = "+0000", text[64];
    strftime(day, sizeof(day), with_offset ? "%Y-%m-%dT%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &local);
    strftime(offset, sizeof(offset), "%z", &local);  // "+hhmm"; readers of JSON expect "+hh:mm"
    const std::string zone = std::string(offset, 3) + ':' + std::string(offset + 3, 2);
    snprintf(text, sizeof(text), "%s.%03d%s", day, static_cast<int>(ms),
             with_offset ? zone.c_str() : "");
    return text;
}

}  // namespace quarnctl
