// The configuration file: loaded at start, rewritten line by line as clients change settings.
//
//   file = (key " " value "\n")*
//
// The keys are those of core/setting_table.h.
#pragma once

#include <cstdint>
#include <span>

// The file that `main` loads and that saving rewrites.
constexpr const char* kConfigPath = "/data/vendor/radio/quarn/config/quarn.cfg";

// Loads the file and applies it; 0, or -1 or the failing setter's code: what was applied till then
// stays applied. A missing file is first copied from the factory default. With `log_mode_only` only
// the log mode is read and applied.
int32_t quarn_loadConfig(const char* path, int32_t log_mode_only);

// Replaces each line that holds `key` and drops those that hold a displaced key, in a new file that
// takes the place of the old one whole or not at all. Returns 0, or -1 if the value was refused, if
// there is a file that cannot be read, or if the new one could not be created; 0 also, with a
// message, if it could not be written. Does nothing for a null value. A value is refused, with a
// warning, when the next load would not read it as it was set: see `WhyNotKept`, or when the file
// would get too long.
int32_t quarn_command_saveConfig(const char* key, const char* value,
                                 std::span<const char* const> displaced_keys);
