#include "sim/restart.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <system_error>
#include <thread>

namespace sim {

namespace {

// The time that init takes to react.
constexpr std::chrono::milliseconds kReaction(10);

}  // namespace

void PropertySet(std::string_view name, const std::string& value) {
    if (name != "vendor.quarn.qrx.restart" || value != "1") return;
    const char* const status = getenv(kRestartStatusVariable);
    if (status == nullptr) return;
    // _exit() stands for init's kill, so the process cleans up nothing.
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
