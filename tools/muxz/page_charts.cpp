#include "tools/muxz/page_charts.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <utility>
#include <vector>

#include "tools/muxz/messages.h"
#include "tools/muxz/page_html.h"
#include "tools/muxz/time_argument.h"

namespace muxz::page {

namespace {

constexpr double kBytesPerKb = 1024;  // as in the daemon's reports

// A chart of the Android log: each curve has one point for each of the daemon's reports.
struct ReportChart {
    using Value = double (*)(const RateReport&);

    const char* title;
    const char* note;
    const char* unit;
    std::array<std::pair<const char*, Value>, 4> curves;  // those that are not used have no name
};

constexpr double MbPerSecond(uint64_t kb_per_second) {
    return static_cast<double>(kb_per_second) * kBytesPerKb / kMillion;
}

template <size_t kKind>
double Faults(const RateReport& report) {
    return static_cast<double>(report.faults[kKind]);
}

constexpr std::array<ReportChart, 4> kReportCharts = {{
    {"Read and write rate",
     "By the daemon's reports of every 8 s: raw bytes from the modem into the ring, and from there "
     "to the log files.",
     "MB/s",
     {{{"read", [](const RateReport& report) { return MbPerSecond(report.read); }},
       {"written", [](const RateReport& report) { return MbPerSecond(report.written); }}}}},
    {"Stalls",
     "How often in 8 s the reader found the ring too full to read on.",
     "times",
     {{{"stalls", [](const RateReport& report) { return static_cast<double>(report.stalls); }}}}},
    {"Read faults by kind",
     "Attempts at the modem's log port in 8 s that failed.",
     "times",
     {{{kFaultNames[1], Faults<1>},
       {kFaultNames[2], Faults<2>},
       {kFaultNames[3], Faults<3>},
       {kFaultNames[4], Faults<4>}}}},
    {"Attempts that found nothing to read (EAGAIN)",
     "In 8 s. Many are no fault: the reader asks faster than the modem writes.",
     "times",
     {{{kFaultNames[0], Faults<0>}}}},
}};

// Makes the charts over time.
class Timeline {
  public:
    explicit Timeline(const Model& shown)
        : model(shown),
          log(shown.android_log ? &*shown.android_log : nullptr),
          files(FileTimes(shown)),
          crashes(Crashes(shown, log)) {
        SetAxis();
    }

    std::vector<TimeChart> Draw() const {
        std::vector<TimeChart> charts;
        if (!files.empty()) {
            charts.push_back(CaptureChart());
            AddFileCharts(charts);
        }
        if (log != nullptr) AddLogCharts(charts);
        return charts;
    }

    std::string Notes() const {
        if (files.empty()) return "The names of the files tell no time.";
        std::string text =
            "Times are those of the phone's clock, " + ShowOffset(axis.utc_offset) + ".";
        bool other_offset = false, off_axis = false;
        for (const FileTime& file : files) {
            other_offset |= file.utc_offset != axis.utc_offset;
            off_axis |= !OnAxis(file.from);
        }
        if (other_offset)
            text +=
                " The phone's zone changed; the charts keep that of the newest file, the tables "
                "that of each capture.";
        if (off_axis)
            text +=
                " Files more than a year before the newest one are in the tables only: a phone "
                "without a valid time starts in 1970.";
        return text;
    }

    bool LogIsLonger() const {
        return log != nullptr && log->from && (!OnAxis(*log->from) || !OnAxis(*log->to));
    }

    TimeAxis axis{0, 1, 0};

  private:
    // The axis covers all times up to a year before the newest one. Older times come from a clock
    // that starts in 1970.
    void SetAxis() {
        constexpr int64_t kLongest = 366 * kSecondsPerDay;
        std::vector<UtcTime> times;
        for (const FileTime& file : files) {
            times.push_back(file.from);
            times.push_back(file.to.value_or(file.from));
            if (file.capture->start) times.push_back(*file.capture->start - file.utc_offset);
            axis.utc_offset = file.utc_offset;
        }
        if (times.empty() && log != nullptr && log->from) times = {*log->from, *log->to};
        if (times.empty()) times.push_back(0);
        const UtcTime last = *std::max_element(times.begin(), times.end());
        UtcTime first = last;
        for (const UtcTime time : times) {
            if (time >= last - kLongest) first = std::min(first, time);
        }
        // The Android log may extend the axis on each side by a quarter of the captures' time.
        const int64_t beside = std::max<int64_t>((last - first) / 4, 60);
        UtcTime from = first, to = last;
        if (log != nullptr && log->from) {
            if (*log->from < from && *log->to >= from) from = std::max(*log->from, first - beside);
            if (*log->to > to && *log->from <= to) to = std::min(*log->to, last + beside);
        }
        const double room = std::max(static_cast<double>(to - from) * 0.01, 0.5);
        axis.from = static_cast<double>(from) - room;
        axis.to = static_cast<double>(to) + room;
    }

