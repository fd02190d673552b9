// The help text of quarnctl and the words that a shell can complete, both from the same tables.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace quarnctl {

// Prints the two lines that tell how quarnctl is called.
void PrintUsage(FILE* out);
void PrintHelp();

// Prints the words that may follow `before` on a command line, one a line: the word, a tab, its
// meaning. "@files" stands for the names of files. man/quarnctl.1 has every word, too.
void PrintCompletions(const std::vector<std::string>& before);

}  // namespace quarnctl
