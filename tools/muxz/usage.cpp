#include "tools/muxz/usage.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>

namespace muxz {

namespace {

constexpr Option kOptions[] = {
    {'a', "all", nullptr, "prints the modem record and unknown header entries in full"},
    {'r', "raw", nullptr, "prints the unpacked sizes, too; this reads the lengths of all blocks"},
    {'b', "bytes", nullptr, "prints sizes in bytes"},
    {'f', "files", nullptr, "lists every file of each capture"},
    {'o', "output", "FILE", "writes to FILE instead of standard output"},
    {'W', "follow", nullptr,
     "writes the newest capture of a tree while it grows, then the captures after it, until "
     "Ctrl-C"},
    {'F', "first", nullptr, "stops at the first fault"},
    {'Q', "quick", nullptr, "reads the lengths of the blocks, but does not unpack the blocks"},
    {'P', "phone", "WHICH",
     "chooses when the files come from several phones: the number of a phone as in the output of "
     "ls, \"all\" for one phone after the other, or \"same\" if it is in fact one phone"},
    {'J', "json", nullptr, "prints everything that is known as JSON, for programs"},
    {'S', "from", "T", "the start of the time range"},
    {'E', "to", "T", "the end of the time range"},
    {'A', "around", "T", "the middle of the time range"},
    {'X', "exception", "[N]",
     "the time of the N-th modem exception is the middle of the time range; without N, the last "
     "exception"},
    {'D', "span", "D", "the length of the time range with --around and --exception; default 2m"},
    {'U', "utc", nullptr, "T is UTC; without this option T is the time of the phone's clock"},
    {'L', "log", "FILE",
     "reads an Android log (\"logcat -v threadtime -s QUARN\"), which makes times more precise; "
     "\"-\" is standard input"},
    {'h', "help", nullptr, "prints this help"},
};

constexpr std::string_view kTimeRangeLetters = "SEAXDUL";

constexpr const char* kTimeRange = R"(
Options for a time range:
)";
constexpr const char* kTimes = R"(
T is 14:32, 14:32:10, "2026-11-23 14:32:10" or seconds since 1970. D is 30s, 5m or 1h.
cat cuts files at block boundaries and reports how precise the time is. The other commands read
each file of the time range whole.
)";

constexpr const char* kExitStatus = R"(
Exit status:
  0  success; the data has no faults
  1  the data has faults, or files are missing
  2  wrong usage, or a file cannot be read or written
)";

constexpr Usage kUsages[] = {
    {"check", "PATH...", "reports whether captures are complete, and when the modem crashed",
     R"(Prints on one screen what the files contain: the captures with start, end, size and rate; modem
exceptions and their times; damaged data and missing files; the phone, and what changed on it; the
UTC offset. The last line is the verdict.
)",
     "QPJ", true, "  muxz check ticket/logs\n  muxz check ticket.zip\n"},
    {"ls", "[PATH...]", "lists the captures",
     R"(Lists captures in capture order. The default PATH is /data/vendor/radio/quarn/logs.
States of a capture:
  newest         the last capture
  being written  the last capture, and a daemon has its file open or the file grows
  unfinished     its name says that it is being written, but a later capture exists
  EE             with a modem exception
  copy           made by a copy command, or another capture has the same content
)",
     "rbfJ", true, "  muxz ls\n  muxz ls -r box/data/vendor/radio/quarn/logs\n"},
    {"info", "PATH...", "prints the header and the block statistics of each file",
     "Prints the header of each file, statistics of its blocks, and how the file ends.\n", "aJ",
     true,
     "  muxz info logs/QRXMDLog_0_2024_0131_235959/QRXMDLog_0_2024_0131_235959.muxz\n"
     "  muxz info -a logs/power_on_log.muxz\n"},
    {"cat", "PATH...", "writes the raw stream of files, captures and trees",
     R"(Writes the raw stream of each PATH in capture order. Reports damaged data and missing files, and
writes everything else. Leaves out the power-on log and copies of captures.
)",
     "oWP", true,
     "  muxz cat /data/vendor/radio/quarn/logs | sha256sum\n"
     "  muxz cat -o stream.bin logs/QRXMDLog_3_2024_0131_235959t\n"
     "  muxz cat logs/power_on_log.muxz > power_on.bin\n"
     "  muxz cat --exception --span 2m logs > crash.bin\n"
     "  adb exec-out tar -c -C /data/vendor/radio/quarn logs | muxz cat - > stream.bin\n"},
    {"verify", "PATH...", "checks every block",
     R"(Checks that the lengths of every block are right, that every block can be unpacked, and that no
file is missing between other files. Reports each fault with its file and byte offset, and the
number of faults. Leaves out copies of captures, and counts the power-on log separately.
)",
     "FJ", true,
     "  muxz verify /data/vendor/radio/quarn/logs\n"
     "  muxz verify logs/QRXMDLog_0_2024_0131_235959/*.muxz\n"},
    {"recover", "PATH...", "finds the blocks of damaged files",
     R"(Writes everything that can be unpacked from files with an unknown header, or with data that is
damaged or cut anywhere. Reports what it skipped; the exit status is 1 then.
)",
     "o", false,
     "  muxz recover -o stream.bin damaged.muxz\n"
     "  muxz recover disk_image | less\n"},
    {"report", "PATH...", "writes a page with charts for a browser",
     R"(Writes an HTML page: the verdict and numbers, the captures on a time axis, rates, compression,
sizes, and tables of captures and files. Checks every block, and ends with the same exit status as
muxz check.
)",
     "oP", true,
     "  muxz report logs -o report.html\n"
     "  adb logcat -d -v threadtime -s QUARN | muxz report logs --log - -o report.html\n"},
};

