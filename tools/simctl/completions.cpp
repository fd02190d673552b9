#include "tools/simctl/completions.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <span>
#include <string_view>

#include "sim/order.h"
#include "sim/state.h"

namespace sim {

namespace {

void PrintWord(std::string_view word, std::string_view meaning = "") {
    printf("%.*s\t%.*s\n", static_cast<int>(word.size()), word.data(),
           static_cast<int>(meaning.size()), meaning.data());
}

std::vector<std::string_view> Split(std::string_view text, std::string_view separator) {
    std::vector<std::string_view> parts;
    while (true) {
        const size_t end = text.find(separator);
        parts.push_back(text.substr(0, end));
        if (end == std::string_view::npos) return parts;
        text.remove_prefix(end + separator.size());
    }
}

// Small letters and digits stand for themselves, capital letters for a value.
bool IsLiteral(std::string_view token) {
    return std::none_of(token.begin(), token.end(), [](char c) { return isupper(c) != 0; });
}

bool Fits(std::string_view token, const std::string& word) {
    const auto choices = Split(token, "|");
    return std::any_of(choices.begin(), choices.end(), [&](std::string_view choice) {
        return !IsLiteral(choice) || choice == word;
    });
}

void PrintCommands() {
    for (const Command& command : Commands()) PrintWord(command.name, command.help);
}

void PrintToken(std::string_view token) {
    for (std::string_view choice : Split(token, "|")) {
        if (IsLiteral(choice)) PrintWord(choice);
        if (choice == "FILE") PrintWord("@files");
        if (choice == "COMMAND" || choice == "[COMMAND]") PrintCommands();
        if (choice == "KEY") {
            for (const StateValue& value : CurrentState()) PrintWord(value.key);
        }
        if (choice == "FIGURE") {
            for (const std::string_view figure : Figures()) PrintWord(figure);
        }
    }
}

void PrintArguments(std::span<const std::string> words) {
    while (words[0] == "after" && words.size() > 2) words = words.subspan(2);
    if (words[0] == "check" && words.size() == 1) return PrintWord("@files");
    const Command* const command = FindCommand(words[0]);
    if (command == nullptr) return;
    const auto given = words.subspan(1);
    for (const std::string_view form : Split(command->arguments, " | ")) {
        const auto tokens = Split(form, " ");
        if (given.size() >= tokens.size()) continue;
        if (std::equal(given.begin(), given.end(), tokens.begin(),
                       [](const std::string& word, std::string_view token) {
                           return Fits(token, word);
                       })) {
            PrintToken(tokens[given.size()]);
        }
    }
}

}  // namespace

void PrintCompletions(const std::vector<std::string>& before) {
    std::span<const std::string> words = before;
    while (!words.empty() && (words[0].starts_with("--box") || words[0].starts_with("--timeout"))) {
        const bool has_value = words[0].find('=') != std::string::npos;
        if (!has_value && words.size() == 1) {
            if (words[0] == "--box") PrintWord("@files");
            return;
        }
        words = words.subspan(has_value ? 1 : 2);
    }
    if (!words.empty()) return PrintArguments(words);
    PrintCommands();
    PrintWord("check", "prints the lines of a scenario that are wrong");
    PrintWord("--box", "the folder of the box");
    PrintWord("--timeout", "how many seconds to wait for the reply");
    PrintWord("--version", "prints the version");
    PrintWord("--help", "prints this help");
}

}  // namespace sim
