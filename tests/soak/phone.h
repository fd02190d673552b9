// One process of the unchanged daemon on the simulated phone after another, in one box: what the
// phone's service manager does, and what can be seen of the process from outside.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "tests/soak/report.h"

namespace soak {

inline const std::string kTree = "/data/vendor/radio/quarn";
inline const std::string kLogs = kTree + "/logs";

// What a process holds, apart from what the power-on log has for a minute.
struct Holdings {
    size_t descriptors;
    size_t threads;
    long rss_kb;
    long peak_kb;
};

class Phone {
  public:
    explicit Phone(Report& out) : report(out) {}
    ~Phone() { Kill(); }
    Phone(const Phone&) = delete;
    Phone& operator=(const Phone&) = delete;

    // Starts the daemon, its Android log in `log_path`, and waits until it is up; false when it
    // does not get there. The caller has no threads.
    bool Start(const std::string& scenario, const std::string& log_path);
    void Kill();
    // The exit status, minus the signal; none when it still runs after that time.
    std::optional<int> WaitForEnd(std::chrono::seconds limit);
    bool Runs();

    // A line for the phone's console and its answer, nothing when nobody answers. Lines are served
    // one at a time, so that a caller may wait for others.
    std::string Console(const std::string& line);
    // Bytes that the modem has handed over to this process, also once it has ended.
    static uint64_t Delivered();
    Holdings Holds() const;
    // Where its threads wait, and the end of its log.
    std::string Stacks() const;

  private:
    Report& report;
    pid_t pid = -1;
    std::string log;
};

// A connection to one of the daemon's sockets.
class Client {
  public:
    explicit Client(const char* socket_name);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    int fd() const { return socket_fd; }
    bool Send(std::string_view bytes) const;
    // The text of a reply; none when the connection ended, or after `limit` with `hangs` set.
    std::optional<std::string> Reply(std::chrono::seconds limit, bool* hangs) const;

  private:
    int socket_fd;
};

inline constexpr const char* kCommandSocket = "/dev/quarn_server.socket";
inline constexpr const char* kNotifySocket = "/dev/quarn_callback_server.socket";

}  // namespace soak