// "-o, --output FILE", "--phone WHICH"
std::string Form(const Option& option) {
    std::string form = option.letter >= 'a' ? std::string("-") + option.letter + ", " : "";
    form.append("--").append(option.name);
    return option.value == nullptr ? form : form + ' ' + option.value;
}

// Prints "  left  text", with all lines of the text in one column.
void PrintEntry(const std::string& left, std::string_view text) {
    constexpr size_t kIndent = 22, kWidth = 100;
    std::string line = "  " + left;
    line.resize(std::max(line.size() + 1, kIndent), ' ');
    bool first = true;
    while (!text.empty()) {
        const size_t end = std::min(text.find(' '), text.size());
        if (!first && line.size() + 1 + end > kWidth) {
            puts(line.c_str());
            line.assign(kIndent, ' ');
        }
        line.append(" ").append(text.substr(0, end));
        first = false;
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    puts(line.c_str());
}

void PrintOptions(std::string_view letters) {
    for (const Option& option : kOptions) {
        if (letters.find(option.letter) != std::string_view::npos) {
            PrintEntry(Form(option), option.meaning);
        }
    }
}

const Option* FindOption(std::string_view word) {
    const auto* const found =
        std::find_if(std::begin(kOptions), std::end(kOptions), [&](const Option& option) {
            return word == std::string("--") + option.name ||
                   (option.letter >= 'a' && word == std::string("-") + option.letter);
        });
    return found == std::end(kOptions) ? nullptr : found;
}

void PrintWord(std::string_view word, std::string_view meaning) {
    printf("%.*s\t%.*s\n", static_cast<int>(word.size()), word.data(),
           static_cast<int>(meaning.size()), meaning.data());
}

}  // namespace

std::span<const Option> Options() { return kOptions; }
std::span<const Usage> Usages() { return kUsages; }

const Usage* FindUsage(std::string_view name) {
    const auto* const found = std::find_if(std::begin(kUsages), std::end(kUsages),
                                           [&](const Usage& usage) { return usage.name == name; });
    return found == std::end(kUsages) ? nullptr : found;
}

std::string GetoptLetters(const Usage& usage) {
    std::string letters;
    for (const Option& option : kOptions) {
        const bool taken = option.letter == 'h' || strchr(usage.letters, option.letter) != nullptr;
        const bool of_time_range = kTimeRangeLetters.find(option.letter) != std::string_view::npos;
        if (!taken && !(of_time_range && usage.takes_time_range)) continue;
        letters += option.letter;
        if (option.value != nullptr) letters += *option.value == '[' ? "::" : ":";
    }
    return letters;
}

void PrintHelp() {
    puts(
        "Usage: muxz COMMAND [OPTION...] PATH...\n"
        "       muxz help COMMAND\n"
        "       muxz --version\n"
        "\n"
        "Reads the log files of the daemon quarn, also while the daemon writes them.\n"
        "\n"
        "Commands:");
    for (const Usage& usage : kUsages) {
        PrintEntry(std::string(usage.name) + ' ' + usage.arguments, usage.summary);
    }
    puts(
        R"(
PATH is a log tree, a capture folder, a folder with files of any captures, a log file, an archive of
these (zip or tar, also a compressed tar), a pipe, or "-" for standard input. muxz keeps the data of
a pipe or of a compressed archive in a temporary file, in the folder $TMPDIR or else in /tmp.

A file whose name ends in ".tmp" is still being written and may end at any byte.

All commands but recover can be limited to a time range: see "muxz help cat".)");
    fputs(kExitStatus, stdout);
}

void PrintHelp(const Usage& usage) {
    printf("Usage: muxz %s [OPTION...] %s\n", std::string(usage.name).c_str(), usage.arguments);
    if (usage.name == "cat") puts("       muxz cat --follow [-o FILE] TREE");
    printf("\n%s\nOptions:\n", usage.text);
    PrintOptions(std::string(usage.letters) + 'h');
    if (usage.takes_time_range) {
        fputs(kTimeRange, stdout);
        PrintOptions(kTimeRangeLetters);
        fputs(kTimes, stdout);
    }
    printf("%s\nExamples:\n%s", kExitStatus, usage.examples);
}

void PrintCompletions(const std::vector<std::string>& before) {
    if (before.empty()) {
        for (const Usage& usage : kUsages) PrintWord(usage.name, usage.summary);
        PrintWord("help", "prints the help of a command");
        PrintWord("--version", "prints the version");
        return;
    }
    if (before[0] == "help") {
        for (const Usage& usage : kUsages) PrintWord(usage.name, usage.summary);
        return;
    }
    const Usage* const usage = FindUsage(before[0]);
    if (usage == nullptr) return;
    const std::string letters = GetoptLetters(*usage);
    const auto taken = [&](char letter) { return letters.find(letter) != std::string::npos; };
    const Option* const last = FindOption(before.back());
    if (last != nullptr && taken(last->letter) && last->value != nullptr && *last->value != '[') {
        const std::string_view value = last->value;
        if (value == "FILE") PrintWord("@files", "");
        if (value == "WHICH") {
            PrintWord("all", "one phone after the other");
            PrintWord("same", "it is in fact one phone");
        }
        return;
    }
    PrintWord("@files", "");
    for (const Option& option : kOptions) {
        if (taken(option.letter)) PrintWord(std::string("--") + option.name, option.meaning);
    }
}

}  // namespace muxz