    bool OnAxis(UtcTime time) const {
        return static_cast<double>(time) >= axis.from && static_cast<double>(time) <= axis.to;
    }

    std::string At(UtcTime time) const { return ShowTime(time + axis.utc_offset); }

    void AddSpan(std::vector<Span>& spans, UtcTime from, UtcTime to, const char* style,
                 std::string label, std::string text, size_t lane) const {
        if (!OnAxis(from) && !OnAxis(to)) return;
        spans.push_back({static_cast<double>(from), static_cast<double>(to), style,
                         std::move(label), std::move(text), lane});
    }

    void AddFileCharts(std::vector<TimeChart>& charts) const {
        struct PerFile {
            const char* title;
            const char* note;
            const char* unit;
            struct {
                const char* style;
                const char* name;
                double (*value)(const BlockFacts& blocks, double seconds);
            } curves[2];
        };
        static constexpr PerFile kPerFile[] = {
            {"Rate of each file",
             "The bytes of a file over the time from its opening to that of the next one.",
             "MB/s",
             {{"one", "raw",
               [](const BlockFacts& b, double s) {
                   return static_cast<double>(b.raw) / s / kMillion;
               }},
              {"two", "packed",
               [](const BlockFacts& b, double s) {
                   return static_cast<double>(b.packed) / s / kMillion;
               }}}},
            {"Compression",
             "Raw bytes to one packed byte.",
             "to 1",
             {{"one", "raw to packed",
               [](const BlockFacts& b, double) {
                   return b.packed == 0
                              ? -1.0
                              : static_cast<double>(b.raw) / static_cast<double>(b.packed);
               }},
              {nullptr, nullptr, nullptr}}},
        };
        for (const PerFile& wanted : kPerFile) {
            TimeChart chart{wanted.title, wanted.note, wanted.unit, {}, {}, CrashSpans()};
            for (const auto& [style, name, value] : wanted.curves) {
                if (style == nullptr) continue;
                Curve curve{style, name, {}};
                for (const FileTime& file : files) {
                    if (!file.to || *file.to <= file.from || !OnAxis(file.from)) continue;
                    const double from = static_cast<double>(file.from),
                                 to = static_cast<double>(*file.to);
                    const double y = value(file.file->blocks, to - from);
                    curve.points.insert(curve.points.end(), {{from, -1}, {from, y}, {to, y}});
                }
                chart.curves.push_back(std::move(curve));
            }
            charts.push_back(std::move(chart));
        }
    }

    std::vector<Span> CrashSpans() const {
        std::vector<Span> spans;
        for (const Crash& crash : crashes) {
            if (crash.from && crash.to)
                AddSpan(spans, *crash.from, *crash.to, "exception", "", CrashText(crash), 0);
        }
        return spans;
    }

    TimeChart CaptureChart() const {
        TimeChart chart{"Captures", "A row for each log folder.", "", {}, {}, {}};
        std::map<std::string, size_t> lanes;
        std::map<const CaptureFacts*, size_t> lane_of;
        size_t count = 0;
        for (const FileTime& file : files) {
            const CaptureFacts& capture = *file.capture;
            const auto [lane, is_new] = lanes.try_emplace(capture.log_folder, lanes.size());
            if (is_new) chart.lanes.push_back(LaneName(capture.log_folder));
            if (!lane_of.try_emplace(&capture, lane->second).second) continue;
            ++count;
            UtcTime to = file.from;
            for (const FileTime& other : files) {
                if (other.capture == &capture) to = std::max(to, other.to.value_or(other.from));
            }
            if (capture.start && *capture.start - file.utc_offset < file.from &&
                FrontIsGone(capture))
                AddSpan(chart.spans, *capture.start - file.utc_offset, file.from, "gone", "",
                        "the front of " + Name(capture) + " is gone", lane->second);
            AddSpan(chart.spans, file.from, to, count % 2 == 0 ? "capture" : "capture2",
                    capture.index ? std::to_string(*capture.index) : "",
                    Name(capture) + ", " + Plural(capture.files.size(), "file") + ", " +
                        ShowBytes(capture.blocks.raw) + " raw, " +
                        ShowTime(file.from + file.utc_offset) + " to " +
                        ShowTime(to + file.utc_offset),
                    lane->second);
        }
        for (const Finding& finding : model.findings) AddFinding(chart.spans, finding, lane_of);
        for (const Crash& crash : crashes) {
            const auto lane = lane_of.find(crash.capture);
            if (lane != lane_of.end() && crash.from && crash.to)
                AddSpan(chart.spans, *crash.from, *crash.to, "exception", "", CrashText(crash),
                        lane->second);
        }
        chart.legend = {{"capture", "capture"},
                        {"exception", "modem exception"},
                        {"hole", "hole: files are missing"},
                        {"damage", "damaged place"},
                        {"gone", "front recycled"}};
        return chart;
    }

