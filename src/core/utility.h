// Reading single settings from the text of the configuration file, and applying them.
//
// The Parse functions take the first occurrence of a key anywhere in the text. Apart from logging
// warnings they have no side effects. They return true if they have read a value.
//
// The Set functions always return 0, so that none of them ends a load. They log a warning on
// failure. SetLogFilterConfig and SetLogModeConfig take `exec_mutex`.
#pragma once

#include <cstdint>
#include <string>

namespace quarn::zorvex {

// Reads a text. Blanks before the text are skipped. A newline must end it.
bool ParseStringConfig(const char* text, const char* key, std::string& out);
// Reads a decimal number. A newline must follow the number directly. If something else follows,
// `out` is written although the result is false.
bool ParseIntConfig(const char* text, const char* key, int& out);

bool ParseLogFolderConfig(const char* text, std::string& folder);
// Reads the level, or the filter if no level could be read. `level` is -1 if there is none, and
// `filter` is empty if there is none.
bool ParseLogFilterConfig(const char* text, int& level, std::string& filter);
bool ParseFlushIntervalConfig(const char* text, int& interval);

// Does nothing if the folder is empty or already in force.
int32_t SetLogFolderConfig(const std::string& folder);
// Sends the level to the log filter manager unless it is -1, then the filter unless it is empty.
int32_t SetLogFilterConfig(int level, std::string& filter);
// Reports the modem's log mode to the log filter manager. A load calls it if the modem already has
// the mode of the file, because the modem sends no notification then.
int32_t SetLogModeConfig(int mode);

}  // namespace quarn::zorvex
