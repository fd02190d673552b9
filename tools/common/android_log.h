// Reads the daemon's messages from Android log text. It accepts the output of "logcat -s QUARN" in
// the formats time, threadtime, epoch and brief (brief has no times), and the log file that ./run
// keeps.
//
// The input may be any bytes. Lines of other tags, and messages of no use here, are skipped.
#pragma once

#include <array>
#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

// Fills in what a log without years and time zones leaves open.
struct LogClock {
    // UTC. A date without a year is put into the year that brings it closest to this time.
    int64_t near;
    int32_t utc_offset;  // seconds
};

// One report of the daemon about the past eight seconds.
struct RateReport {
    std::optional<int64_t> time;     // UTC, when it was written; none in the brief format
    uint64_t read = 0, written = 0;  // KiB per second
    uint64_t stalls = 0;             // how often the reader found the ring too full
    uint64_t reads = 0;
    std::array<uint64_t, 5> faults{};  // failed reads, in the order of kFaultNames
    uint64_t poll_faults = 0;
};
constexpr std::array<const char*, 5> kFaultNames = {"EAGAIN", "EINTR", "ENODEV", "EBADF", "other"};
constexpr int64_t kReportPeriod = 8;  // seconds

struct LogEvent {
    enum class Kind {
        // The daemon started. `text` is not empty if the daemon before it did not end cleanly.
        kStart,
        kEnd,      // the daemon ended cleanly
        kRestart,  // the daemon requested its restart
        // A notification of the modem. `number` is its code, `text` is what the code means.
        kNotification,
        kDrop,      // `number` bytes were dropped
        kOpened,    // `text` is the log file
        kRecycled,  // `text` is the file or folder that the recycler removed
        // Another program deleted or cut the log file that was being written. `text` is the file and
        // the number of bytes that are lost.
        kDeleted,
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
    uint64_t lines = 0;     // lines with the daemon's tag
    uint64_t untimed = 0;   // those of these lines that have no time
    uint64_t warnings = 0;  // messages by priority
    uint64_t errors = 0;
    std::optional<int64_t> from, to;  // UTC, the earliest and the latest time
    // Recycle size limit of the tree in bytes, from the last message of the recycler.
    std::optional<uint64_t> budget;
};

// Reads a log line by line, for callers that follow a growing log.
class AndroidLogReader {
  public:
    explicit AndroidLogReader(const LogClock& log_clock) : clock(log_clock) {}

    // Takes one line, with or without its line end. Returns the daemon's message, which points
    // into `text`. Returns no value if the line is not the daemon's.
    std::optional<std::string_view> Take(std::string_view text);

    // The log so far. The caller may remove events, and all reports but the last one: later lines
    // may still belong to the last report.
    AndroidLog log;
    // The caller may change the clock between two lines.
    LogClock clock;

  private:
    bool runs = false;  // the daemon has started and not ended, according to the log
};

AndroidLog ReadAndroidLog(std::istream& text, const LogClock& clock);

}  // namespace tools
