#include "tools/muxz/stretch.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iostream>
#include <set>

namespace muxz {

namespace {

constexpr uint64_t kExceptionCode = 6;  // code of the modem's notification of an exception

// Returns the captures that are no copies. Each has its UTC offset, or else that of the closest
// capture before it, or else that of the closest one behind it, or else 0.
std::vector<std::pair<const CaptureFacts*, int32_t>> CapturesWithOffsets(const Phone& phone) {
    std::vector<std::pair<const CaptureFacts*, int32_t>> captures;
    std::optional<int32_t> known;
    for (const CaptureFacts& capture : phone.captures) {
        if (!known) known = capture.utc_offset;
    }
    for (const CaptureFacts& capture : phone.captures) {
        if (capture.utc_offset) known = capture.utc_offset;
        if (!capture.copy) captures.emplace_back(&capture, known.value_or(0));
    }
    return captures;
}

std::vector<Covered> CoveredBy(const Model& model, bool utc) {
    std::vector<Covered> covered;
    for (const FileTime& file : FileTimes(model))
        covered.push_back({file.from, file.to.value_or(file.from), utc ? 0 : file.utc_offset});
    return covered;
}

// The share of a file's raw bytes that was written before a certain time.
struct Share {
    double share;  // from 0 to 1
    int64_t sure;  // seconds by which the time may be wrong
};

// Interpolates between knots. A knot is a time at which the share is known. REQUIRES: there are at
// least two knots, ordered by time.
Share ShareBetween(const std::vector<std::pair<UtcTime, double>>& knots, UtcTime time) {
    const auto behind = std::find_if(knots.begin() + 1, knots.end() - 1,
                                     [time](const auto& knot) { return knot.first >= time; });
    const auto& [from, share_from] = *(behind - 1);
    const auto& [to, share_to] = *behind;
    const double way = static_cast<double>(time - from) / static_cast<double>(to - from);
    return {share_from + (share_to - share_from) * way, std::max(time - from, to - time)};
}

// Returns the knots of a file: its beginning and end, and the reports between them if the reports
// cover the whole file.
std::vector<std::pair<UtcTime, double>> Knots(const FileTime& file, const AndroidLog* log) {
    const UtcTime end = file.to.value();
    std::vector<std::pair<UtcTime, double>> ends = {{file.from, 0}, {end, 1}};
    if (log == nullptr) return ends;
    // A report has the rate since the report before it. If two reports lie further apart than this,
    // the rate between them is unknown, and no report of this file is used.
    constexpr int64_t kFurthest = 2 * kReportPeriod;
    std::vector<std::pair<UtcTime, double>> knots = {{file.from, 0}};
    double written = 0, rate = 0;
    for (const RateReport& report : log->reports) {
        const UtcTime before = knots.back().first;
        if (!report.time || *report.time <= before) continue;
        if (before == end || *report.time - before > kFurthest) break;
        rate = static_cast<double>(report.written);
        const UtcTime here = std::min(*report.time, end);
        written += rate * static_cast<double>(here - before);
        knots.emplace_back(here, written);
    }
    if (const UtcTime before = knots.back().first; before != end) {
        if (end - before > kFurthest) return ends;
        written += rate * static_cast<double>(end - before);
        knots.emplace_back(end, written);
    }
    if (!(written > 0)) return ends;
    for (auto& [time, share] : knots) share /= written;
    return knots;
}

// Sets the exact time of a crash, if the log has a notification of the exception between the two
// times that are known.
void Sharpen(Crash& crash, const AndroidLog& log) {
    if (!crash.from || !crash.to) return;
    for (const LogEvent& event : log.events) {
        if (event.kind == LogEvent::Kind::kNotification && event.number == kExceptionCode &&
            event.time && *event.time >= *crash.from && *event.time <= *crash.to) {
            crash.from = crash.to = event.time;
            return;
        }
    }
}

// Finds a time range. Each function returns false and sets `why` if that is not possible.
class StretchFinder {
  public:
    StretchFinder(const StretchOptions& from, std::vector<Covered> captures)
        : options(from), covered(std::move(captures)) {}

    bool Around() {
        UtcTime middle = 0;
        if (!Take(options.around, {}, middle)) return false;
        SetAround(middle, middle);
        return true;
    }

