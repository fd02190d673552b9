#include "top.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string_view>
#include <utility>

#include "asker.h"
#include "connection.h"
#include "exit_status.h"
#include "log_source.h"
#include "log_tree.h"
#include "pace.h"
#include "picture.h"
#include "screen.h"
#include "status.h"

namespace quarnctl {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

void Print(const Picture& picture, bool json) {
    if (json) {
        puts(AsJson(picture).c_str());
        return;
    }
    for (const std::string& line : AsText(picture, 80)) puts(line.c_str());
}

// `is_whole`: the log has been read to its end, and nothing more is expected.
std::string LogTrouble(const LogSource& source, const Pace& pace, bool is_whole) {
    if (!source.why().empty()) return source.why();
    if (pace.HasLines()) return "";
    const std::string trouble = "the log has no line of the daemon";
    if (source.IsLogcat())
        return trouble + "; may this user read it? root and the shell of adb may";
    return is_whole ? trouble : "";
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
    Picture picture{pace, LogTrouble(source, pace, true), ReadLogTree(kLogTree),
                    ReadStorage(kLogTree), std::move(daemon)};
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
        const Picture picture{pace, LogTrouble(*source, pace, false), tree, ReadStorage(kLogTree),
                              asker.Look()};
        if (options.json || !screen.IsTerminal()) {
            if (!options.json && std::exchange(printed, true)) puts("");
            Print(picture, options.json);
        } else {
            screen.Draw(AsText(picture, screen.Width()));
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
