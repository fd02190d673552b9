// Exit status and error messages of quarnctl.
#pragma once

#include <string>

namespace quarnctl {

enum ExitStatus : int {
    kOk = 0,
    kRefused = 1,      // the daemon answered "error"
    kFallsBehind = 1,  // top --once: the daemon stalled or dropped bytes
    kUsage = 2,        // wrong command line; nothing was sent
    kUnreachable = 3,  // no daemon, or no reply in time
    kNoOutput = 4,     // standard output could not be written
};

// Prints "quarnctl: ", `why` and a newline on standard error. Returns `status`.
int Complain(ExitStatus status, const std::string& why);

}  // namespace quarnctl
