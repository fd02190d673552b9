// quarnctl watch: prints what changes, over restarts of the daemon too.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace quarnctl {

struct WatchOptions {
    bool json = false;              // a JSON object a line
    int32_t count = 0;              // ends after so many notifications; 0: never
    std::string until;              // ends after a notification that holds this text; empty: never
    std::chrono::seconds limit{0};  // ends with kUnreachable after that time; 0: never
};

// Returns the exit status once one of the ends is reached.
int Watch(const WatchOptions& options);

}  // namespace quarnctl
