// The state of the simulated phone as a list of keys and values.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace sim {

struct StateValue {
    std::string_view key;  // a word
    std::string value;     // without the unit
    std::string_view unit = "";
};

// Returns all current values, in the order in which `simctl state` prints them. Thread-safe. The
// values are not all read at the same instant.
std::vector<StateValue> CurrentState();

}  // namespace sim
