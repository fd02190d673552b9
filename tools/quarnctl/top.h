// quarnctl top: whether the daemon keeps up, on one screen.
#pragma once

#include <chrono>
#include <string>

namespace quarnctl {

struct TopOptions {
    std::string log;  // a file, "-": standard input, empty: logcat
    bool once = false;
    bool json = false;
    std::chrono::seconds interval{1};
    // With `once`: for each reply, and for the end of a log that comes through a pipe. Negative:
    // none given.
    std::chrono::seconds timeout{-1};
};

// Returns the exit status with `once`. Else shows until a signal ends the process.
int Top(const TopOptions& options);

}  // namespace quarnctl
