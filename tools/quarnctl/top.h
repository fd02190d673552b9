// quarnctl top: shows on one screen whether the daemon keeps up.
#pragma once

#include <chrono>
#include <string>

namespace quarnctl {

struct TopOptions {
    std::string log;  // a file; "-" for standard input; empty for logcat
    bool once = false;
    bool json = false;
    std::chrono::seconds interval{1};
    // With `once`: the time limit for each reply, and for the end of a piped log. Negative if none
    // was given.
    std::chrono::seconds timeout{-1};
};

// With `once`, returns the exit status. Else runs until a signal ends the process, or returns when
// standard output cannot be written.
int Top(const TopOptions& options);

}  // namespace quarnctl
