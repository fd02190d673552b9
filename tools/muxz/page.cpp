#include "tools/muxz/page.h"

#include <array>
#include <iterator>
#include <map>

#include "tools/muxz/chart.h"
#include "tools/muxz/messages.h"
#include "tools/muxz/page_charts.h"
#include "tools/muxz/page_frame.h"
#include "tools/muxz/page_html.h"
#include "tools/muxz/time_argument.h"

namespace muxz {

namespace page {

namespace {

class Page {
  public:
    explicit Page(const Model& shown)
        : model(shown),
          log(shown.android_log ? &*shown.android_log : nullptr),
          charts(ChartsOf(shown)) {}

    std::string Html() const {
        std::string html =
            "<!DOCTYPE html>\n<html lang='en'><head><meta charset='utf-8'>"
            "<meta name='viewport' content='width=device-width, initial-scale=1'>"
            "<link rel='icon' href='data:,'>"
            "<title>Modem log report</title>\n<style>";
        html += kPageStyle;
        html += "</style></head><body>\n";
        html += kPageDefs;
        html += Top() + Findings() + Heading("Over time") + Paragraph(charts.notes);
        for (const TimeChart& chart : charts.over_time) html += Draw(chart, charts.axis);
        html += LogNotes() + Heading("Sizes");
        for (const BarChart& chart : charts.sizes) html += Draw(chart);
        html += Heading("Captures") + CaptureTable() + Heading("Files") + FileTable() +
                Heading("The phone") + PhoneTables() + Foot();
        return html + "<script>" + kPageScript + "</script>\n</body></html>\n";
    }

  private:
    // --- text around them

    std::string Top() const {
        const Totals& totals = model.totals;
        const int status = model.Status();
        std::string html = "<header><h1>Modem log report</h1>\n<p class='verdict" +
                           std::string(status == 0 ? "" : " bad") +
                           "' data-key='status' data-value='" + std::to_string(status) + "'><b>" +
                           (status == 0   ? "good"
                            : status == 1 ? "faults"
                                          : "unreadable") +
                           "</b> <span>" + Escaped(model.Verdict()) + "</span></p></header>\n";
        double seconds = 0, raw = 0;
        for (const FileTime& file : FileTimes(model)) {
            if (!file.to) continue;
            seconds += static_cast<double>(*file.to - file.from);
            raw += static_cast<double>(file.file->blocks.raw);
        }
        struct Tile {
            const char* name;
            Value value;
            bool bad = false;
        };
        const Tile tiles[] = {
            {"captures", Count("totals.captures", totals.captures)},
            {"files", Count("totals.files", totals.files)},
            {"raw", Bytes("totals.blocks.raw", totals.blocks.raw)},
            {"on storage", Bytes("totals.size", totals.size)},
            {"compression",
             Shown(ShowRatio(totals.blocks).empty() ? "none" : ShowRatio(totals.blocks) + " to 1")},
            {"recorded", Shown(ShowSpan(static_cast<int64_t>(seconds)))},
            {"mean raw rate", Shown(seconds > 0 ? ShowRate(raw, seconds) : "not known")},
            {"exceptions", Count("totals.exceptions", totals.exceptions), totals.exceptions != 0},
            {"faults", Count("totals.faults", totals.faults), totals.faults != 0},
            {"holes", Count("totals.holes", totals.holes), totals.holes != 0},
            {"damaged", Bytes("totals.damaged_bytes", totals.damaged_bytes),
             totals.damaged_bytes != 0},
            {"raw bytes missing", MissingRaw(), totals.raw_missing != 0},
        };
        html += "<dl class='tiles'>";
        for (const Tile& tile : tiles) {
            html += std::string("<div") + (tile.bad ? " class='bad'" : "") + "><dt>" + tile.name +
                    "</dt><dd" + Attributes(tile.value) + ">" + Escaped(tile.value.shown) +
                    "</dd></div>";
        }
        return html + "</dl>\n";
    }

    Value MissingRaw() const {
        Value value = Bytes("totals.raw_missing", model.totals.raw_missing);
        if (model.totals.raw_estimated) value.shown = "about " + value.shown;
        return value;
    }

