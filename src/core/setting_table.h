// The settings that the configuration file keeps, one row each. A save checks its value against the
// table. A load reads and applies the rows that have a setter. The steps for the other rows are in
// quarn_config.cpp.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace quarn::zorvex {

enum class SettingKind {
    kNumber,        // read as `atoi` reads
    kStrictNumber,  // read by `ParseIntConfig`
    kText,          // read by `ParseStringConfig`
};

struct Setting {
    // Also the name of the command that saves the setting.
    const char* key;
    SettingKind kind;

    // The fields below are for a number that a load sets if it differs from the current one.
    //
    // The value if the file does not have the key.
    int default_value = 0;
    // Return 0, or a code that ends the load. A getter that fails logs the failure.
    int32_t (*get)(int* value) = nullptr;
    int32_t (*set)(int value) = nullptr;
    // The name of the setting, and its unit, in the log message about a failed setter.
    const char* title = nullptr;
    const char* unit = "";
};

// A load applies the settings that have a setter in this order, and all others after them.
extern const std::array<Setting, 10> kSettings;

// Bytes of the configuration file that a load reads. A save never writes a longer file.
constexpr size_t kMaxLoadSize = 1023;

// Returns an empty string if the next load would read this value of this key as it was set.
// Otherwise returns the reason, as the middle of a sentence:
//
// - A value must not hold a control character or the key of any setting.
// - A number must be short. If it is read strictly, only blanks may stand before it and nothing may
//   follow it.
// - A text must not begin with a blank.
std::string WhyNotKept(std::string_view key, std::string_view value);

}  // namespace quarn::zorvex
