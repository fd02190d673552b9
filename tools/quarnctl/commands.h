// The table of the daemon's commands: arguments, meaning and replies of each. quarnctl checks the
// arguments with it, and never sends an argument that the daemon would misunderstand.
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
    bool has_query;  // without an argument the command returns a value and changes nothing
    Argument argument;
    const char* range;    // allowed arguments, for people
    const char* meaning;  // for people; says whether the daemon keeps the value over a restart
    std::chrono::seconds patience;            // time limit for the reply; 0 means no limit
    std::span<const char* const> names = {};  // names of the values, indexed by value
    const char* unit = "";
};

std::span<const Command> Commands();
// Returns null if there is no such command.
const Command* FindCommand(std::string_view name);

// Return the name of a value, or an empty string if it has no name.
std::string NameOf(std::span<const char* const> names, std::string_view value);
std::string NameOf(const Command& command, std::string_view value);

// Makes the request for `command` with the argument `words`. Replaces names of values by numbers.
// Returns false and sets `why` if the daemon would not understand the request.
bool MakeRequest(const Command& command, const std::vector<std::string>& words,
                 std::string& request, std::string& why);

// Returns true and sets `number` if all of `text` is a decimal number that fits 32 bits.
bool ToNumber(std::string_view text, int32_t& number);

}  // namespace quarnctl
