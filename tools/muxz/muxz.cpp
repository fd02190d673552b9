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

namespace {

using namespace muxz;

constexpr const char* kDefaultTree = "/data/vendor/radio/quarn/logs";

constexpr const char* kHelp = R"(muxz reads log files.

  muxz check PATH...       whole or not, what is missing, when the modem crashed
  muxz ls [PATH...]        the captures
  muxz info PATH...        header, block statistics, how each file ends
  muxz cat PATH...         the raw stream of files, captures and trees
  muxz verify PATH...      checks every block
  muxz recover PATH...     finds the blocks of damaged files
  muxz report PATH...      a page for a browser, with charts

A stretch of time is taken out by --from, --to, --around or --exception ("muxz cat --help").

"muxz help COMMAND" tells more, "muxz --version" which one this is. Exit status: 0 fine, 1 faults in
the data, 2 usage or input and output. A file named ".tmp" is still being written and may end
anywhere. PATH is a tree, a capture folder, a folder with files of any captures, a file, an archive of
these (tar, also compressed, or zip), a pipe, or "-" for standard input. What comes through a pipe or
lies packed in an archive takes room in the folder that TMPDIR names, else in /tmp.
)";

constexpr const char* kInfoHelp = R"(muxz info [-a] [--json] PATH...
Shows the header of each file, what its blocks amount to and how it ends.
  -a, --all     the modem record and unknown entries whole
      --json    all that is known, for programs (docs/muxz-json.md)
Examples:
  muxz info logs/QRXMDLog_0_2024_0131_235959/QRXMDLog_0_2024_0131_235959.muxz
  muxz info -a logs/power_on_log.muxz
)";

constexpr const char* kCatHelp = R"(muxz cat [-o FILE] [--phone WHICH] PATH...
muxz cat --follow [-o FILE] TREE
Writes the raw stream of each PATH: a file, a capture folder (its files in the order of their
numbers), a tree (its captures in capture order; power-on log and copies are left out) or a folder
with files of any captures. Files given one by one are put into capture order too.
What is damaged or missing is told, the rest is written, and the exit status is 1.
  -o, --output FILE   instead of standard output
  --follow            the newest capture of a tree, and what the daemon adds to it and to captures
                      after it, until Ctrl-C
  --phone WHICH       when the files are those of several phones: the number of one as ls shows it,
                      "all" for one after the other, "same" when it is one phone all the same
Examples:
  muxz cat /data/vendor/radio/quarn/logs | sha256sum
  muxz cat -o stream.bin logs/QRXMDLog_3_2024_0131_235959t
  muxz cat logs/power_on_log.muxz > power_on.bin
  adb exec-out tar -c -C /data/vendor/radio/quarn logs | muxz cat - > stream.bin
)";

constexpr const char* kVerifyHelp = R"(muxz verify [--first] [--json] PATH...
Checks every block of each PATH, its lengths and that it unpacks, and that no file is missing
between others. Tells every fault with file and byte offset, and their number; status 1 when there
is one. Copies are left out, the power-on log counts apart.
  --first       tells the first fault and looks no further
  --json        all that is known, for programs (docs/muxz-json.md)
