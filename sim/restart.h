// The part of a phone's init that restarts the daemon: init kills the daemon when the daemon sets
// its restart property.
#pragma once

#include <string>
#include <string_view>

namespace sim {

// The environment variable with the exit status of a restart. If it is set, the process exits with
// that status 10 ms after the restart property was set to "1". The caller that set the variable
// (sim/init) then starts the daemon again. If it is not set, nothing happens.
constexpr const char* kRestartStatusVariable = "QUARN_SIM_RESTART_STATUS";

// Must be called after each change of a property.
void PropertySet(std::string_view name, const std::string& value);

}  // namespace sim
