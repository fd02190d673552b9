// Single settings: what may be kept in the configuration's text, reading them out of it, and
// applying them.
//
// A key is found by its first occurrence anywhere in the text. The Parse functions are pure but for
// their warnings. The Set functions never fail a load: they return 0 and warn.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace quarn::zorvex {

// Bytes of the configuration file that are read when it is loaded, and that a saved one has at
// most.
constexpr size_t kMaxLoadSize = 1023;

// Why this value of this key cannot be kept in the file, as the middle of a sentence; empty when
// the next load reads it as it was set. A value holds no control character and no key, neither its
// own nor another one; a number is short, and plain where it is read strictly; a text does not
// begin with a blank.
std::string WhyNotKept(std::string_view key, std::string_view value);

// The value up to the newline; false when it is missing or not ended by one.
bool ParseStringConfig(const char* text, const char* key, std::string& out);
// A decimal number directly followed by a newline. `out` may have been written on false.
bool ParseIntConfig(const char* text, const char* key, int& out);

bool ParseLogFolderConfig(const char* text, std::string& folder);
// The level (-1: none) or else the filter (empty: none); true when either was read.
bool ParseLogFilterConfig(const char* text, int& level, std::string& filter);
bool ParseFlushIntervalConfig(const char* text, int& interval);

int32_t SetLogFolderConfig(const std::string& folder);
int32_t SetLogFilterConfig(int level, std::string& filter);
// Tells the log filter manager the mode that no notification will announce.
int32_t SetLogModeConfig(int mode);

}  // namespace quarn::zorvex
