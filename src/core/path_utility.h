// Helpers for paths and other texts. They work on the text alone and never look at the file system.
#pragma once

#include <string>
#include <string_view>

namespace quarn::zorvex {

// Returns true if the text holds a byte below 32 or a DEL. Callers refuse such texts because they
// keep them in files of lines, where a newline would split a line.
bool HasControlCharacter(std::string_view text);

// Returns the path with every run of slashes replaced by one slash.
std::string NormalizePathSlash(const std::string& path);

// Returns true if `path` is `base` itself or lies directly in it. A run of slashes counts as one,
// and one trailing slash does not count. The names "." and ".." have no special meaning, so
// "<base>/.." passes; this is intended.
bool IsUnderFirstLevelSubfolder(const std::string& path, const std::string& base);

}  // namespace quarn::zorvex
