// The unchanged daemon on the simulated phone, and what talks to it or observes it. Every wait has
// a time limit.
#pragma once

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <string_view>

#include "control/protocol.h"
#include "sim/console.h"
#include "tests/client.h"
#include "tests/daemon_process.h"
#include "tests/support.h"

namespace fs = std::filesystem;

namespace soak {

namespace protocol = quarn::protocol;

// The output of a run: faults at once, sums at the end, and a journal of everything that was done,
// for finding the cause of a fault. Thread-safe.
class Report {
  public:
    explicit Report(const std::string& journal_path) : journal(journal_path) {}

    void Fault(const std::string& text) {
        ++faults;
        Say("FAULT " + text);
    }
    void Say(const std::string& text) {
        Note(text);
        std::cout << text << std::endl;
    }
    void Note(const std::string& text) {
        const std::chrono::duration<double> now = std::chrono::steady_clock::now() - start;
        std::lock_guard lock(mutex);
        journal << now.count() << " " << text << std::endl;
    }
    void Add(const std::string& what, uint64_t count = 1) {
        std::lock_guard lock(mutex);
        sums[what] += count;
    }
    std::map<std::string, uint64_t> Sums() {
        std::lock_guard lock(mutex);
        return sums;
    }

    std::atomic<int> faults = 0;

  private:
    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    std::mutex mutex;
    std::ofstream journal;
    std::map<std::string, uint64_t> sums;
};

// Random numbers from a seed.
class Dice {
  public:
    explicit Dice(uint64_t seed) : random(seed) {}
    uint64_t Below(uint64_t sides) { return random() % sides; }
    bool OneIn(uint64_t sides) { return Below(sides) == 0; }

  private:
    std::mt19937_64 random;
};

inline const std::string kTree = "/data/vendor/radio/quarn";
inline const std::string kLogs = kTree + "/logs";
// The number of bytes that the daemon took from the modem. The file stays when the process ends.
// The next process goes on counting unless the file is removed.
inline constexpr const char* kDelivered = "/data/modem/delivered";
inline uint64_t Delivered() { return strtoull(test::ReadFile(kDelivered).c_str(), nullptr, 10); }

// The time limit for a reply. An exchange with the modem may take 5 s, and a notification some
// seconds. The daemon may have to handle several of each before a request.
inline constexpr std::chrono::seconds kReplyPatience(90);

// Counts the entries of a folder of /proc, without those of the power-on log: the links to its
// file, and its thread.
inline size_t Entries(const std::string& folder) {
    std::error_code gone;
    size_t count = 0;
    for (const auto& entry : fs::directory_iterator(folder, gone)) {
        const std::string what = entry.is_directory(gone)
                                     ? test::ReadFile(entry.path() / "comm")
                                     : fs::read_symlink(entry.path(), gone).native();
        if (what.find("power_on") == std::string::npos) ++count;
    }
    return count;
}

inline long StatusValue(const std::string& status, const std::string& key) {
    const size_t at = status.find(key);
    return at == std::string::npos ? 0 : atol(status.c_str() + at + key.size());
}

// What a process holds, without the power-on log, which lasts for a minute.
struct Holdings {
    size_t descriptors;
    size_t threads;
    long rss_kb;
    long peak_kb;
};

class Phone : public test::Daemon {
  public:
    Phone(Report& out, const std::string& name, const std::string& scenario,
          const Environment& environment)
        : Daemon(name, scenario, environment), report(out) {}

    // Waits until the daemon is up. Returns false if it ends first, or takes longer than 60 s.
    bool CameUp() {
        const bool up = test::WaitUntil(
            [this] { return Ended() || Log().find("start all handler done") != std::string::npos; },
            std::chrono::seconds(60));
        if (up && !Ended()) return true;
        report.Fault("the daemon does not come up\n" + Stacks());
        return false;
    }

    // Returns the answer to a line for the phone's console, or "" if there is no answer.
    std::string Console(const std::string& line) {
        const test::Client console("/data/modem/console.socket",
                                   ANDROID_SOCKET_NAMESPACE_FILESYSTEM, kReplyPatience);
        if (!console.Send(line + "\n")) return "";
        std::string text, piece;
        do {
            piece = console.ReceiveSome(4096);
            text += piece;
        } while (!piece.empty() && piece != test::Client::kLate &&
                 ("\n" + text).find("\n= ") == std::string::npos);
        if (piece == test::Client::kLate) {
            report.Fault("the console hangs at " + line + "\n" + Stacks());
        }
        if (text.starts_with(sim::kErrorMark))
            report.Fault("the phone refuses " + line + ": " + text);
        return text;
    }
    // Returns one value of the phone's state.
    std::string Get(const std::string& key) {
        const std::string text = Console("get " + key);
        return text.substr(0, text.find('\n'));
    }

    // Returns the reply to a request, or kClosed if there is no connection or it ended. No reply in
    // time is a fault, and so is half a reply.
    std::string Ask(const std::string& request, const test::Client& client) {
        const std::string reply = client.Ask(request);
        report.Note(request + ": " + reply);
        if (reply.ends_with(test::Client::kLate) || reply.find('\0') != std::string::npos) {
            report.Fault("no whole reply to " + request + ": " + reply + "\n" + Stacks());
        }
        return reply;
    }
    std::string Ask(const std::string& request) {
        return Ask(request, test::Client(protocol::kCommandSocket,
                                         ANDROID_SOCKET_NAMESPACE_ABSTRACT, kReplyPatience));
    }

    Holdings Holds() const {
        const std::string proc = "/proc/" + std::to_string(pid);
        const std::string text = test::ReadFile(proc + "/status");
        return {Entries(proc + "/fd"), Entries(proc + "/task"), StatusValue(text, "VmRSS:"),
                StatusValue(text, "VmHWM:")};
    }

    // Describes where the threads of the daemon wait, and shows the end of its log.
    std::string Stacks() const {
        const std::string tasks = "/proc/" + std::to_string(pid) + "/task/";
        std::string text;
        for (const std::string& task : test::List(tasks)) {
            text += "    " + test::ReadFile(tasks + task + "/comm") + "        " +
                    test::ReadFile(tasks + task + "/wchan") + " " +
                    test::ReadFile(tasks + task + "/syscall");
        }
        const std::string lines = Log();
        return text + "...\n" + lines.substr(lines.size() - std::min<size_t>(lines.size(), 4000));
    }

  private:
    Report& report;
};

}  // namespace soak
