// How the simulated phone stands: single values, each under a key of its own.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace sim {

struct StateValue {
    std::string_view key;  // a word
    std::string value;     // bare, for scripts
    std::string_view unit = "";
};

// All values as they are now, in the order in which people read them. Thread-safe; the values of
// one call may be some microseconds apart.
std::vector<StateValue> CurrentState();

}  // namespace sim
