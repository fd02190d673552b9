#include "top.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "asker.h"
#include "calendar.h"
#include "connection.h"
#include "exit_status.h"
#include "json.h"
#include "log_source.h"
#include "log_tree.h"
#include "now.h"
#include "pace.h"
#include "screen.h"
#include "status.h"

namespace quarnctl {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

constexpr uint64_t kMb = uint64_t{1} << 20;
// Seconds without a report after which something is wrong.
constexpr int64_t kLateReport = 2 * tools::kReportPeriod + 4;

// All that one screen shows.
struct Picture {
    const Pace& pace;
    std::string log_trouble;  // the reason if the log cannot be read
    LogTree tree;
    Storage storage;
    Asker::View daemon;
    int64_t now = time(nullptr);  // UTC
};

// --- what the picture means ---

// Returns the seconds since `time`. Returns no value if there is no time, or if the clock was set
// back.
std::optional<int64_t> Age(const Picture& picture, std::optional<int64_t> time) {
    if (!time || *time > picture.now) return std::nullopt;
    return picture.now - *time;
}

std::optional<int64_t> ReportAge(const Picture& picture) {
    const tools::RateReport* const report = picture.pace.Report();
    return report == nullptr ? std::nullopt : Age(picture, report->time);
}

std::string Losses(const Pace& pace) {
    std::string text;
    if (const uint64_t stalls = pace.RecentStalls(); stalls != 0) {
        text = std::to_string(stalls) + (stalls == 1 ? " stall" : " stalls");
    }
    if (const uint64_t bytes = pace.RecentDrops(); bytes != 0) {
        text += (text.empty() ? "" : ", ") + std::to_string(bytes) + " bytes dropped";
    }
    return text;
}

std::string Verdict(const Picture& picture) {
    const Pace& pace = picture.pace;
    if (pace.FallsBehind()) return "falls behind: " + Losses(pace);
    if (picture.daemon.asked && picture.daemon.answers.empty())
        return "the daemon cannot be reached";
    if (pace.Report() == nullptr)
        return pace.has_ended() ? "the daemon has ended" : "no report yet";
    if (ReportAge(picture).value_or(0) > kLateReport) return "reports no more";
    return "keeps up";
}

std::optional<int32_t> Setting(const Picture& picture, std::string_view name) {
    for (const Answer& answer : picture.daemon.answers) {
        int32_t number = 0;
        if (answer.command->name == name && answer.value && ToNumber(*answer.value, number)) {
            return number;
        }
    }
    return std::nullopt;
}

// Returns true if the tree shows the file that is being written, or shows that there is none.
bool TreeShowsFile(const LogTree& tree) {
    return tree.readable && (tree.why.empty() || !tree.file.empty());
}

// Returns the file that is being written: from the tree, or else from the log.
const std::string& CurrentFile(const Picture& picture) {
    return TreeShowsFile(picture.tree) ? picture.tree.file : picture.pace.file();
}
std::string CurrentCapture(const Picture& picture) {
    const std::string& file = CurrentFile(picture);
    return file.substr(0, std::min(file.rfind('/'), file.size()));
}

// --- as text ---

// Fills up to `width` columns, on the side where there is no text.
std::string Left(std::string text, size_t width) {
    text.resize(std::max(text.size(), width), ' ');
    return text;
}
std::string Right(const std::string& text, size_t width) {
    return std::string(width - std::min(width, text.size()), ' ') + text;
}

// "12.3 MB"; a MB is 1,048,576 bytes.
std::string Size(uint64_t bytes) {
    constexpr uint64_t kMostMb = 10'000;
    const bool is_large = bytes >= kMostMb * kMb;
    const uint64_t tenths = bytes * 10 / (is_large ? kMb << 10 : kMb);
    return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) +
           (is_large ? " GB" : " MB");
}

