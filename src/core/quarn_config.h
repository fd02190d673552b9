// The configuration file. `main` loads it at start. It is rewritten whenever a client changes a
// setting.
//
//   file = (key " " value "\n")*
//
// The keys are those of core/setting_table.h.
#pragma once

#include <cstdint>
#include <span>

// The path of the configuration file.
constexpr const char* kConfigPath = "/data/vendor/radio/quarn/config/quarn.cfg";

// Loads the file at `path` and applies the settings. Creates a missing file as a copy of the
// factory default first. If `log_mode_only` is not 0, reads and applies only the log mode.
//
// Returns 0 on success. If the folder, the level, the filter or the flush interval is refused, logs
// that and goes on.
//
// Returns -1 and applies nothing if the file cannot be created or read, if it is empty, or if the
// current log mode of the modem cannot be read. If the daemon cannot read one of its current
// settings, applies nothing and returns the code of the getter.
//
// If a number with a setter in the table is refused, stops there and returns the code of the
// setter. If the modem refuses the log mode, stops there and returns -1. In both cases the settings
// before it stay applied.
int32_t quarn_loadConfig(const char* path, int32_t log_mode_only);

// Saves `value` for `key`. Replaces every line that holds `key`, or appends a line if there is
// none. Drops every line that holds one of `displaced_keys`. The old file is replaced completely or
// not at all. Does nothing if `value` is null.
//
// Refuses a value, with a warning, if the next load would not read it as it was set (see
// `WhyNotKept`), or if the file would get too long.
//
// Returns 0 on success. Returns -1 if the value was refused, if the old file exists and cannot be
// read, or if the new file could not be created. Logs an error and returns 0 if the new file could
// not be written: the setting is in force all the same.
int32_t quarn_command_saveConfig(const char* key, const char* value,
                                 std::span<const char* const> displaced_keys);
