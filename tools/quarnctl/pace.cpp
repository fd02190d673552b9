#include "pace.h"

#include <ctime>
#include <utility>

#include "commands.h"

namespace quarnctl {

using tools::LogEvent;
using tools::RateReport;

namespace {

void Add(Pace::Sums& sums, const RateReport& report) {
    ++sums.reports;
    sums.read += report.read;
    sums.written += report.written;
    sums.stalls += report.stalls;
    for (size_t i = 0; i < sums.faults.size(); ++i) sums.faults[i] += report.faults[i];
    sums.poll_faults += report.poll_faults;
}

// The clock of this phone.
tools::LogClock Clock() {
    const time_t now = time(nullptr);
    tm local = {};
    localtime_r(&now, &local);
    return {now, static_cast<int32_t>(local.tm_gmtoff)};
}

// Returns true if the daemon's message is about a request with an argument.
bool IsSet(std::string_view message) {
    constexpr std::string_view kRequest = "command_handler: receive req=";
    if (!message.starts_with(kRequest)) return false;
    message.remove_prefix(kRequest.size());
    return FindCommand(message.substr(0, message.rfind(", strlen(req)="))) == nullptr;
}

}  // namespace

void Pace::Take(std::string_view line) {
    reader.clock = Clock();
    const size_t reports_before = reader.log.reports.size();
    const auto message = reader.Take(line);
    if (!message) return;
    if (IsSet(*message)) settings_changed = true;
    if (reader.log.reports.size() != reports_before) {
        ++reports_since_start;
        drops_before_report = std::exchange(drops_since_report, 0);
    }
    for (const LogEvent& event : reader.log.events) TakeEvent(event);
    reader.log.events.clear();
    FoldReports();
}

void Pace::TakeEvent(const LogEvent& event) {
    switch (event.kind) {
        case LogEvent::Kind::kStart:
            ++start_count;
            start_time = event.time;
            reports_since_start = 0;
            opened_file.clear();
            ended = false;
            break;
        case LogEvent::Kind::kEnd:
            ended = true;
            break;
        case LogEvent::Kind::kDrop:
            drops_since_report += event.number;
            folded.dropped += event.number;
            break;
        case LogEvent::Kind::kOpened:
            opened_file = event.text;
            // The daemon's log folder already ends in a slash.
            for (size_t at; (at = opened_file.find("//")) != std::string::npos;) {
                opened_file.erase(at, 1);
            }
            break;
        default:
            break;
    }
}

// Keeps the last report, because later lines may still belong to it.
void Pace::FoldReports() {
    auto& reports = reader.log.reports;
    while (reports.size() > 1) {
        Add(folded, reports.front());
        reports.erase(reports.begin());
    }
}

Pace::Sums Pace::WholeLog() const {
    Sums sums = folded;
    for (const RateReport& report : reader.log.reports) Add(sums, report);
    return sums;
}

const RateReport* Pace::Report() const {
    return reports_since_start == 0 ? nullptr : &reader.log.reports.back();
}

uint64_t Pace::RecentStalls() const {
    return reader.log.reports.empty() ? 0 : reader.log.reports.back().stalls;
}

bool Pace::TakeSettingsChanged() { return std::exchange(settings_changed, false); }

}  // namespace quarnctl