    std::string Findings() const {
        std::string html = Heading("What was found");
        html += "<ul class='findings'>";
        const auto item = [&html](bool bad, const char* tag, const std::string& text) {
            html += std::string("<li><span class='tag") + (bad ? " bad" : "") + "'>" + tag +
                    "</span>" + text + "</li>\n";
        };
        for (const Crash& crash : Crashes(model, log))
            item(true, "exception", Escaped(CrashText(crash)));
        using Kind = Finding::Kind;
        for (const Kind kind : {Kind::kUnreadable, Kind::kFault, Kind::kNote}) {
            const char* const tag = kind == Kind::kUnreadable ? "unreadable"
                                    : kind == Kind::kFault    ? "fault"
                                                              : "note";
            for (const Finding& finding : model.findings) {
                if (finding.kind != kind) continue;
                std::string text = Escaped(finding.text) + " <span class='soft'>" +
                                   Escaped(PrintablePath(finding.path));
                if (finding.offset) text += ", offset " + std::to_string(*finding.offset);
                item(kind != Kind::kNote, tag, text + "</span>");
            }
        }
        if (html.ends_with("findings'>"))
            item(false, "nothing", "No exception, no fault, nothing missing.");
        return html + "</ul>\n";
    }

    std::string LogNotes() const {
        if (log == nullptr)
            return Paragraph(
                "No Android log was given. With it (muxz report --log FILE, the output of logcat "
                "-v threadtime -s QUARN) this page also shows read and write rate every 8 s, "
                "stalls, read faults, drops, restarts, notifications of the modem and recycled "
                "files.");
        std::string text = "The Android log has " + Plural(log->lines, "line") +
                           " of the daemon, " + Plural(log->reports.size(), "report") + ", " +
                           Plural(log->warnings, "warning") + " and " +
                           Plural(log->errors, "error") + ".";
        if (log->untimed != 0)
            text += " " + Plural(log->untimed, "line") +
                    " without a time could not be drawn: logcat -v threadtime tells it.";
        if (log->from) {
            const int32_t offset = charts.axis.utc_offset;
            text += " It goes from " + ShowTime(*log->from + offset) + " to " +
                    ShowTime(*log->to + offset) + ".";
            if (charts.log_is_longer) text += " What lies far from the captures is not drawn.";
        }
        uint64_t stalls = 0, dropped = 0;
        std::array<uint64_t, kFaultNames.size()> faults{};
        std::map<LogEvent::Kind, uint64_t> counts;
        for (const RateReport& report : log->reports) {
            stalls += report.stalls;
            for (size_t i = 0; i < faults.size(); ++i) faults[i] += report.faults[i];
        }
        for (const LogEvent& event : log->events) {
            ++counts[event.kind];
            if (event.kind == LogEvent::Kind::kDrop) dropped += event.number;
        }
        std::vector<Row> rows = {
            {{Shown("stalls")}, {Shown(std::to_string(stalls)), stalls != 0}},
            {{Shown("bytes dropped")}, {Shown(std::to_string(dropped)), dropped != 0}}};
        for (size_t i = 0; i < faults.size(); ++i)
            rows.push_back({{Shown(std::string("read faults, ") + kFaultNames[i])},
                            {Shown(std::to_string(faults[i])), i != 0 && faults[i] != 0}});
        for (const auto& [kind, count] : counts)
            rows.push_back({{Shown(Text(kind))}, {Shown(std::to_string(count))}});
        return Paragraph(text) +
               Table({{"in the whole Android log", false}, {"number", true}}, rows);
    }

    // --- tables

    template <typename Visit>
    void VisitCaptures(Visit visit) const {
        for (size_t p = 0; p < model.phones.size(); ++p) {
            for (size_t c = 0; c < model.phones[p].captures.size(); ++c)
                visit(model.phones[p].captures[c],
                      "phones." + std::to_string(p) + ".captures." + std::to_string(c) + ".");
        }
    }

    std::string CaptureTable() const {
        std::vector<Row> rows;
        VisitCaptures([&](const CaptureFacts& capture, const std::string& key) {
            const auto seconds = capture.Seconds();
            rows.push_back({
                {Shown(Name(capture))},
                {Shown(StateText(capture))},
                {Shown(capture.exception ? "EE" : ""), capture.exception.has_value()},
                {Shown(ShowOptionalTime(capture.start))},
                {Shown(ShowOptionalTime(capture.end))},
                {Shown(seconds ? ShowSpan(static_cast<int64_t>(*seconds)) : "")},
                {Shown(std::to_string(capture.files.size()))},
                {Bytes(key + "size", capture.size)},
                {Bytes(key + "blocks.raw", capture.blocks.raw)},
                {Shown(ShowRatio(capture.blocks))},
                {Shown(seconds ? ShowRate(static_cast<double>(capture.blocks.raw), *seconds) : "")},
                {Bytes(key + "damaged_bytes", capture.damaged_bytes), capture.damaged_bytes != 0},
                {Shown(capture.utc_offset ? ShowOffset(*capture.utc_offset) : "")},
                {Shown(PrintablePath(capture.path))},
            });
        });
        return Table({{"capture", false},
                      {"state", false},
                      {"", false},
                      {"start", false},
                      {"end", false},
                      {"duration", true},
                      {"files", true},
                      {"size", true},
                      {"raw", true},
                      {"ratio", true},
                      {"raw rate", true},
                      {"damaged", true},
                      {"UTC", false},
                      {"path", false}},
                     rows);
    }