Examples:
  muxz verify /data/vendor/radio/quarn/logs
  muxz verify logs/QRXMDLog_0_2024_0131_235959/*.muxz
)";

constexpr const char* kRecoverHelp = R"(muxz recover [-o FILE] PATH...
Writes what can be unpacked of files whose header is unknown or whose bytes are damaged or cut
anywhere, and tells what was skipped. Status 1 when something was.
  -o, --output FILE   instead of standard output
Examples:
  muxz recover -o stream.bin damaged.muxz
  muxz recover disk_image | less
)";

constexpr const char* kLsHelp = R"(muxz ls [-r] [-b] [-f] [--json] [PATH...]
Lists captures in capture order. PATH is /data/vendor/radio/quarn/logs by default.
State: "newest" is the last capture, "being written" when a daemon has it open or it grows;
"unfinished" when its name says so though a later one is there; EE: a modem exception; copy: made by
a copy command, or another capture holds the same.
  -r, --raw     the unpacked sizes too (reads the lengths of all blocks)
  -b, --bytes   sizes in bytes
  -f, --files   every file of each capture
      --json    all that is known, for programs (docs/muxz-json.md)
Examples:
  muxz ls
  muxz ls -r box/data/vendor/radio/quarn/logs
)";

constexpr const char* kCheckHelp = R"(muxz check [--quick] [--json] [--phone WHICH] PATH...
Tells on one screen what the files hold: captures with start, end, sizes and rate; exceptions and
when they were; what is damaged or missing; the phone and what changed; the UTC offset. The last
line is the verdict. Status 0: good; 1: faults or holes; 2: something cannot be read.
  --quick         reads the lengths of the blocks, but does not unpack them
  --json          all that is known, for programs (docs/muxz-json.md)
  --phone WHICH   as of cat
Examples:
  muxz check ticket/logs
)";

constexpr const char* kReportHelp = R"(muxz report [-o FILE] [--log FILE] [--phone WHICH] PATH...
Writes a page for a browser: verdict and numbers, captures on a time axis, rates, compression, sizes,
tables of captures and files. Every block is checked. Status as of check.
  -o, --output FILE   instead of standard output
  --phone WHICH       as of cat
Examples:
  muxz report logs -o report.html
  adb logcat -d -v threadtime -s QUARN | muxz report logs --log - -o report.html
)";

constexpr const char* kStretchHelp = R"(A stretch of time:
  --from T, --to T              one end or both
  --around T [--span D]         D in all, T in its middle (D is 2m by default)
  --exception [N] [--span D]    around the N-th modem exception, the last by default
  --utc                         T is UTC; else it is the time of the phone's clock
  --log FILE                    Android log text ("logcat -v threadtime -s QUARN"; "-": standard
                                input): tells times better
T is 14:32, 14:32:10, "2026-11-23 14:32:10" or seconds since 1970; D is 30s, 5m or 1h.
cat cuts files to whole blocks and tells how sure the time is; the others take files whole.
)";

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

constexpr const char* kStretchOptions = "S:E:A:D:X::UL:";

// Stores the option `letter` in `stretch` if it is one that chooses a time range. Returns what is
// wrong with its value, or an empty string.
std::string TakeStretch(int letter, const char* value, StretchRequest& stretch) {
    StretchOptions& options = stretch.options;
    const auto unless = [value](bool good, const char* what, const char* examples) {
        return good ? "" : std::string("not ") + what + ": " + value + ", but as " + examples;
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

Arguments Parse(int argc, char** argv, const char* allowed) {
    static constexpr option kLong[] = {
        {"help", no_argument, nullptr, 'h'},
        {"all", no_argument, nullptr, 'a'},
        {"raw", no_argument, nullptr, 'r'},
        {"bytes", no_argument, nullptr, 'b'},
        {"files", no_argument, nullptr, 'f'},
        {"output", required_argument, nullptr, 'o'},
        {"first", no_argument, nullptr, 'F'},
        {"quick", no_argument, nullptr, 'Q'},
        {"phone", required_argument, nullptr, 'P'},
        {"from", required_argument, nullptr, 'S'},
        {"to", required_argument, nullptr, 'E'},
        {"around", required_argument, nullptr, 'A'},
        {"span", required_argument, nullptr, 'D'},
        {"exception", optional_argument, nullptr, 'X'},
        {"utc", no_argument, nullptr, 'U'},
        {"log", required_argument, nullptr, 'L'},
        {"json", no_argument, nullptr, 'J'},
        {"follow", no_argument, nullptr, 'W'},
        {nullptr, 0, nullptr, 0},
    };
    Arguments arguments;
    opterr = 0;
    // With a colon in front, getopt_long returns ':' for a missing value.
    const std::string letters = std::string(":") + allowed;
    for (int letter; arguments.wrong.empty();) {
        const int place = optind;
        letter = getopt_long(argc, argv, letters.c_str(), kLong, nullptr);
        if (letter == -1) break;
        // kLong has the long options of all commands. `allowed` has those of this command.
        const std::string word = optind > place ? argv[optind - 1] : argv[place];
        if (letter == ':') {
            arguments.wrong = "no value behind " + word;
        } else if (letter == '?' || strchr(allowed, letter) == nullptr) {
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
                arguments.wrong = std::string("--phone is a number, all or same, not ") + optarg;
        }
    }
    if (arguments.Has('o') && arguments.output.empty()) arguments.wrong = "-o names no file";
    arguments.paths.assign(argv + optind, argv + argc);
    return arguments;
}

struct Command {
    const char* help;
    const char* allowed;  // options, in the form that getopt uses
    bool stretch;         // accepts the options that choose a time range
    size_t least_paths;
    int (*run)(const Arguments&, const Selection&);
};

const std::map<std::string_view, Command> kCommands = {
    {"info",
     {kInfoHelp, "haJ", true, 1,
      [](const Arguments& a, const Selection& files) {
          return Info(files, a.Has('a'), a.Has('J'));
      }}},
    {"cat",
     {kCatHelp, "ho:P:W", true, 1,
      [](const Arguments& a, const Selection& files) {
          return a.Has('W') ? Follow(a.paths[0], a.output) : Cat(files, a.output, a.phones);
      }}},
    {"verify",
     {kVerifyHelp, "hFJ", true, 1,
      [](const Arguments& a, const Selection& files) {
          return Verify(files, a.Has('F'), a.Has('J'));
      }}},
    {"recover",
     {kRecoverHelp, "ho:", false, 1,
      [](const Arguments& a, const Selection&) { return RecoverFiles(a.paths, a.output); }}},
    {"report",
     {kReportHelp, "ho:P:", true, 1,
      [](const Arguments& a, const Selection& files) {
          return WriteReport(files, a.output, a.phones);
      }}},
    {"check",
     {kCheckHelp, "hQP:J", true, 1,
      [](const Arguments& a, const Selection& files) {
          return Check(files, a.Has('Q'), a.phones, a.Has('J'));
      }}},
    {"ls",
     {kLsHelp, "hrbfJ", true, 0,
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
        return "--follow wants one tree and no choice among its files";
    // The search for a time range reads the headers first and the files later, but a pipe can be
    // read only once.
    for (const std::string& path : arguments.paths) {
        struct stat info;
        if (selects && (path == "-" || (stat(path.c_str(), &info) == 0 && S_ISFIFO(info.st_mode))))
            return "a stretch of time wants files that can be read twice, not a pipe: " + path;
    }
    return "";
}

int Help(const std::string& name) {
    const auto command = kCommands.find(name);
    if (!name.empty() && command == kCommands.end())
        return UsageError("no such command: " + name, "muxz help");
    fputs(name.empty() ? kHelp : command->second.help, stdout);
    if (!name.empty() && command->second.stretch) fputs(kStretchHelp, stdout);
    return kFine;
}

int Run(int argc, char** argv) {
    const std::string name = argc > 1 ? argv[1] : "";
    if (name == "--help" || name == "-h") return Help("");
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
    const std::string allowed =
        std::string(chosen.allowed) + (chosen.stretch ? kStretchOptions : "");
    Arguments arguments = Parse(argc - 1, argv + 1, allowed.c_str());
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