    static std::string LaneName(const std::string& folder) {
        constexpr size_t kRoom = 9;  // letters
        const std::string name = PrintablePath(LastComponent(folder));
        return name.size() <= kRoom ? name : name.substr(0, kRoom - 2) + "..";
    }

    bool FrontIsGone(const CaptureFacts& capture) const {
        return std::any_of(
            model.findings.begin(), model.findings.end(), [&](const Finding& finding) {
                return finding.what == Finding::What::kFrontGone && finding.path == capture.path;
            });
    }

    // Adds a span for missing files between two files, or for damage within a file.
    void AddFinding(std::vector<Span>& spans, const Finding& finding,
                    const std::map<const CaptureFacts*, size_t>& lane_of) const {
        const auto file = std::find_if(files.begin(), files.end(), [&](const FileTime& candidate) {
            return candidate.file->path == finding.path || candidate.capture->path == finding.path;
        });
        if (file == files.end()) return;
        const size_t lane = lane_of.at(file->capture);
        if (finding.what == Finding::What::kHole && finding.from && finding.to)
            AddSpan(spans, *finding.from - file->utc_offset, *finding.to - file->utc_offset, "hole",
                    "", finding.text, lane);
        if ((finding.what != Finding::What::kDamage && finding.what != Finding::What::kCutEnd) ||
            !finding.offset || !file->to || file->file->size == 0 || !OnAxis(file->from))
            return;
        const auto length = static_cast<double>(*file->to - file->from);
        const auto at = [&](uint64_t offset) {
            const double share =
                static_cast<double>(offset) / static_cast<double>(file->file->size);
            return static_cast<double>(file->from) + std::min(1.0, share) * length;
        };
        spans.push_back({at(*finding.offset), at(*finding.offset + finding.length), "damage", "",
                         finding.text + " in " + PrintablePath(finding.path), lane});
    }

    void AddLogCharts(std::vector<TimeChart>& charts) const {
        constexpr const char* kStyles[] = {"one", "two", "three", "four"};
        for (const ReportChart& wanted : kReportCharts) {
            TimeChart chart{wanted.title, wanted.note, wanted.unit, {}, {}, CrashSpans()};
            for (const auto& [name, value] : wanted.curves) {
                if (name == nullptr) break;
                chart.curves.push_back({kStyles[chart.curves.size()], name, Points(value)});
            }
            charts.push_back(std::move(chart));
        }
        charts.push_back(EventChart());
    }

    // Returns one point for each report, with a gap where reports are missing.
    std::vector<std::pair<double, double>> Points(ReportChart::Value value) const {
        std::vector<std::pair<double, double>> points;
        UtcTime before = 0;
        for (const RateReport& report : log->reports) {
            if (!report.time || !OnAxis(*report.time)) continue;
            const auto time = static_cast<double>(*report.time);
            if (*report.time - before > 2 * kReportPeriod) points.emplace_back(time, -1);
            before = *report.time;
            points.emplace_back(time, value(report));
        }
        return points;
    }

    TimeChart EventChart() const {
        using Kind = LogEvent::Kind;
        static const struct {
            const char* lane;
            std::vector<Kind> kinds;
        } kLanes[] = {{"daemon", {Kind::kStart, Kind::kEnd, Kind::kRestart}},
                      {"modem", {Kind::kNotification}},
                      {"drops", {Kind::kDrop}},
                      {"recycled", {Kind::kRecycled}},
                      {"deleted", {Kind::kDeleted}}};
        TimeChart chart{
            "Events in the Android log",
            "Starts, ends and restarts of the daemon; notifications from the modem; bytes dropped; "
            "files recycled, or deleted or cut by another program.",
            "",
            {},
            {},
            {}};
        for (const auto& [lane, kinds] : kLanes) {
            for (const LogEvent& event : log->events) {
                if (!event.time || std::find(kinds.begin(), kinds.end(), event.kind) == kinds.end())
                    continue;
                const bool crash = event.kind == Kind::kNotification && event.text == "exception";
                AddSpan(chart.spans, *event.time, *event.time, crash ? "exception" : "event",
                        event.kind == Kind::kNotification ? std::to_string(event.number) : "",
                        At(event.time.value()) + " " + EventText(event), chart.lanes.size());
            }
            chart.lanes.emplace_back(lane);
        }
        return chart;
    }

