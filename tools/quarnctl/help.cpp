#include "help.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "commands.h"
#include "control/protocol.h"

namespace quarnctl {

namespace {

struct Row {
    std::string_view name;
    std::string_view argument;  // empty if there is none
    std::string_view meaning;
};

// What quarnctl does itself.
constexpr Row kOwnCommands[] = {
    {"get", "SETTING", "prints the bare value of one setting"},
    {"status", "", "prints all settings, and warns of settings that contradict each other"},
    {"watch", "", "prints each change until you stop it, also across restarts of the daemon"},
    {"top", "",
     "shows whether the daemon keeps up with the modem: rates, stalls, dropped bytes, files, disk "
     "space and settings"},
    {"wait", "", "waits until the daemon answers"},
    {"help", "", "prints this help"},
};

constexpr Row kOptions[] = {
    {"--timeout", "SECONDS",
     "how long to wait for a reply; 0 means no limit. The default is 30 seconds, 120 seconds for "
     "transfer_type, and no limit for copy_log_file. For wait and watch this is the time limit of "
     "the whole command, by default none. With top --once it also limits how long a piped log is "
     "read"},
    {"--json", "",
     "with status, watch and top: prints JSON; watch and top print one object per line"},
    {"--count", "N", "with watch: ends after N notifications"},
    {"--until", "TEXT", "with watch: ends after the first notification that contains TEXT"},
    {"--once", "", "with top: prints one block and ends"},
    {"--interval", "SECONDS", "with top: the time between two displays; the default is 1"},
    {"--log", "FILE",
     "with top: reads the Android log from a file or a pipe while it grows, \"-\" is standard "
     "input; the default is the output of logcat"},
    {"--version", "", "prints the version"},
    {"--help", "", "prints this help"},
};

constexpr const char* kNotifications[] = {quarn::protocol::kLogModeChanged,
                                          quarn::protocol::kTransferTypeChanged,
                                          quarn::protocol::kReboot};

constexpr const char* kExitStatus = R"(
Exit status:
  0  success
  1  the daemon answered "error"; with top --once: the daemon falls behind
  2  wrong usage; nothing was sent to the daemon
  3  the daemon cannot be reached, or does not answer in time; with watch: the notification did not
     come in time; with top --once: the log cannot be read, or has no line of the daemon
  4  standard output could not be written
)";

constexpr size_t kWidth = 100;  // columns

// Prints "  left  text", with all lines of the text in the column `indent`.
void PrintEntry(const std::string& left, size_t indent, std::string_view text) {
    std::string line = "  " + left;
    line.resize(std::max(line.size() + 1, indent), ' ');
    for (bool first = true; !text.empty(); first = false) {
        const size_t end = std::min(text.find(' '), text.size());
        if (!first && line.size() + 1 + end > kWidth) {
            puts(line.c_str());
            line.assign(indent, ' ');
            first = true;
        }
        line.append(first ? "" : " ").append(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    puts(line.c_str());
}

std::string Joined(const Row& row) {
    return std::string(row.name) + (row.argument.empty() ? "" : " ") + std::string(row.argument);
}

void PrintCommand(const Command& command) {
    constexpr size_t kIndent = 26;
    const bool takes = command.argument != Argument::kNone;
    std::string text = command.meaning;
    if (takes) text += std::string(". Takes ") + command.range;
    if (takes && !command.has_query) text += ". Cannot be queried";
    if (!takes && command.has_query) text += ". Query only";
    PrintEntry(command.name, kIndent, text);
}

// --- completion ---

void PrintWord(std::string_view word, std::string_view meaning) {
    printf("%.*s\t%.*s\n", static_cast<int>(word.size()), word.data(),
           static_cast<int>(meaning.size()), meaning.data());
}

void PrintValues(std::span<const char* const> names) {
    for (const char* const name : names) PrintWord(name, "");
}

const Row* FindOption(std::string_view word) {
    const auto* const row = std::find_if(std::begin(kOptions), std::end(kOptions),
                                         [&](const Row& option) { return option.name == word; });
    return row == std::end(kOptions) ? nullptr : row;
}

void PrintArguments(const std::vector<std::string>& words) {
    if (words.size() == 1 && words[0] == "get") {
        for (const Command& command : Commands()) {
            if (command.has_query) PrintWord(command.name, command.meaning);
        }
    }
    const Command* const command = FindCommand(words[0]);
    if (command == nullptr || words.size() > 1) return;
    PrintValues(command->names);
    const bool path = command->argument == Argument::kPath || command->argument == Argument::kCopy;
    if (path) PrintWord("@files", "");
}

}  // namespace

void PrintUsage(FILE* out) {
    fputs(
        "Usage: quarnctl [OPTION...] COMMAND [ARGUMENT...]\n"
        "       quarnctl help    lists the commands and options\n",
        out);
}

void PrintHelp() {
    puts(
        "Usage: quarnctl [OPTION...] COMMAND [ARGUMENT...]\n"
        "\n"
        "Reads and changes the settings of the daemon quarn, and shows changes when they happen.\n"
        "\n"
        "  quarnctl SETTING          prints the reply of the daemon, with the value of the "
        "setting\n"
        "  quarnctl SETTING VALUE    changes the setting; VALUE is a number or its name\n"
        "  quarnctl ACTION           makes the daemon do something, and prints the reply\n"
        "\n"
        "Commands:");
    for (const Row& row : kOwnCommands) PrintEntry(Joined(row), 26, row.meaning);
    puts("\nSettings and actions of the daemon (\"saved\": kept when the daemon restarts):");
    for (const Command& command : Commands()) PrintCommand(command);
    puts(
        "\nOptions may stand before or after the command. After \"--\" no word is an option.\n"
        "\nOptions:");
    for (const Row& row : kOptions) PrintEntry(Joined(row), 26, row.meaning);
    fputs(kExitStatus, stdout);
}

void PrintCompletions(const std::vector<std::string>& before) {
    if (!before.empty()) {
        const Row* const option = FindOption(before.back());
        if (option != nullptr && !option->argument.empty()) {
            if (option->name == "--until") PrintValues(kNotifications);
            if (option->name == "--log") PrintWord("@files", "");
            return;
        }
    }
    std::vector<std::string> words;
    bool is_value = false;  // of the option in front
    for (const std::string& word : before) {
        const Row* const option = FindOption(word);
        if (!is_value && !word.starts_with('-')) words.push_back(word);
        is_value = !is_value && option != nullptr && !option->argument.empty();
    }
    if (words.empty()) {
        for (const Row& row : kOwnCommands) PrintWord(row.name, row.meaning);
        for (const Command& command : Commands()) PrintWord(command.name, command.meaning);
    } else {
        PrintArguments(words);
    }
    for (const Row& option : kOptions) PrintWord(option.name, option.meaning);
}

}  // namespace quarnctl
