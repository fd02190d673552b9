// How quarnctl ends, and what it says when it does not end well.
#pragma once

#include <string>

namespace quarnctl {

enum ExitStatus : int {
    kOk = 0,
    kRefused = 1,      // the daemon answered "error"
    kUsage = 2,        // wrongly called; nothing was sent
    kUnreachable = 3,  // no daemon, or no answer in time
};

// Prints "quarnctl: " and `why` on standard error. Returns `status`.
int Complain(ExitStatus status, const std::string& why);

}  // namespace quarnctl
