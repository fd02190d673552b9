// Whether the daemon keeps up with the modem, from its own reports in the Android log.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "android_log.h"

namespace quarnctl {

class Pace {
  public:
    // Takes one line of the log, in any format that android_log.h names. Lines of other programs
    // count for nothing.
    void Take(std::string_view line);

    // The sums of all reports that have been read.
    struct Sums {
        uint64_t reports = 0;
        uint64_t read = 0, written = 0;  // KiB a second, added up
        uint64_t stalls = 0;
        uint64_t dropped = 0;  // bytes
        std::array<uint64_t, tools::kFaultNames.size()> faults{};
        uint64_t poll_faults = 0;
    };
    Sums WholeLog() const;

    // The last report; none when the daemon has not reported since its last start.
    const tools::RateReport* Report() const;

    // Stalls of the last report. A report counts the stalls since the report before.
    uint64_t RecentStalls() const;
    // Bytes dropped since the last report but one. The daemon drops bytes when it ends, so a
    // restart may lie between the two.
    uint64_t RecentDrops() const { return drops_before_report + drops_since_report; }
    bool FallsBehind() const { return RecentStalls() != 0 || RecentDrops() != 0; }

    bool HasLines() const { return reader.log.lines != 0; }
    // UTC, of the first line of the daemon.
    std::optional<int64_t> since() const { return reader.log.from; }
    uint64_t starts() const { return start_count; }
    // UTC, of the last start.
    std::optional<int64_t> started() const { return start_time; }
    bool has_ended() const { return ended; }
    // The log file that was opened last in this run of the daemon; empty: none.
    const std::string& file() const { return opened_file; }

    // Returns true once after a line tells that a client sets something.
    bool TakeSettingsChanged();

  private:
    void TakeEvent(const tools::LogEvent& event);
    void FoldReports();

    tools::AndroidLogReader reader{{0, 0}};
    Sums folded;  // of the reports that the reader has no more
    uint64_t reports_since_start = 0;
    uint64_t drops_before_report = 0, drops_since_report = 0;
    uint64_t start_count = 0;
    std::optional<int64_t> start_time;
    bool ended = false;
    bool settings_changed = false;
    std::string opened_file;
};

}  // namespace quarnctl
