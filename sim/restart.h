// The part of a phone's init that the daemon meets: it is killed when it asks for its restart.
#pragma once

#include <string>
#include <string_view>

namespace sim {

// The status with which the process ends itself soon after the restart property has become "1";
// not set: nothing happens then. Whoever sets it starts the daemon anew.
constexpr const char* kRestartStatusVariable = "QUARN_SIM_RESTART_STATUS";

// To be told of each property that was set.
void PropertySet(std::string_view name, const std::string& value);

}  // namespace sim