// Returns the local time, with the day unless it is today.
std::string ShowTime(int64_t utc, int64_t now) {
    const auto local = [](int64_t time) {
        const auto seconds_of = static_cast<time_t>(time);
        tm parts = {};
        localtime_r(&seconds_of, &parts);
        return time + parts.tm_gmtoff;
    };
    const int64_t wall = local(utc);
    const std::string clock = tools::ShowClock(wall);
    return tools::DayOf(wall) == tools::DayOf(local(now)) ? clock
                                                          : tools::ShowDay(wall) + " " + clock;
}

using Faults = std::array<uint64_t, tools::kFaultNames.size()>;

// EAGAIN, the first one, means that the port had nothing to give.
uint64_t FaultCount(const Faults& faults) {
    uint64_t count = 0;
    for (size_t i = 1; i < faults.size(); ++i) count += faults[i];
    return count;
}

std::string FaultNames(const Faults& faults) {
    std::string text;
    for (size_t i = 1; i < faults.size(); ++i) {
        if (faults[i] == 0) continue;
        text += std::string(tools::kFaultNames[i]) + " " + std::to_string(faults[i]) + ", ";
    }
    if (faults[0] == 0) return text.substr(0, text.size() - std::min<size_t>(text.size(), 2));
    return text + "nothing to read " + std::to_string(faults[0]);
}

class Text {
  public:
    Text(const Picture& shown, size_t columns) : picture(shown), width(columns) {}

    std::vector<std::string> Lines() {
        Head();
        Rates();
        Row("capture", Inside(CurrentCapture(picture)));
        File();
        Tree();
        Row("free", !picture.storage.known
                        ? "unknown"
                        : Size(picture.storage.free_bytes) + " of " + Size(picture.storage.bytes));
        Daemon();
        for (std::string& line : lines) line = Printable(std::move(line));
        return std::move(lines);
    }

  private:
    void Row(const char* name, const std::string& text) {
        lines.push_back(Left(name, kNameWidth) + (text.empty() ? "none" : text));
    }

    void Head() {
        std::string head = ShowTime(picture.now, picture.now) + "  " + Verdict(picture);
        if (const auto age = ReportAge(picture)) {
            head += "; last report " + tools::ShowSpan(*age) + " ago";
        }
        lines.push_back(head);
        if (!picture.log_trouble.empty()) lines.push_back(picture.log_trouble);
        lines.emplace_back();
    }

    void Rates() {
        const Pace& pace = picture.pace;
        const tools::RateReport* const report = pace.Report();
        const Pace::Sums all = pace.WholeLog();
        const auto number = [](bool known, uint64_t value) {
            return known ? std::to_string(value) : "-";
        };
        const auto row = [&](const char* name, const std::string& recent, const std::string& whole,
                             const std::string& more = "") {
            const std::string line = Left(name, kNameWidth) + Right(recent, 10) + Right(whole, 16);
            lines.push_back(more.empty() ? line : line + "  " + more);
        };
        const auto rate = [&](const char* name, uint64_t recent, uint64_t sum) {
            row(name, number(report != nullptr, recent),
                number(all.reports != 0, all.reports == 0 ? 0 : sum / all.reports), "KB/s");
        };
        row("", "last 8 s", pace.since() ? "since " + ShowTime(*pace.since(), picture.now) : "all");
        rate("read rate", report == nullptr ? 0 : report->read, all.read);
        rate("write rate", report == nullptr ? 0 : report->written, all.written);
        row("stalls", std::to_string(pace.RecentStalls()), std::to_string(all.stalls));
        row("dropped bytes", std::to_string(pace.RecentDrops()), std::to_string(all.dropped));
        row("read faults",
            number(report != nullptr, report != nullptr ? FaultCount(report->faults) : 0),
            std::to_string(FaultCount(all.faults)), FaultNames(all.faults));
        row("poll faults", number(report != nullptr, report != nullptr ? report->poll_faults : 0),
            std::to_string(all.poll_faults));
        row("starts", "", std::to_string(pace.starts()),
            pace.started() ? "last " + ShowTime(*pace.started(), picture.now) : "");
        lines.emplace_back();
    }

    // Returns `path` without the log tree in front of it.
    static std::string Inside(const std::string& path) {
        const std::string root = std::string(kLogTree) + "/";
        return path.starts_with(root) ? path.substr(root.size()) : path;
    }

