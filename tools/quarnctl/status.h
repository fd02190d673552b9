// quarnctl status: prints all values that the daemon reports, and settings that contradict each
// other.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "connection.h"

namespace quarnctl {

// A command with a query, and the value in the reply. No value if the daemon answered "error".
struct Answer {
    const Command* command;
    std::optional<std::string> value;
};

// Sends the queries of all commands. Returns kOk, or returns kUnreachable and sets `why`.
ExitStatus AskAll(Client& client, std::vector<Answer>& answers, std::string& why);

// Returns the settings that contradict each other, in one sentence each.
std::vector<std::string> Conflicts(const std::vector<Answer>& answers);

// Return the values as a JSON object, and the contradictions as a JSON array of texts.
std::string AnswersAsJson(const std::vector<Answer>& answers);
std::string ConflictsAsJson(const std::vector<Answer>& answers);

// Prints the values and the contradictions, as text or as one JSON object. Returns the exit status.
int PrintStatus(Client& client, bool json);

}  // namespace quarnctl
