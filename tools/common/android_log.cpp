#include "android_log.h"

#include <algorithm>
#include <cstdlib>
#include <initializer_list>

#include "calendar.h"

namespace tools {

namespace {

constexpr std::string_view kTag = "QUARN";

// Parses a line from left to right. `rest` is what has not been parsed yet.
class Cursor {
  public:
    explicit Cursor(std::string_view line) : rest(line) {}

    std::string_view Word() {
        Skip(' ');
        const size_t end = std::min(rest.find(' '), rest.size());
        const std::string_view word = rest.substr(0, end);
        rest.remove_prefix(end);
        return word;
    }
    void Skip(char c) { rest.remove_prefix(std::min(rest.find_first_not_of(c), rest.size())); }
    bool Take(std::string_view text) {
        if (!rest.starts_with(text)) return false;
        rest.remove_prefix(text.size());
        return true;
    }
    std::string_view rest;
};

struct Line {
    std::optional<int64_t> time;
    char priority;
    std::string_view message;
};

bool IsPriority(std::string_view text) {
    return text.size() == 1 && std::string_view("VDIWEF").find(text[0]) != std::string_view::npos;
}

// Parses "11-23" in the given year.
std::optional<int64_t> DayOfYear(std::string_view date, int64_t year) {
    if (date.size() != 5 || date[2] != '-') return std::nullopt;
    const auto month = ParseDigits(date.substr(0, 2)), day = ParseDigits(date.substr(3));
    if (!month || !day) return std::nullopt;
    return WallDay(static_cast<int>(year), static_cast<int>(*month), static_cast<int>(*day));
}

// Parses "2026-11-23" or "11-23". Without a year, chooses the year that brings the date closest to
// `near_wall`.
std::optional<int64_t> Day(std::string_view date, int64_t near_wall) {
    if (date.size() == 10 && date[4] == '-') {
        const auto year = ParseDigits(date.substr(0, 4));
        return year ? DayOfYear(date.substr(5), *year) : std::nullopt;
    }
    const int64_t this_year = ParseDigits(ShowDay(near_wall).substr(0, 4)).value_or(1970);
    std::optional<int64_t> best;
    for (int64_t year = this_year - 1; year <= this_year + 1; ++year) {
        const auto day = DayOfYear(date, year);
        if (day && (!best || std::abs(*day - near_wall) < std::abs(*best - near_wall))) best = day;
    }
    return best;
}

// Parses the time at the beginning of a line. Returns no value and parses nothing if there is none.
std::optional<int64_t> TakeTime(Cursor& line, const LogClock& clock) {
    Cursor ahead = line;
    const std::string_view first = ahead.Word();
    const auto whole = [](std::string_view text) { return text.substr(0, text.find('.')); };
    if (first.find('.') != std::string_view::npos) {  // the format epoch: seconds with a fraction
        const auto utc = ParseDigits(whole(first));
        // What a phone's clock can show: to the year 9999.
        if (!utc || *utc > *WallDay(9999, 12, 31)) return std::nullopt;
        line = ahead;
        return *utc;
    }
    const auto day = Day(first, clock.near + clock.utc_offset);
    const auto time = ParseClock(whole(ahead.Word()));
    if (!day || !time) return std::nullopt;
    line = ahead;
    int64_t offset = clock.utc_offset;
    const std::string_view zone = ahead.Word();
    if (zone.size() == 5 && (zone[0] == '+' || zone[0] == '-')) {
        const auto hours = ParseDigits(zone.substr(1, 2)), minutes = ParseDigits(zone.substr(3));
        if (hours && minutes) {
            offset = (*hours * 60 + *minutes) * (zone[0] == '-' ? -60 : 60);
            line = ahead;
        }
    }
    return *day + *time - offset;
}

// Parses a line. Returns no value if the line has no priority or another tag than the daemon's.
std::optional<Line> ParseLine(std::string_view text, const LogClock& clock) {
    Cursor line(text);
    if (line.Take(kTag)) {  // "QUARN I 11-23 06:48:11 123 124 message": standard error
        const std::string_view priority = line.Word();
        if (!IsPriority(priority)) return std::nullopt;
        const auto time = TakeTime(line, clock);
        if (!time || !ParseDigits(line.Word()) || !ParseDigits(line.Word())) return std::nullopt;
        line.Take(" ");
        return Line{time, priority[0], line.rest};
    }
    const auto time = TakeTime(line, clock);
    line.Skip(' ');
    if (line.rest.size() > 1 && line.rest[1] == '/') {  // "I/QUARN   (  123): message"
        const std::string_view priority = line.rest.substr(0, 1);
        line.rest.remove_prefix(2);
        if (!IsPriority(priority) || !line.Take(kTag)) return std::nullopt;
        line.Skip(' ');
        if (!line.Take("(")) return std::nullopt;
        const size_t end = line.rest.find("): ");
        if (end == std::string_view::npos) return std::nullopt;
        return Line{time, priority[0], line.rest.substr(end + 3)};
    }
    // "  123  124 I QUARN   : message". Some logs have a user name in front.
    for (int words = 0; words < 4; ++words) {
        const std::string_view priority = line.Word();
        if (!IsPriority(priority)) continue;
        line.Skip(' ');
        if (!line.Take(kTag)) return std::nullopt;
        line.Skip(' ');
        if (!line.Take(": ")) return std::nullopt;
        return Line{time, priority[0], line.rest};
    }
    return std::nullopt;
}

// Returns true if `message` matches `pattern`. In the pattern, each '#' matches a number and a '*'
// at the end matches any rest. Stores the numbers in `numbers`, in order, and the rest in `rest`.
bool Matches(std::string_view message, std::string_view pattern,
             std::initializer_list<uint64_t*> numbers, std::string_view* rest = nullptr) {
    const auto* number = numbers.begin();
    for (const char wanted : pattern) {
        if (wanted == '*') {
            if (rest != nullptr) *rest = message;
            return true;
        }
        if (wanted == '#') {
            const size_t end = std::min(message.find_first_not_of("0123456789"), message.size());
            const auto value = ParseDigits(message.substr(0, end));
            if (!value) return false;
            if (number != numbers.end()) **number++ = static_cast<uint64_t>(*value);
            message.remove_prefix(end);
        } else {
            if (message.empty() || message[0] != wanted) return false;
            message.remove_prefix(1);
        }
    }
    return message.empty();
}

const char* NotificationText(uint64_t code) {
    constexpr std::array<const char*, 10> kTexts = {
        "unknown",         "log start", "log stop", "log reopen",         "log close",
        "log flush close", "exception", "log end",  "query storage mode", "modem information"};
    return code < kTexts.size() ? kTexts[code] : kTexts[0];
}

constexpr struct {
    const char* pattern;
    LogEvent::Kind kind;
} kEvents[] = {
    {"start init quarn", LogEvent::Kind::kStart},
    {"stop all handler done", LogEvent::Kind::kEnd},
    {"event_detect_handle: restart quarn", LogEvent::Kind::kRestart},
    {"notify_handler: ntfy_code=#", LogEvent::Kind::kNotification},
    {"write_handler: drop # bytes*", LogEvent::Kind::kDrop},
    {"quarn: drop # bytes*", LogEvent::Kind::kDrop},
    {"file_io: open log_file=*", LogEvent::Kind::kOpened},
    {"LogFileRecycler: remove file *", LogEvent::Kind::kRecycled},
    {"LogFileRecycler: remove folder *", LogEvent::Kind::kRecycled},
};

// A report has up to five messages. The first one has the rates.
bool TakeReport(const Line& line, AndroidLog& log) {
    RateReport fresh;
    fresh.time = line.time;
    if (Matches(line.message, "read rate: # KB/s, write rate: # KB/s",
                {&fresh.read, &fresh.written})) {
        log.reports.push_back(fresh);
        return true;
    }
    if (log.reports.empty()) return false;
    RateReport& last = log.reports.back();
    uint64_t fails;
    auto& faults = last.faults;
    return Matches(line.message, "log buffer stall count: #", {&last.stalls}) ||
           Matches(line.message, "tot_read_cnt: # (*", {&last.reads}) ||
           Matches(line.message,
                   "fail_read_cnt: # (eagain=#, eintr=#, enodev=#, ebadf=#, eother=#)",
                   {&fails, faults.data(), &faults[1], &faults[2], &faults[3], &faults[4]}) ||
           Matches(line.message, "tot_poll_cnt: # (success=#, timeout=#, fail=#)",
                   {&fails, &fails, &fails, &last.poll_faults});
}

bool TakeBudget(const Line& line, AndroidLog& log) {
    constexpr int kBytesPerMbShift = 20;
    uint64_t size, budget;
    if (!Matches(line.message,
                 "LogFileRecycler: total log file size=#MB, skip recycle (recycle=#MB*",
                 {&size, &budget}) &&
        !Matches(line.message, "LogFileRecycler: total log file size=#MB, do recycle (recycle=#MB*",
                 {&size, &budget}))
        return false;
    log.budget = budget << kBytesPerMbShift;
    return true;
}

// `runs`: the daemon has started and not ended, according to the log.
void TakeEvent(const Line& line, AndroidLog& log, bool& runs) {
    for (const auto& [pattern, kind] : kEvents) {
        LogEvent event{kind, line.time, 0, ""};
        std::string_view rest;
        if (!Matches(line.message, pattern, {&event.number}, &rest)) continue;
        event.text = rest;
        switch (kind) {
            case LogEvent::Kind::kStart:
                event.text = !runs ? "" : "the one before did not end in order";
                runs = true;
                break;
            case LogEvent::Kind::kEnd:
                runs = false;
                break;
            case LogEvent::Kind::kNotification:
                event.text = NotificationText(event.number);
                break;
            case LogEvent::Kind::kOpened:
                event.text = event.text.substr(0, event.text.rfind(" (fd="));
                break;
            default:
                break;
        }
        log.events.push_back(std::move(event));
        return;
    }
    // "file_io: log_file=PATH was deleted, 12 bytes went with it", or "was cut"
    constexpr std::string_view kFile = "file_io: log_file=";
    if (line.message.starts_with(kFile) && line.message.ends_with(" bytes went with it")) {
        const std::string_view what = line.message.substr(kFile.size());
        log.events.push_back({LogEvent::Kind::kDeleted, line.time, 0, std::string(what)});
    }
}

}  // namespace

const char* Text(LogEvent::Kind kind) {
    switch (kind) {
        case LogEvent::Kind::kStart:
            return "start";
        case LogEvent::Kind::kEnd:
            return "end";
        case LogEvent::Kind::kRestart:
            return "restart asked for";
        case LogEvent::Kind::kNotification:
            return "notification";
        case LogEvent::Kind::kDrop:
            return "drop";
        case LogEvent::Kind::kOpened:
            return "file opened";
        case LogEvent::Kind::kRecycled:
            return "recycled";
        case LogEvent::Kind::kDeleted:
            return "deleted or cut";
    }
    return "";
}

std::optional<std::string_view> AndroidLogReader::Take(std::string_view text) {
    while (!text.empty() && (text.back() == '\r' || text.back() == '\n')) text.remove_suffix(1);
    const auto line = ParseLine(text, clock);
    if (!line) return std::nullopt;
    ++log.lines;
    if (line->priority == 'W') ++log.warnings;
    if (line->priority == 'E' || line->priority == 'F') ++log.errors;
    if (line->time) {
        log.from = std::min(log.from.value_or(*line->time), *line->time);
        log.to = std::max(log.to.value_or(*line->time), *line->time);
    } else {
        ++log.untimed;
    }
    if (!TakeReport(*line, log) && !TakeBudget(*line, log)) TakeEvent(*line, log, runs);
    return line->message;
}

AndroidLog ReadAndroidLog(std::istream& text, const LogClock& clock) {
    AndroidLogReader reader(clock);
    for (std::string line; std::getline(text, line);) reader.Take(line);
    return reader.log;
}

}  // namespace tools