    void File() {
        const std::string& path = CurrentFile(picture);
        if (path.empty()) return Row("file", "");
        std::string text = path.substr(path.rfind('/') + 1);
        if (TreeShowsFile(picture.tree)) {
            text += ", " + Size(picture.tree.file_bytes);
            if (const auto limit = Setting(picture, "file_size")) text += Of(*limit);
            const int64_t age = picture.now - picture.tree.file_changed;
            if (age > kLateReport) text += ", written " + tools::ShowSpan(age) + " ago";
        }
        Row("file", text);
    }

    static std::string Of(int32_t mb) { return " of " + std::to_string(mb) + " MB"; }

    void Tree() {
        const LogTree& tree = picture.tree;
        const auto limit = Setting(picture, "recycle_size");
        if (!tree.readable) {
            Row("tree",
                "not readable: " + tree.why + (limit ? "; limit" + Of(*limit).substr(3) : ""));
            return;
        }
        std::string text = Size(tree.bytes);
        if (limit) {
            text += Of(*limit);
            if (*limit > 0) {
                const uint64_t limit_bytes = static_cast<uint64_t>(*limit) * kMb;
                text += " (" + std::to_string(tree.bytes * 100 / limit_bytes) + " %)";
            }
        }
        text += ", " + std::to_string(tree.files) + (tree.files == 1 ? " file" : " files");
        if (!tree.why.empty()) text += ", not all readable: " + tree.why;
        Row("tree", text);
    }

    void Daemon() {
        const Asker::View& daemon = picture.daemon;
        if (daemon.waits) Row("daemon", "busy: it has not answered yet");
        if (daemon.answers.empty()) {
            if (daemon.asked) Row("daemon", daemon.why);
            return;
        }
        std::string line;
        const char* name = "settings";
        const auto flush = [&] {
            Row(std::exchange(name, ""), line);
            line.clear();
        };
        for (const auto& [command, value] : daemon.answers) {
            const std::string known = value ? NameOf(*command, *value) : "";
            std::string item = std::string(command->name) + " " +
                               (!value          ? "error"
                                : known.empty() ? *value
                                                : known);
            if (value && *command->unit != '\0') item += std::string(" ") + command->unit;
            if (!line.empty() && kNameWidth + line.size() + 2 + item.size() > width) flush();
            line += (line.empty() ? "" : ", ") + item;
        }
        flush();
        for (const std::string& conflict : Conflicts(daemon.answers)) {
            lines.push_back("warning: " + conflict);
        }
    }

    static constexpr size_t kNameWidth = 15;
    const Picture& picture;
    const size_t width;
    std::vector<std::string> lines;
};

// --- as JSON ---

std::string Number(uint64_t value) { return std::to_string(value); }
std::string NumberOrNull(std::optional<int64_t> value) {
    return value ? std::to_string(*value) : "null";
}

std::string FaultsAsJson(const Faults& faults) {
    JsonObject object;
    for (size_t i = 0; i < faults.size(); ++i) object.Add(tools::kFaultNames[i], Number(faults[i]));
    return object.Text();
}

std::string ReportAsJson(const Picture& picture) {
    const tools::RateReport* const report = picture.pace.Report();
    if (report == nullptr) return "null";
    return JsonObject()
        .Add("age", NumberOrNull(ReportAge(picture)))
        .Add("read_rate", Number(report->read))
        .Add("write_rate", Number(report->written))
        .Add("read_faults", FaultsAsJson(report->faults))
        .Add("poll_faults", Number(report->poll_faults))
        .Text();
}

