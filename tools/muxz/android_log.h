// Reads the daemon's messages out of Android log text: what "logcat -s QUARN" prints in the formats
// time, threadtime and epoch (and brief, which has no times), and what ./run keeps of a run.
//
// Any bytes may be thrown at it. Lines of another tag, and messages of no use here, are passed
// over.
#pragma once

#include <array>
#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace muxz {

// What a log without years and zones has to be told of its clock.
struct LogClock {
    int64_t near;        // UTC; of the years that a date could be of, the closest to this
    int32_t utc_offset;  // seconds
};

// One report of the daemon on the past eight seconds.
struct RateReport {
    std::optional<int64_t> time;     // UTC, when it was written; none in the brief format
    uint64_t read = 0, written = 0;  // KiB a second
    uint64_t stalls = 0;             // times the reader found the ring too full
    uint64_t reads = 0;
    std::array<uint64_t, 5> faults{};  // of reads, by kind: kFaultNames
    uint64_t poll_faults = 0;
};
constexpr std::array<const char*, 5> kFaultNames = {"EAGAIN", "EINTR", "ENODEV", "EBADF", "other"};
constexpr int64_t kReportPeriod = 8;  // seconds

struct LogEvent {
    enum class Kind {
        kStart,    // the daemon started; `text` says so when the one before did not end in order
        kEnd,      // it ended in order
        kRestart,  // it asked for its restart
        kNotification,  // of the modem; `number` is its code, `text` what that means
        kDrop,          // `number` bytes were dropped
        kOpened,        // `text` is the log file
        kRecycled,      // `text` is the file or folder that was removed
        kVanished,      // a file of the daemon was removed by somebody else; `text` is the message
    };
    Kind kind;
    std::optional<int64_t> time;  // UTC
    uint64_t number = 0;
    std::string text;
};
const char* Text(LogEvent::Kind kind);

struct AndroidLog {
    std::vector<RateReport> reports;
    std::vector<LogEvent> events;
    uint64_t lines = 0;     // with the tag
    uint64_t untimed = 0;   // of these, without a time
    uint64_t warnings = 0;  // messages by priority
    uint64_t errors = 0;
    std::optional<int64_t> from, to;  // UTC, the earliest and the latest time
    std::optional<uint64_t> budget;   // bytes that the tree may have, as the recycler last told
};

AndroidLog ReadAndroidLog(std::istream& text, const LogClock& clock);

}  // namespace muxz
