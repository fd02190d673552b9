// How muxz is called: its commands and options as tables, from which the help texts and the words
// for shell completion are made. man/muxz.1 has every command and option, too.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace muxz {

struct Option {
    char letter;        // for getopt; what users may type too if it is a small letter
    const char* name;   // the long form, without "--"
    const char* value;  // what follows it: null for none, in brackets if it is optional
    const char* meaning;
};

struct Usage {
    std::string_view name;
    const char* arguments;
    const char* summary;
    const char* text;     // paragraphs and lines as they are printed
    const char* letters;  // of its options, without those of a time range
    bool takes_time_range;
    const char* examples;
};

std::span<const Option> Options();
std::span<const Usage> Usages();
const Usage* FindUsage(std::string_view name);  // null when there is none

// The letters of all options of the command as getopt takes them.
std::string GetoptLetters(const Usage& usage);

void PrintHelp();
void PrintHelp(const Usage& usage);

// Prints the words that may follow `before` on a command line, one a line: the word, a tab, its
// meaning. "@files" stands for the names of files.
void PrintCompletions(const std::vector<std::string>& before);

}  // namespace muxz
