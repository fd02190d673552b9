// Single settings: reading them out of the configuration's text, and applying them.
//
// A key is found by its first occurrence anywhere in the text. The Parse functions are pure but for
// their warnings. The Set functions never fail a load: they return 0 and warn.
#pragma once

#include <cstdint>
#include <string>

namespace quarn::zorvex {

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