    // If the end has no date, it is the first such time after the beginning.
    bool Between() {
        if (!Take(options.from, {}, stretch.from)) return false;
        const auto from = options.from ? std::optional(stretch.from) : std::nullopt;
        return Take(options.to, from, stretch.to);
    }

    bool Exception(const std::vector<Crash>& crashes) {
        const auto count = static_cast<int64_t>(crashes.size());
        const int64_t number = options.exception_number.value_or(count);
        if (count == 0) return Fail("no capture is marked with an exception");
        if (number < 1 || number > count)
            return Fail("there is no exception " + std::to_string(number) + ", but " +
                        std::to_string(count));
        const Crash& crash = crashes[static_cast<size_t>(number - 1)];
        if (!crash.from || !crash.to)
            return Fail("nothing tells the time of exception " + std::to_string(number));
        const int32_t offset = options.utc ? 0 : crash.utc_offset;
        const std::string from = ShowTime(*crash.from + offset), to = ShowTime(*crash.to + offset);
        stretch.told.push_back("exception " + std::to_string(number) + " of " +
                               std::to_string(count) + ", " +
                               (from == to ? from : "between " + from + " and " + to));
        SetAround(*crash.from, *crash.to);
        return true;
    }

    Stretch stretch{INT64_MIN, INT64_MAX, {}};
    std::string why;

  private:
    bool Fail(std::string reason) {
        why = std::move(reason);
        return false;
    }

    void SetAround(UtcTime from, UtcTime to) {
        const int64_t half = options.span.value_or(kUsualSpan) / 2;
        stretch.from = from - half;
        stretch.to = to + half;
    }

    bool Take(const std::optional<TimeArgument>& time, std::optional<UtcTime> from, UtcTime& utc) {
        if (!time) return true;
        const ResolvedTime resolved = Resolve(*time, covered, from);
        if (!resolved.utc) return Fail(resolved.why);
        utc = *resolved.utc;
        if (!resolved.chosen.empty())
            stretch.told.push_back(ShowClock(time->seconds) + " is that of " + resolved.chosen);
        return true;
    }

