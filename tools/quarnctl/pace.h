// Finds out from the daemon's reports in the Android log whether it keeps up with the modem.
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
    // Takes one line of the log, in any format that android_log.h names. Ignores lines of other
    // programs.
    void Take(std::string_view line);

    // The sums of all reports in the log so far.
    struct Sums {
        uint64_t reports = 0;
        uint64_t read = 0, written = 0;  // sums of rates in KiB per second
        uint64_t stalls = 0;
        uint64_t dropped = 0;  // bytes
        std::array<uint64_t, tools::kFaultNames.size()> faults{};
        uint64_t poll_faults = 0;
    };
    Sums WholeLog() const;

    // Returns the last report, or null if the daemon has not reported since its last start.
    const tools::RateReport* Report() const;

    // The stalls in the last report. Each report counts the stalls since the report before.
    uint64_t RecentStalls() const;
    // The bytes that were dropped after the report before the last one. The daemon drops bytes only
    // when it ends, so a restart may be between these two reports.
    uint64_t RecentDrops() const { return drops_before_report + drops_since_report; }
    bool FallsBehind() const { return RecentStalls() != 0 || RecentDrops() != 0; }

    bool HasLines() const { return reader.log.lines != 0; }
    // UTC, the time of the daemon's first line.
    std::optional<int64_t> since() const { return reader.log.from; }
    uint64_t starts() const { return start_count; }
    // UTC, the time of the last start.
    std::optional<int64_t> started() const { return start_time; }
    bool has_ended() const { return ended; }
    // The log file that the daemon opened last since its start; empty if none.
    const std::string& file() const { return opened_file; }

    // Returns true if a client has changed a setting since the last call.
    bool TakeSettingsChanged();

  private:
    void TakeEvent(const tools::LogEvent& event);
    void FoldReports();

    tools::AndroidLogReader reader{{0, 0}};
    Sums folded;  // of the reports that were removed from the reader
    uint64_t reports_since_start = 0;
    uint64_t drops_before_report = 0, drops_since_report = 0;
    uint64_t start_count = 0;
    std::optional<int64_t> start_time;
    bool ended = false;
    bool settings_changed = false;
    std::string opened_file;
};

}  // namespace quarnctl
