// quarnctl status: all that the daemon can be asked, and settings that fight each other.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "connection.h"

namespace quarnctl {

// One command that can be asked, and the value that came; none where the daemon answered "error".
struct Answer {
    const Command* command;
    std::optional<std::string> value;
};

// Asks for everything that can be asked. Returns kOk, or kUnreachable with the reason in `why`.
ExitStatus AskAll(Client& client, std::vector<Answer>& answers, std::string& why);

// Settings that fight each other, a sentence each.
std::vector<std::string> Conflicts(const std::vector<Answer>& answers);

// Prints all of it, as text or as one JSON object. Returns the exit status.
int PrintStatus(Client& client, bool json);

}  // namespace quarnctl
