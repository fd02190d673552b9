// The daemon as a process of its own on the simulated phone, and programs that talk to it. For use
// in a box.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>

namespace test {

// One process of the unchanged daemon. Its Android log goes to the file /data/log.NAME. The
// destructor kills it.
class Daemon {
  public:
    using Environment = std::map<std::string, std::string>;

    // `scenario`: commands of the simulated phone, one per line.
    Daemon(const std::string& name, const std::string& scenario, const Environment& more = {});
    ~Daemon() { Kill(); }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    std::string Log() const;
    bool WaitFor(const std::string& text) const;
    // Returns true if the process has ended.
    bool Ended();
    void Kill();
    // Returns the exit status, or minus the signal. Kills a daemon that does not end within 60 s.
    int Wait();

    const std::string log_path;

  protected:
    pid_t pid;
    int status = 0;
};

// Runs a command and returns what it printed. The test fails if its exit status is not 0.
std::string Output(const std::string& command);
// The same for a command on the phone's console, and for a command of quarnctl.
std::string Console(const std::string& command);
std::string Quarnctl(const std::string& command);

}  // namespace test
