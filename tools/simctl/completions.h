// The words that a shell can complete on the command line of simctl.
#pragma once

#include <string>
#include <vector>

namespace sim {

// Prints the words that may follow `before`, one a line: the word, a tab, its meaning. "@files"
// stands for the names of files. Reads the arguments that each command's row of the table shows.
void PrintCompletions(const std::vector<std::string>& before);

}  // namespace sim