    static std::string StateText(const CaptureFacts& capture) {
        using State = CaptureFacts::State;
        if (capture.copy) return "copy";
        switch (capture.state) {
            case State::kFinished:
                return "finished";
            case State::kUnfinished:
                return "unfinished";
            case State::kNewest:
                return "newest";
            case State::kBeingWritten:
                return "being written";
        }
        return "";
    }

    std::string FileTable() const {
        std::vector<Row> rows;
        VisitCaptures([&](const CaptureFacts& capture, const std::string& capture_key) {
            rows.push_back({{Shown(Name(capture) + (capture.copy ? ", a copy" : ""))}});
            for (size_t f = 0; f < capture.files.size(); ++f) {
                const FileFacts& file = capture.files[f];
                const std::string key = capture_key + "files." + std::to_string(f) + ".";
                const double seconds = file.opened && file.closed
                                           ? static_cast<double>(*file.closed - *file.opened)
                                           : 0;
                rows.push_back({
                    {Shown(file.index ? std::to_string(*file.index) : "")},
                    {Shown(ShowOptionalTime(file.opened))},
                    {Shown(ShowOptionalTime(file.closed))},
                    {Bytes(key + "size", file.size)},
                    {Bytes(key + "blocks.raw", file.blocks.raw)},
                    {Shown(ShowRatio(file.blocks))},
                    {Shown(ShowRate(static_cast<double>(file.blocks.raw), seconds))},
                    {Shown(ShowRate(static_cast<double>(file.blocks.packed), seconds))},
                    {Count(key + "blocks.blocks", file.blocks.blocks)},
                    {Shown(FileState(file)), file.damaged_bytes != 0 || !file.readable},
                    {Shown(PrintablePath(file.name))},
                });
            }
        });
        return Table({{"file", true},
                      {"opened", false},
                      {"closed", false},
                      {"size", true},
                      {"raw", true},
                      {"ratio", true},
                      {"raw rate", true},
                      {"packed rate", true},
                      {"blocks", true},
                      {"", false},
                      {"name", false}},
                     rows);
    }

    static std::string FileState(const FileFacts& file) {
        if (!file.readable) return "unreadable";
        if (file.damaged_bytes != 0) return ShowBytes(file.damaged_bytes) + " damaged";
        std::string text = file.exception ? "EE" : "";
        if (file.may_be_open) text += text.empty() ? "open" : ", open";
        return text;
    }

    std::string PhoneTables() const {
        std::string html;
        for (const Phone& phone : model.phones) {
            const CaptureFacts* newest = nullptr;
            for (const CaptureFacts& capture : phone.captures) {
                if (!capture.copy && !capture.custom().empty()) newest = &capture;
            }
            if (newest == nullptr) {
                html += Paragraph("The headers tell nothing of the phone.");
                continue;
            }
            std::vector<Row> rows = {{{Shown("in " + Name(*newest))}}};
            for (const CustomValue& value : newest->custom())
                rows.push_back({{Shown(CustomName(value.type))}, {Shown(Printable(value.value))}});
            for (const CustomChange& change : Changes(phone)) {
                rows.push_back({{Shown("changed with " + Name(phone.captures[change.capture]))}});
                rows.push_back({{Shown(CustomName(change.type))},
                                {Shown((change.before.empty() ? "none" : Printable(change.before)) +
                                       " → " + Printable(change.after))}});
            }
            html += Table({{"custom header", false}, {"", false}}, rows);
        }
        return html;
    }

    static std::string CustomName(uint8_t type) {
        switch (type) {
            case 0:
                return "tag";
            case 1:
                return "radio version";
            case 2:
                return "hardware id";
            default:
                return "type " + std::to_string(type);
        }
    }

    static std::string Foot() {
        return "<footer>" +
               Paragraph(
                   "Made by muxz report. MB are millions of bytes. muxz check --json tells the "
                   "same values to programs.") +
               "</footer>\n";
    }

    const Model& model;
    const AndroidLog* const log;
    const Charts charts;
};

}  // namespace

}  // namespace page

std::string ReportPage(const Model& model) { return page::Page(model).Html(); }

}  // namespace muxz