std::string LogAsJson(const Picture& picture) {
    const Pace& pace = picture.pace;
    const Pace::Sums all = pace.WholeLog();
    const auto average = [&](uint64_t sum) {
        return all.reports == 0 ? "null" : Number(sum / all.reports);
    };
    return JsonObject()
        .Add("error", picture.log_trouble.empty() ? "null" : JsonString(picture.log_trouble))
        .Add("age", NumberOrNull(Age(picture, pace.since())))
        .Add("starts", Number(pace.starts()))
        .Add("started", NumberOrNull(Age(picture, pace.started())))
        .Add("reports", Number(all.reports))
        .Add("read_rate", average(all.read))
        .Add("write_rate", average(all.written))
        .Add("stalls", Number(all.stalls))
        .Add("dropped", Number(all.dropped))
        .Add("read_faults", FaultsAsJson(all.faults))
        .Add("poll_faults", Number(all.poll_faults))
        .Text();
}

std::string FileAsJson(const Picture& picture) {
    const std::string& path = CurrentFile(picture);
    if (path.empty()) return "null";
    const LogTree& tree = picture.tree;
    return JsonObject()
        .Add("path", JsonString(path))
        .Add("bytes", TreeShowsFile(tree) ? Number(tree.file_bytes) : "null")
        .Add("age", TreeShowsFile(tree) ? NumberOrNull(Age(picture, tree.file_changed)) : "null")
        .Text();
}

std::string TreeAsJson(const Picture& picture) {
    const LogTree& tree = picture.tree;
    const auto limit = Setting(picture, "recycle_size");
    return JsonObject()
        .Add("path", JsonString(kLogTree))
        .Add("error", tree.why.empty() ? "null" : JsonString(tree.why))
        .Add("bytes", tree.readable ? Number(tree.bytes) : "null")
        .Add("files", tree.readable ? Number(tree.files) : "null")
        .Add("limit", limit ? Number(static_cast<uint64_t>(*limit) * kMb) : "null")
        .Text();
}

std::string Json(const Picture& picture) {
    const Pace& pace = picture.pace;
    const Asker::View& daemon = picture.daemon;
    const bool reached = !daemon.answers.empty();
    const std::string capture = CurrentCapture(picture);
    JsonObject storage;
    storage.Add("free", Number(picture.storage.free_bytes))
        .Add("bytes", Number(picture.storage.bytes));
    return JsonObject()
        .Add("time", JsonString(Now(true)))
        .Add("verdict", JsonString(Verdict(picture)))
        .Add("falls_behind", pace.FallsBehind() ? "true" : "false")
        .Add("stalls", Number(pace.RecentStalls()))
        .Add("dropped", Number(pace.RecentDrops()))
        .Add("report", ReportAsJson(picture))
        .Add("log", LogAsJson(picture))
        .Add("capture", capture.empty() ? "null" : JsonString(capture))
        .Add("file", FileAsJson(picture))
        .Add("tree", TreeAsJson(picture))
        .Add("storage", picture.storage.known ? storage.Text() : "null")
        .Add("error", reached || !daemon.asked ? "null" : JsonString(daemon.why))
        .Add("settings", reached ? AnswersAsJson(daemon.answers) : "null")
        .Add("warnings", ConflictsAsJson(daemon.answers))
        .Text();
}

void Print(const Picture& picture, bool json) {
    if (json) {
        puts(Json(picture).c_str());
        return;
    }
    for (const std::string& line : Text(picture, 80).Lines()) puts(line.c_str());
}

// --- gathering ---

std::string LogTrouble(const LogSource& source, const Pace& pace) {
    if (!source.why().empty()) return source.why();
    if (source.IsLogcat() && !pace.HasLines()) {
        return "the log has no line of the daemon; may this user read it? root and the shell of "
               "adb may";
    }
    return "";
}

int Once(const TopOptions& options) {
    Asker::View daemon;
    Client client(options.timeout);
    if (const ExitStatus status = AskAll(client, daemon.answers, daemon.why); status != kOk) {
        return Complain(status, daemon.why);
    }
    daemon.asked = true;
    constexpr seconds kPatience{30};
    const Deadline deadline(options.timeout.count() < 0 ? kPatience : options.timeout);
    LogSource source(options.log, false);
    Pace pace;
    while (!source.HasEnded() && WaitReadable(source.ReadyFd(), deadline)) {
        source.Read([&](std::string_view line) { pace.Take(line); });
    }
    Picture picture{pace, LogTrouble(source, pace), ReadLogTree(kLogTree), ReadStorage(kLogTree),
                    std::move(daemon)};
    Print(picture, options.json);
    // Without the log nobody knows whether the daemon keeps up.
    if (!picture.log_trouble.empty()) return Complain(kUnreachable, picture.log_trouble);
    return pace.FallsBehind() ? kFallsBehind : kOk;
}

