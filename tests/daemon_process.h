// The daemon as a process of its own on the simulated phone, and what talks to it. In a box only.
#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>

namespace test {

// One run of the unchanged daemon; its Android log goes to a file of that name. Killed at the end.
class Daemon {
  public:
    using Environment = std::map<std::string, std::string>;

    // `scenario`: commands of the simulated phone, one a line.
    Daemon(const std::string& name, const std::string& scenario, const Environment& more = {});
    ~Daemon() { Kill(); }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    std::string Log() const;
    bool WaitFor(const std::string& text) const;
    // Whether it has ended by itself.
    bool Ended();
    void Kill();
    // The exit status, or minus the signal.
    int Wait();

    const std::string log_path;

  protected:
    pid_t pid;
    int status = 0;
};

// What a program prints that ends well; else the test fails.
std::string Output(const std::string& command);
// The same for a command on the phone's console, and for one of quarnctl.
std::string Console(const std::string& command);
std::string Quarnctl(const std::string& command);

// One request over the command socket; none when there is no daemon to answer it whole.
std::optional<std::string> Request(const std::string& request);

}  // namespace test
