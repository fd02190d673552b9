// The unchanged daemon on the simulated phone, as all that talks to it and looks at it from outside
// has it. No wait is for ever.
#pragma once

#include <cutils/sockets.h>
#include <sys/socket.h>
#include <unistd.h>

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
#include "tests/daemon_process.h"
#include "tests/support.h"

namespace fs = std::filesystem;

namespace soak {

namespace protocol = quarn::protocol;

// What a long run tells: faults at once, sums at the end, and a journal of all that was done for
// who looks for the cause of a fault. Any thread may write.
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

// What a seed decides.
class Dice {
  public:
    explicit Dice(uint64_t seed) : random(seed) {}
    uint64_t Below(uint64_t sides) { return random() % sides; }
    bool OneIn(uint64_t sides) { return Below(sides) == 0; }

  private:
    std::mt19937_64 random;
};

inline const std::string kTree = "/data/vendor/radio/quarn";
// Bytes that the modem has handed over, also once the process has ended. It goes on counting over
// restarts unless the file is removed.
inline constexpr const char* kDelivered = "/data/modem/delivered";
inline uint64_t Delivered() { return strtoull(test::ReadFile(kDelivered).c_str(), nullptr, 10); }

// An exchange with the modem may last 5 s, a notification that comes first some seconds; several
// of each may come before a request. A child that ends elsewhere in this program interrupts a wait
// that has a limit.
inline constexpr timeval kReplyPatience = {90, 0};

// Entries of a folder of /proc but for those of the power-on log: links to its file, its thread.
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

// A connection to a socket.
class Client {
  public:
    explicit Client(const char* name, int name_space = ANDROID_SOCKET_NAMESPACE_ABSTRACT)
        : fd(socket_local_client(name, name_space, SOCK_STREAM | SOCK_CLOEXEC)) {
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &kReplyPatience, sizeof(kReplyPatience));
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kReplyPatience, sizeof(kReplyPatience));
    }
    ~Client() {
        if (fd != -1) close(fd);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool Send(std::string_view bytes) const {
        return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }

    const int fd;  // -1: nobody is there
};

// What a process holds, apart from what the power-on log has for a minute.
struct Holdings {
    size_t descriptors;
    size_t threads;
    long rss_kb;
    long peak_kb;
};

class Phone : public test::Daemon {
  public:
    Phone(Report& out, const std::string& name, const std::string& scenario)
        : Daemon(name, scenario), report(out) {}

    // Waits until the daemon is up; false when it does not get there.
    bool CameUp() {
        const bool up = test::WaitUntil(
            [this] { return Ended() || Log().find("start all handler done") != std::string::npos; },
            std::chrono::seconds(60));
        if (up && !Ended()) return true;
        report.Fault("the daemon does not come up\n" + Stacks());
        return false;
    }

    // A line for the phone's console and its answer, nothing when nobody answers.
    std::string Console(const std::string& line) {
        const Client console("/data/modem/console.socket", ANDROID_SOCKET_NAMESPACE_FILESYSTEM);
        std::string text;
        char piece[4096];
        ssize_t got = console.Send(line + "\n") ? 1 : 0;
        while (got > 0 && ("\n" + text).find("\n= ") == std::string::npos) {
            got = TEMP_FAILURE_RETRY(recv(console.fd, piece, sizeof(piece), 0));
            if (got > 0) text.append(piece, static_cast<size_t>(got));
        }
        if (got < 0 && errno == EAGAIN)
            report.Fault("the console hangs at " + line + "\n" + Stacks());
        if (text.starts_with(sim::kErrorMark))
            report.Fault("the phone refuses " + line + ": " + text);
        return text;
    }
    // One value of the phone's state.
    std::string Get(const std::string& key) {
        const std::string text = Console("get " + key);
        return text.substr(0, text.find('\n'));
    }

    // The reply to a request, which is a fault when it does not come; none when the connection
    // ended.
    std::optional<std::string> Ask(const std::string& request,
                                   const Client& client = Client(protocol::kCommandSocket)) {
        char reply[129] = "";
        const ssize_t whole = sizeof(reply) - 1;
        const ssize_t got = client.Send(request + '\0')
                                ? TEMP_FAILURE_RETRY(recv(client.fd, reply, whole, MSG_WAITALL))
                                : 0;
        const bool hangs = got < 0 && errno == EAGAIN;
        report.Note(request + ": " + (got == whole ? reply : "nothing"));
        if (hangs || (got > 0 && got < whole)) {
            report.Fault("no reply to " + request + "\n" + Stacks());
        }
        if (got != whole) return {};
        return reply;
    }

    Holdings Holds() const {
        const std::string proc = "/proc/" + std::to_string(pid);
        const std::string text = test::ReadFile(proc + "/status");
        return {Entries(proc + "/fd"), Entries(proc + "/task"), StatusValue(text, "VmRSS:"),
                StatusValue(text, "VmHWM:")};
    }

    // Where its threads wait, and the end of its log.
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