    const StretchOptions& options;
    const std::vector<Covered> covered;
};

}  // namespace

std::vector<FileTime> FileTimes(const Model& model) {
    std::vector<FileTime> files;
    for (const Phone& phone : model.phones) {
        for (const auto& [capture, offset] : CapturesWithOffsets(phone)) {
            for (const FileFacts& file : capture->files) {
                if (!file.opened) continue;
                FileTime place{capture, &file, *file.opened - offset, std::nullopt, offset};
                if (file.closed && *file.closed >= *file.opened) place.to = *file.closed - offset;
                files.push_back(place);
            }
        }
    }
    return files;
}

std::vector<Crash> Crashes(const Model& model, const AndroidLog* log) {
    std::vector<Crash> crashes;
    for (const Phone& phone : model.phones) {
        for (const auto& [capture, offset] : CapturesWithOffsets(phone)) {
            if (!capture->exception) continue;
            const ExceptionTime& told = *capture->exception;
            Crash crash{capture, {}, {}, offset};
            if (told.from) crash.from = *told.from - offset;
            if (told.to) crash.to = *told.to - offset;
            if (told.exact && told.utc) crash.from = crash.to = told.utc;
            if (log != nullptr && crash.from != crash.to) Sharpen(crash, *log);
            crashes.push_back(crash);
        }
    }
    return crashes;
}

LogClock ClockOf(const Model& model) {
    LogClock clock{0, 0};
    for (const FileTime& file : FileTimes(model))
        clock = {std::max(clock.near, file.to.value_or(file.from)), file.utc_offset};
    return clock;
}

std::string StretchOptions::Wrong() const {
    if ((around ? 1 : 0) + (exception ? 1 : 0) + (from || to ? 1 : 0) > 1)
        return "give one of --from and --to, --around, --exception";
    if (span && !around && !exception) return "--span goes with --around or --exception";
    if (utc && !Any()) return "--utc goes with --from, --to, --around or --exception";
    return "";
}

std::optional<Stretch> FindStretch(const StretchOptions& options, const Model& model,
                                   const AndroidLog* log, std::string& why) {
    const std::vector<Covered> covered = CoveredBy(model, options.utc);
    if (covered.empty()) {
        why = "the names of the files tell no time";
        return std::nullopt;
    }
    StretchFinder finder(options, covered);
    const bool found = options.around      ? finder.Around()
                       : options.exception ? finder.Exception(Crashes(model, log))
                                           : finder.Between();
    why = finder.why;
    if (!found) return std::nullopt;
    if (finder.stretch.to < finder.stretch.from) {
        why = "it ends before it begins";
        return std::nullopt;
    }
    return finder.stretch;
}

std::vector<Part> FindParts(const Stretch& stretch, const Model& model, const AndroidLog* log) {
    std::vector<Part> parts;
    for (const FileTime& file : FileTimes(model)) {
        if (file.from > stretch.to || (file.to && *file.to < stretch.from)) continue;
        Part part{file, 0, 1, file.from, file.to.value_or(file.from), std::nullopt};
        if (file.to && *file.to > file.from) {
            const auto knots = Knots(file, log);
            part.sure = 1;  // times in names are whole seconds
            const auto cut = [&](UtcTime time, double& share, UtcTime& edge) {
                if (time <= file.from || time >= *file.to) return;
                const Share found = ShareBetween(knots, time);
                share = found.share;
                edge = time;
                part.sure = std::max(*part.sure, found.sure);
            };
            cut(stretch.from, part.first, part.from);
            cut(stretch.to, part.last, part.to);
        }
        parts.push_back(part);
    }
    return parts;
}

std::string Text(const Part& part, bool utc) {
    const int32_t offset = utc ? 0 : part.file.utc_offset;
    std::string text;
    if (part.file.capture->index)
        text += "capture " + std::to_string(*part.file.capture->index) + ", ";
    text += part.file.file->index ? "file " + std::to_string(*part.file.file->index)
                                  : part.file.file->name;
    text += ", " + ShowClock(part.from + offset);
    if (!part.file.to) return text + " to an end that nothing tells: all of it";
    text += " to " + ShowClock(part.to + offset);
    return part.sure ? text + ", ± " + ShowSpan(*part.sure) : text;
}

void Narrow(Listing& listing, const std::vector<Part>& parts) {
    std::set<std::string> kept;
    for (const Part& part : parts) kept.insert(part.file.file->path);
    for (FoundGroup& group : listing.groups) {
        const size_t before = group.files.size();
        std::erase_if(group.files,
                      [&](const FoundFile& file) { return !kept.contains(file.path); });
        if (group.files.size() != before) group.whole = false;
    }
    std::erase_if(listing.groups, [](const FoundGroup& group) { return group.files.empty(); });
    listing.history.clear();  // other captures are not missing, since they were not selected
}

bool Select(const StretchRequest& request, Selection& selection, Messages& messages) {
    const StretchOptions& options = request.options;
    if (!options.Any() && request.log_path.empty()) return true;
    selection.headers = Build(selection.paths, {});
    const Model& model = selection.headers;
    if (!request.log_path.empty()) {
        const bool is_input = request.log_path == "-";
        std::ifstream file;
        if (!is_input) file.open(request.log_path);
        std::istream& text = is_input ? std::cin : file;
        if (text) selection.log = ReadAndroidLog(text, ClockOf(model));
        if (!text.eof()) {
            messages.IoError(request.log_path, strerror(errno));
            return false;
        }
        if (selection.log->lines == 0) messages.Note(request.log_path, "no message of the daemon");
    }
    if (!options.Any()) return true;
    const AndroidLog* const log = selection.log ? &*selection.log : nullptr;
    std::string why;
    const auto stretch = FindStretch(options, model, log, why);
    if (stretch) {
        selection.parts = FindParts(*stretch, model, log);
        for (const std::string& told : stretch->told) messages.Note("", told);
        if (selection.parts.empty()) why = "no file holds this time";
    }
    for (const Part& part : selection.parts) messages.Note("", Text(part, options.utc));
    if (selection.parts.empty()) messages.IoError("", why);
    return !selection.parts.empty();
}

RawRange RangeOf(const Part& part, uint64_t raw_bytes) {
    RawRange range;
    const auto bytes = static_cast<double>(raw_bytes);
    if (part.first > 0) range.from = static_cast<uint64_t>(std::floor(part.first * bytes));
    if (part.last < 1) range.to = static_cast<uint64_t>(std::ceil(part.last * bytes));
    return range;
}

}  // namespace muxz
