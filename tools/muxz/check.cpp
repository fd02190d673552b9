// muxz check: shows on one screen whether the files are complete and intact, and when the modem
// crashed.
#include <algorithm>
#include <cstdio>
#include <span>
#include <string>
#include <vector>

#include "tools/muxz/commands.h"
#include "tools/muxz/json.h"
#include "tools/muxz/messages.h"
#include "tools/muxz/reading.h"

namespace muxz {

namespace {

constexpr size_t kMostRows = 12;  // of captures, and of findings, so that all fits on a screen

std::string TimeOr(std::optional<PhoneTime> time, const char* none) {
    return time ? ShowTime(*time) : none;
}

std::string NameOf(const CaptureFacts& capture) {
    if (capture.index) return "capture " + std::to_string(*capture.index);
    return "capture of " + TimeOr(capture.start, "an unknown time");
}

std::string Ratio(const char* format, double part, double of) {
    char text[32];
    snprintf(text, sizeof(text), format, part / of);
    return of > 0 ? text : "-";
}

// Returns the end of the capture without the year. Leaves out the date if it is that of the start.
std::string EndOf(const CaptureFacts& capture) {
    if (!capture.end) return "-";
    const std::string end = ShowTime(*capture.end);
    constexpr size_t kYear = 5, kDate = 11;  // characters
    const bool same_day =
        capture.start && ShowTime(*capture.start).substr(0, kDate) == end.substr(0, kDate);
    return end.substr(same_day ? kDate : kYear);
}

void PrintCapture(const CaptureFacts& capture) {
    const double seconds = capture.Seconds().value_or(0);
    const auto raw = static_cast<double>(capture.blocks.raw);
    printf("%7s  %-19s  %-14s  %8s %5zu %7s %7s %7s  %s%s\n",
           capture.index ? std::to_string(*capture.index).c_str() : "-",
           TimeOr(capture.start, "-").c_str(), EndOf(capture).c_str(),
           capture.Seconds() ? ShowDuration(static_cast<int64_t>(seconds)).c_str() : "-",
           capture.files.size(), Size(capture.blocks.raw, false).c_str(),
           Size(capture.size, false).c_str(),
           Ratio("%.3f", raw / 1e6, capture.CoveredSeconds().value_or(0)).c_str(),
           std::string(Text(capture.state)).c_str(), capture.exception ? " EE" : "");
}

void PrintCaptures(const Phone& phone) {
    std::vector<const CaptureFacts*> shown;
    for (const CaptureFacts& capture : phone.captures) {
        if (!capture.copy) shown.push_back(&capture);
    }
    printf("%7s  %-19s  %-14s  %8s %5s %7s %7s %7s  %s\n", "CAPTURE", "START", "END", "DURATION",
           "FILES", "RAW", "PACKED", "MB/s", "STATE");
    const size_t left_out = shown.size() > kMostRows ? shown.size() - kMostRows : 0;
    if (left_out != 0) printf("%7s  %zu older captures: muxz ls shows them\n", "...", left_out);
    for (const CaptureFacts* capture : std::span(shown).subspan(left_out)) PrintCapture(*capture);
}

void PrintExceptions(const Phone& phone) {
    for (const CaptureFacts& capture : phone.captures) {
        if (!capture.exception || capture.copy) continue;
        const ExceptionTime& when = *capture.exception;
        std::string text;
        if (when.exact) {
            text = "at " + (when.from ? ShowTime(*when.from) : ShowUtc(*when.utc)) +
                   ", as the modem told after it";
            if (!when.marked) text += " (no folder name here says EE)";
        } else {
            text = "between " + TimeOr(when.from, "an unknown time") + " and " +
                   TimeOr(when.to, "an unknown time");
        }
        printf("exception   %s: %s\n", NameOf(capture).c_str(), text.c_str());
        for (const UtcTime again : when.later) {
            printf("exception   %s: once more at %s\n", NameOf(capture).c_str(),
                   capture.utc_offset ? ShowTime(again + *capture.utc_offset).c_str()
                                      : ShowUtc(again).c_str());
        }
    }
}

const char* NameOf(uint8_t type) {
    return type == 1 ? "radio version" : type == 2 ? "hardware id" : "entry of another type";
}

void PrintCustom(const Phone& phone) {
    const auto first =
        std::find_if(phone.captures.begin(), phone.captures.end(),
                     [](const CaptureFacts& c) { return !c.copy && !c.custom().empty(); });
    if (first == phone.captures.end()) {
        puts("phone       no custom header");
        return;
    }
    std::string text;
    for (const auto& [type, value] : first->custom()) {
        if (type == 0) continue;
        text += (text.empty() ? "" : ", ") + (NameOf(type) + (" " + Printable(value)));
    }
    printf("phone       %s\n", text.empty() ? "custom header with its tag only" : text.c_str());
    const std::vector<CustomChange> changes = Changes(phone);
    const auto or_none = [](const std::string& value) {
        return value.empty() ? "none" : Printable(value);
    };
    for (const CustomChange& change : changes) {
        printf("changed     %s: %s %s, before %s\n", NameOf(phone.captures[change.capture]).c_str(),
               NameOf(change.type), or_none(change.after).c_str(), or_none(change.before).c_str());
    }
}

void PrintOffset(const Phone& phone) {
    if (!phone.utc_offset) {
        puts("UTC offset  unknown");
        return;
    }
    printf("UTC offset  %s%s\n", ShowOffset(*phone.utc_offset).c_str(),
           phone.utc_offset_estimated ? ", as the last changes of the files make likely" : "");
    const CaptureFacts* before = nullptr;
    for (const CaptureFacts& capture : phone.captures) {
        if (capture.copy || !capture.utc_offset) continue;
        if (before != nullptr && before->utc_offset != capture.utc_offset) {
            printf("changed     %s: %s, before %s\n", NameOf(capture).c_str(),
                   ShowOffset(*capture.utc_offset).c_str(),
                   ShowOffset(*before->utc_offset).c_str());
        }
        before = &capture;
    }
}

std::string ColourOf(Finding::Kind kind, const std::string& text) {
    return kind == Finding::Kind::kNote ? text : Coloured(Colour::kRed, text);
}

void PrintFindings(const Model& model, Finding::Kind kind, const char* word) {
    size_t count = 0;
    for (const Finding& finding : model.findings) {
        if (finding.kind != kind || ++count > kMostRows) continue;
        const std::string path = finding.path.empty() ? "" : PrintablePath(finding.path) + ": ";
        const std::string offset =
            finding.offset ? "offset " + std::to_string(*finding.offset) + ": " : "";
        char column[16];
        snprintf(column, sizeof(column), "%-10s", word);
        printf("%s  %s%s%s\n", ColourOf(kind, column).c_str(), path.c_str(), offset.c_str(),
               finding.text.c_str());
    }
    if (count > kMostRows)
        printf("%-10s  %zu more: muxz verify tells all\n", word, count - kMostRows);
}

void PrintTotals(const Totals& totals) {
    const std::string damage =
        totals.damaged_bytes == 0
            ? ""
            : ", " + std::to_string(totals.damaged_bytes) + " damaged (" + RawMissing(totals) + ")";
    printf("bytes       %s raw, %s packed%s\n", Size(totals.blocks.raw, false).c_str(),
           Size(totals.size, false).c_str(), damage.c_str());
    if (totals.power_on_logs != 0)
        printf("power-on    %s raw, the first minute of the daemon once more, counted apart\n",
               Size(totals.power_on_blocks.raw, false).c_str());
}

}  // namespace

int Check(const Selection& selection, bool quick, const Phones& phones, bool json) {
    Messages messages(true);
    const Model model = Read(selection,
                             {.depth = quick ? Depth::kLengths : Depth::kBlocks,
                              .phones = phones.value_or(PhoneChoice())},
                             messages);
    if (!AreWanted(model, phones, messages)) return messages.status;
    if (json) return PrintJson(model, "check");
    for (size_t i = 0; i < model.phones.size(); ++i) {
        const Phone& phone = model.phones[i];
        if (model.phones.size() > 1) printf("%sphone %zu\n", i == 0 ? "" : "\n", i + 1);
        if (phone.captures.empty()) continue;
        PrintCaptures(phone);
        if (!phone.last_changes_kept)
            puts(
                "ends        unknown where \"-\" stands: files were copied without their times, or "
                "the clock was set");
        PrintExceptions(phone);
        PrintCustom(phone);
        PrintOffset(phone);
    }
    if (model.totals.files + model.totals.power_on_logs != 0) PrintTotals(model.totals);
    PrintFindings(model, Finding::Kind::kUnreadable, "unreadable");
    PrintFindings(model, Finding::Kind::kFault, "fault");
    PrintFindings(model, Finding::Kind::kNote, "note");
    puts(
        Coloured(model.Status() == kFine ? Colour::kGreen : Colour::kRed, model.Verdict()).c_str());
    return model.Status();
}

}  // namespace muxz
