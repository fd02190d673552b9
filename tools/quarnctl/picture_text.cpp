#include <algorithm>
#include <utility>

#include "calendar.h"
#include "picture.h"
#include "screen.h"
#include "status.h"
#include "storage/log_names.h"

namespace quarnctl {

namespace {

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
        std::string text(quarn::log_names::LastComponent(path));
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

}  // namespace

std::vector<std::string> AsText(const Picture& picture, size_t columns) {
    return Text(picture, columns).Lines();
}

}  // namespace quarnctl
