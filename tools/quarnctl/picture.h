// What `quarnctl top` knows of the daemon at one moment. It is shown as a screen or as a JSON
// object.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "android_log.h"
#include "asker.h"
#include "log_tree.h"
#include "pace.h"

namespace quarnctl {

constexpr uint64_t kMb = uint64_t{1} << 20;
// Seconds without a report after which something is wrong.
constexpr int64_t kLateReport = 2 * tools::kReportPeriod + 4;

struct Picture {
    const Pace& pace;
    std::string log_trouble;  // the reason if the log cannot be read
    LogTree tree;
    Storage storage;
    Asker::View daemon;
    int64_t now = time(nullptr);  // UTC
};

// --- what it means ---

// Returns the seconds since `time`. Returns no value if there is no time, or if the clock was set
// back.
std::optional<int64_t> Age(const Picture& picture, std::optional<int64_t> time);
std::optional<int64_t> ReportAge(const Picture& picture);
// Returns in a few words whether the daemon keeps up.
std::string Verdict(const Picture& picture);
// Returns the value of a setting of the daemon, if it is known and a number.
std::optional<int32_t> Setting(const Picture& picture, std::string_view name);
// Returns true if the tree shows the file that is being written, or shows that there is none.
bool TreeShowsFile(const LogTree& tree);
// Returns the path of the file that is being written: from the tree, or else from the log. Empty if
// there is none.
const std::string& CurrentFile(const Picture& picture);
std::string CurrentCapture(const Picture& picture);

// --- its forms ---

using Faults = std::array<uint64_t, tools::kFaultNames.size()>;

// Returns the lines of the screen.
std::vector<std::string> AsText(const Picture& picture, size_t columns);
// docs/control-protocol.md describes the object.
std::string AsJson(const Picture& picture);

}  // namespace quarnctl
