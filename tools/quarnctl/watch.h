// quarnctl watch: prints the daemon's notifications. Connects again when the daemon restarts.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace quarnctl {

struct WatchOptions {
    bool json = false;  // prints one JSON object in each line
    int32_t count = 0;  // ends after so many notifications; 0 means no limit
    std::string until;  // ends after a notification that contains this text, unless it is empty
    std::chrono::seconds limit{0};  // ends with kUnreachable after this time; 0 means no limit
};

// Blocks until one of the conditions in `options` ends the watch. Returns the exit status.
int Watch(const WatchOptions& options);

}  // namespace quarnctl
