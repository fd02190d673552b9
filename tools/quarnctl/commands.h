// The daemon's commands as quarnctl knows them: what each takes, means and answers. Arguments that
// the daemon would misunderstand are refused here and never sent.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace quarnctl {

enum class Argument { kNone, kNumber, kPath, kCopy };

struct Command {
    const char* name;
    bool has_query;  // sent without an argument it asks and changes nothing
    Argument argument;
    const char* range;              // what a set takes
    const char* meaning;            // with its unit, and whether the daemon keeps it over a restart
    std::chrono::seconds patience;  // for the reply; 0: without end
    std::span<const char* const> names = {};  // of the values, by number
    const char* unit = "";
};

std::span<const Command> Commands();
const Command* FindCommand(std::string_view name);  // null when there is none

// The name of a value; empty when it has none.
std::string NameOf(std::span<const char* const> names, std::string_view value);
std::string NameOf(const Command& command, std::string_view value);

// Makes the request of `command` with `words` as its argument. Names of values become numbers.
// Returns false, with the reason in `why`, when the daemon would not understand it.
bool MakeRequest(const Command& command, const std::vector<std::string>& words,
                 std::string& request, std::string& why);

// Returns true if all of `text` is a decimal number of 32 bits.
bool ToNumber(std::string_view text, int32_t& number);

}  // namespace quarnctl