    static std::string EventText(const LogEvent& event) {
        std::string text = Text(event.kind);
        if (event.kind == LogEvent::Kind::kNotification)
            text += " " + std::to_string(event.number) + ":";
        if (event.kind == LogEvent::Kind::kDrop) text += " of " + Plural(event.number, "byte");
        return event.text.empty() ? text : text + " " + PrintablePath(event.text);
    }

    const Model& model;
    const AndroidLog* const log;
    const std::vector<FileTime> files;
    const std::vector<Crash> crashes;
};

// --- sizes

// Describes the block sizes that number i of BlockFacts::histogram counts.
std::string BlockClass(size_t i) {
    const auto show = [](uint64_t bytes) {
        return bytes >= 1 << 20   ? std::to_string(bytes >> 20) + " MiB"
               : bytes >= 1 << 10 ? std::to_string(bytes >> 10) + " KiB"
                                  : std::to_string(bytes);
    };
    if (i == 0) return "0";
    return show(uint64_t{1} << (i - 1)) + " to < " + show(uint64_t{1} << i);
}

BarChart SizeByFolder(const Model& model) {
    constexpr size_t kMost = 30;
    BarChart chart{"Size by folder", "", {}, 0, ""};
    if (model.budget) {
        chart.limit = static_cast<double>(*model.budget);
        chart.limit_text = "the budget, " + ShowBytes(*model.budget) +
                           ": when a new file would begin above it, the oldest go";
    } else {
        chart.note =
            "The budget of the tree is not known: there is no configuration beside it, and no "
            "Android log tells it.";
    }
    chart.bars.push_back(
        {"all", static_cast<double>(model.totals.size), ShowBytes(model.totals.size)});
    std::vector<const CaptureFacts*> captures;
    for (const Phone& phone : model.phones) {
        for (const CaptureFacts& capture : phone.captures) {
            if (!capture.copy) captures.push_back(&capture);
        }
    }
    uint64_t others = 0;
    for (size_t i = 0; i < captures.size(); ++i) {
        if (captures.size() > kMost && i + kMost < captures.size()) {
            others += captures[i]->size;
        } else {
            chart.bars.push_back({Name(*captures[i]), static_cast<double>(captures[i]->size),
                                  ShowBytes(captures[i]->size)});
        }
    }
    if (others != 0)
        chart.bars.insert(chart.bars.begin() + 1, {Plural(captures.size() - kMost, "older capture"),
                                                   static_cast<double>(others), ShowBytes(others)});
    return chart;
}

BarChart BlockSizes(const Model& model) {
    BarChart chart{"Block sizes",
                   "How many blocks have how many raw bytes. A block is what the writer took "
                   "from the ring at "
                   "once: this is no figure of load.",
                   {},
                   0,
                   ""};
    const auto& counts = model.totals.blocks.histogram;
    size_t first = counts.size(), last = 0;
    for (size_t i = 0; i < counts.size(); ++i) {
        if (counts[i] == 0) continue;
        first = std::min(first, i);
        last = i;
    }
    for (size_t i = first; i <= last && i < counts.size(); ++i)
        chart.bars.push_back(
            {BlockClass(i), static_cast<double>(counts[i]), Plural(counts[i], "block")});
    if (chart.bars.empty()) chart.note = "There are no blocks.";
    return chart;
}

}  // namespace

std::string CrashText(const Crash& crash) {
    const std::string what = "modem exception in " + Name(*crash.capture);
    if (!crash.from && !crash.to) return what + ", nothing tells when";
    if (!crash.to) return what + ", after " + ShowTime(*crash.from + crash.utc_offset);
    if (!crash.from) return what + ", before " + ShowTime(*crash.to + crash.utc_offset);
    if (crash.from == crash.to) return what + " at " + ShowTime(*crash.from + crash.utc_offset);
    return what + " between " + ShowTime(*crash.from + crash.utc_offset) + " and " +
           ShowTime(*crash.to + crash.utc_offset);
}

Charts ChartsOf(const Model& model) {
    const Timeline timeline(model);
    return {timeline.Notes(),
            timeline.axis,
            timeline.Draw(),
            timeline.LogIsLonger(),
            {SizeByFolder(model), BlockSizes(model)}};
}

}  // namespace muxz::page
