#include "sim/restart.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <system_error>
#include <thread>

namespace sim {

namespace {

// What init needs to get to it.
constexpr std::chrono::milliseconds kReaction(10);

}  // namespace

void PropertySet(std::string_view name, const std::string& value) {
    if (name != "vendor.quarn.qrx.restart" || value != "1") return;
    const char* const status = getenv(kRestartStatusVariable);
    if (status == nullptr) return;
    // As with the kill that it stands for, nothing of the process is cleaned up.
    const auto end = [code = atoi(status)] {
        std::this_thread::sleep_for(kReaction);
        _exit(code);
    };
    try {
        std::thread(end).detach();
    } catch (const std::system_error&) {
        end();
    }
}

}  // namespace sim
