// Texts, mostly paths. Purely textual: nothing is resolved or looked up.
#pragma once

#include <string>
#include <string_view>

namespace quarn::zorvex {

// Whether the text holds a byte below 32 or a DEL. A newline would split a line of the files that
// such texts are kept in.
bool HasControlCharacter(std::string_view text);

// Every run of slashes becomes one.
std::string NormalizePathSlash(const std::string& path);

// Whether `path` is `base` itself or lies directly in it, runs of slashes and one trailing slash
// aside. "." and ".." are names like any other, so "<base>/.." passes; this is meant.
bool IsUnderFirstLevelSubfolder(const std::string& path, const std::string& base);

}  // namespace quarn::zorvex