// Shows until a signal ends it, or until standard output cannot be written.
class Show {
  public:
    explicit Show(const TopOptions& top_options) : options(top_options) {}

    // Returns the signal, or 0.
    int Run() {
        int signal = Wait(Clock::now() + kMostStart, true);
        while (signal == 0 && ferror(stdout) == 0) {
            const Clock::time_point next = Clock::now() + options.interval;
            ShowOnce();
            signal = Wait(next, false);
        }
        return signal;
    }

  private:
    // The first picture waits this long for the daemon's answers and for the lines that the log
    // already has: until no line comes for kQuiet.
    static constexpr seconds kMostStart{3};
    static constexpr milliseconds kQuiet{300};
    // Time between two starts of logcat, if it ends.
    static constexpr seconds kLogcatPause{8};

    // Reads the log until `end`, or until the terminal changes. With `first`, also returns as
    // kMostStart describes. Returns the signal that ends the process, or 0.
    int Wait(Clock::time_point end, bool first) {
        Clock::time_point quiet_since = Clock::now();
        while (true) {
            const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
            if (left.count() <= 0) break;
            if (first && asker.Look().asked && Clock::now() - quiet_since >= kQuiet) break;
            const auto patience = first ? std::min(left, kQuiet / 4) : left;
            std::array<pollfd, 2> ready = {
                {{screen.SignalFd(), POLLIN, 0}, {source->ReadyFd(), POLLIN, 0}}};
            poll(ready.data(), ready.size(),
                 static_cast<int>(std::min<int64_t>(patience.count(), INT32_MAX)));
            if (ready[0].revents != 0) return screen.TakeSignals();
            if (ready[1].revents != 0 && ReadLog()) quiet_since = Clock::now();
        }
        if (source->HasEnded() && source->IsLogcat() && Clock::now() - opened >= kLogcatPause) {
            pace = Pace();  // logcat prints the log from its beginning
            source.emplace(options.log, true);
            opened = Clock::now();
        }
        ReadLog();
        return 0;
    }

    // Returns true if a line came.
    bool ReadLog() {
        bool came = false;
        source->Read([&](std::string_view line) {
            pace.Take(line);
            came = true;
        });
        if (pace.TakeSettingsChanged()) asker.AskAgain();
        return came;
    }

    void ShowOnce() {
        // Reading a large tree costs time: rest 20 times as long.
        constexpr int kRest = 20;
        if (const auto now = Clock::now(); now >= next_tree) {
            tree = ReadLogTree(kLogTree);
            next_tree = now + (Clock::now() - now) * kRest;
        }
        const Picture picture{pace, LogTrouble(*source, pace), tree, ReadStorage(kLogTree),
                              asker.Look()};
        if (options.json || !screen.IsTerminal()) {
            if (!options.json && std::exchange(printed, true)) puts("");
            Print(picture, options.json);
        } else {
            screen.Draw(Text(picture, screen.Width()).Lines());
        }
    }

    const TopOptions& options;
    Pace pace;
    // Constructed before `asker` starts a thread, because it forks.
    std::optional<LogSource> source{std::in_place, options.log, true};
    Clock::time_point opened = Clock::now();
    Asker asker;
    LogTree tree;
    Clock::time_point next_tree{};
    bool printed = false;
    Screen screen{!options.json};
};

}  // namespace

int Top(const TopOptions& options) {
    if (options.once) return Once(options);
    const int ending = Show(options).Run();
    if (ending == 0) return kOk;
    // The parent process sees that the signal ended this process.
    signal(ending, SIG_DFL);
    raise(ending);
    return kOk;
}

}  // namespace quarnctl
