// muxz: reads log files. Exit status: 0 fine, 1 faults in the data, 2 usage or input and output.
#include <getopt.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "core/version.h"
#include "storage/log_names.h"
#include "tools/muxz/commands.h"
#include "tools/muxz/messages.h"
#include "tools/muxz/stretch.h"
#include "tools/muxz/usage.h"

namespace {

using namespace muxz;

constexpr const char* kDefaultTree = "/data/vendor/radio/quarn/logs";

// --- arguments

// The parsed command line: the letters of the options, the values of some options, and the paths.
struct Arguments {
    std::string letters;
    std::string output;
    Phones phones;
    StretchRequest stretch;
    std::vector<std::string> paths;
    std::string wrong;  // what is wrong with the command line; empty if nothing is wrong

    bool Has(char letter) const { return letters.find(letter) != std::string::npos; }
};

Phones ParsePhones(const std::string& text) {
    if (text == "all") return PhoneChoice();
    if (text == "same") return PhoneChoice{PhoneChoice::Which::kSame};
    const auto number = quarn::log_names::ParseIndex(text);
    if (!number || *number == 0) return std::nullopt;
    return PhoneChoice{PhoneChoice::Which::kOne, *number};
}

// Stores the option `letter` in `stretch` if it is one that chooses a time range. Returns what is
// wrong with its value, or an empty string.
std::string TakeStretch(int letter, const char* value, StretchRequest& stretch) {
    StretchOptions& options = stretch.options;
    const auto unless = [value](bool good, const char* what, const char* examples) {
        return good ? "" : std::string("not ") + what + ": " + value + "; valid are " + examples;
    };
    const auto take_time = [&](std::optional<TimeArgument>& time) {
        time = ParseTime(value);
        return unless(time.has_value(), "a time",
                      "14:32, 14:32:10, \"2026-11-23 14:32:10\" or seconds since 1970");
    };
    switch (letter) {
        case 'S':
            return take_time(options.from);
        case 'E':
            return take_time(options.to);
        case 'A':
            return take_time(options.around);
        case 'D':
            options.span = ParseSpan(value);
            return unless(options.span.has_value(), "a span", "30s, 5m or 1h");
        case 'X':
            options.exception = true;
            if (value == nullptr) return "";
            options.exception_number = ParseDigits(value);
            return unless(options.exception_number.has_value(), "a number", "1 or 2");
        case 'U':
            options.utc = true;
            return "";
        case 'L':
            stretch.log_path = value;
            return "";
        default:
            return "";
    }
}

// The long options of all commands, as getopt_long takes them.
std::vector<option> LongForms() {
    std::vector<option> long_forms;
    for (const Option& row : Options()) {
        int takes = no_argument;
        if (row.value != nullptr) takes = *row.value == '[' ? optional_argument : required_argument;
        long_forms.push_back({row.name, takes, nullptr, row.letter});
    }
    long_forms.push_back({});
    return long_forms;
}

Arguments Parse(int argc, char** argv, const std::string& allowed) {
    const std::vector<option> long_forms = LongForms();
    Arguments arguments;
    opterr = 0;
    // With a colon in front, getopt_long returns ':' for a missing value.
    const std::string letters = ":" + allowed;
    for (int letter; arguments.wrong.empty();) {
        const int place = optind;
        letter = getopt_long(argc, argv, letters.c_str(), long_forms.data(), nullptr);
        if (letter == -1) break;
        // `long_forms` has the options of all commands. `allowed` has those of this command.
        const std::string word = optind > place ? argv[optind - 1] : argv[place];
        if (letter == ':') {
            arguments.wrong = "no value after " + word;
        } else if (letter == '?' || strchr(allowed.c_str(), letter) == nullptr) {
            arguments.wrong = "no such option: " + word;
        } else {
            arguments.letters += static_cast<char>(letter);
            if (letter == 'o') arguments.output = optarg;
            const char* value = optarg;
            // For "--exception 2". getopt_long accepts an optional value only behind a "=".
            if (letter == 'X' && value == nullptr && optind < argc && ParseDigits(argv[optind]))
                value = argv[optind++];
            arguments.wrong = TakeStretch(letter, value, arguments.stretch);
            if (letter == 'P' && !(arguments.phones = ParsePhones(optarg)))
                arguments.wrong = std::string("--phone needs a number, all or same, not ") + optarg;
        }
    }
    if (arguments.Has('o') && arguments.output.empty())
        arguments.wrong = "-o needs the name of a file";
    arguments.paths.assign(argv + optind, argv + argc);
    return arguments;
}

struct Command {
    size_t least_paths;
    int (*run)(const Arguments&, const Selection&);
};

const std::map<std::string_view, Command> kCommands = {
    {"info",
     {1, [](const Arguments& a,
            const Selection& files) { return Info(files, a.Has('a'), a.Has('J')); }}},
    {"cat",
     {1,
      [](const Arguments& a, const Selection& files) {
          return a.Has('W') ? Follow(a.paths[0], a.output) : Cat(files, a.output, a.phones);
      }}},
    {"verify",
     {1, [](const Arguments& a,
            const Selection& files) { return Verify(files, a.Has('F'), a.Has('J')); }}},
    {"recover",
     {1, [](const Arguments& a, const Selection&) { return RecoverFiles(a.paths, a.output); }}},
    {"report",
     {1, [](const Arguments& a,
            const Selection& files) { return WriteReport(files, a.output, a.phones); }}},
    {"check",
     {1, [](const Arguments& a,
            const Selection& files) { return Check(files, a.Has('Q'), a.phones, a.Has('J')); }}},
    {"ls",
     {0,
      [](const Arguments& a, const Selection& files) {
          return Ls(
              files,
              {.raw = a.Has('r'), .exact = a.Has('b'), .files = a.Has('f'), .json = a.Has('J')});
      }}},
};

int UsageError(const std::string& what, const std::string& help) {
    fprintf(stderr, "muxz: %s (%s)\n", PrintablePath(what).c_str(), help.c_str());
    return kUsageOrIo;
}

// Returns what is wrong with the combination of arguments, or an empty string.
std::string WrongTogether(const Arguments& arguments) {
    const bool selects = arguments.stretch.options.Any() || !arguments.stretch.log_path.empty();
    if (arguments.Has('W') && (arguments.paths.size() > 1 || arguments.phones || selects))
        return "--follow needs exactly one tree, and cannot be combined with --phone or a time "
               "range";
    // The search for a time range reads the headers first and the files later, but a pipe can be
    // read only once.
    for (const std::string& path : arguments.paths) {
        struct stat info;
        if (selects && (path == "-" || (stat(path.c_str(), &info) == 0 && S_ISFIFO(info.st_mode))))
            return "a time range needs files that can be read twice, not a pipe: " + path;
    }
    return "";
}

int Help(const std::string& name) {
    const Usage* const usage = FindUsage(name);
    if (!name.empty() && usage == nullptr)
        return UsageError("no such command: " + name, "muxz help");
    usage != nullptr ? PrintHelp(*usage) : PrintHelp();
    return kFine;
}

int Run(int argc, char** argv) {
    const std::string name = argc > 1 ? argv[1] : "";
    if (name == "--help" || name == "-h") return Help("");
    if (name == "--complete") {  // for completions/
        PrintCompletions({argv + 2, argv + argc});
        return kFine;
    }
    if (name == "help") return Help(argc > 2 ? argv[2] : "");
    if (name == "--version" || name == "-V") {
        printf("muxz %s\n", quarn::kVersion);
        return kFine;
    }
    if (name.empty()) return UsageError("no command was given", "muxz help");
    const auto command = kCommands.find(name);
    if (command == kCommands.end()) return UsageError("no such command: " + name, "muxz help");
    const Command& chosen = command->second;

    const std::string more = "muxz help " + name;
    Arguments arguments = Parse(argc - 1, argv + 1, GetoptLetters(*FindUsage(name)));
    if (arguments.wrong.empty()) arguments.wrong = arguments.stretch.options.Wrong();
    if (arguments.wrong.empty()) arguments.wrong = WrongTogether(arguments);
    if (!arguments.wrong.empty()) return UsageError(name + ": " + arguments.wrong, more);
    if (arguments.Has('h')) return Help(name);
    if (arguments.paths.size() < chosen.least_paths)
        return UsageError(name + ": no path was given", more);
    Messages messages(false);
    Selection selection;
    selection.paths = arguments.paths;
    if (selection.paths.empty()) selection.paths.emplace_back(kDefaultTree);
    if (!arguments.Has('W') && !Select(arguments.stretch, selection, messages))
        return messages.status;
    return chosen.run(arguments, selection);
}

}  // namespace

int main(int argc, char** argv) {
    // If the reader of a pipe exits, SIGPIPE ends this program, even if the parent process ignores
    // it.
    signal(SIGPIPE, SIG_DFL);
    // A write beyond the file size limit then fails with EFBIG instead of killing the program.
    signal(SIGXFSZ, SIG_IGN);
    const int status = Run(argc, argv);
    if (fflush(stdout) == 0 && ferror(stdout) == 0) return status;
    fprintf(stderr, "muxz: standard output: %s\n", strerror(errno));
    return kUsageOrIo;
}
