// muxz: reads log files. Exit status: 0 fine, 1 faults in the data, 2 usage or input and output.
#include <getopt.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "storage/log_names.h"
#include "tools/muxz/commands.h"
#include "tools/muxz/messages.h"

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

"muxz COMMAND --help" tells more. Exit status: 0 fine, 1 faults in the data, 2 usage or
input and output. A file named ".tmp" is still being written and may end anywhere.
PATH is a tree, a capture folder, a folder with files of any captures, or a file.
)";

constexpr const char* kInfoHelp = R"(muxz info [-a] PATH...
Shows the header of each file, what its blocks amount to and how it ends.
  -a, --all     the modem record and unknown entries whole
Examples:
  muxz info logs/QRXMDLog_0_2024_0131_235959/QRXMDLog_0_2024_0131_235959.muxz
  muxz info -a logs/power_on_log.muxz
)";

constexpr const char* kCatHelp = R"(muxz cat [-o FILE] [--phone WHICH] PATH...
Writes the raw stream of each PATH: a file, a capture folder (its files in the order of their
numbers), a tree (its captures in capture order; power-on log and copies are left out) or a folder
with files of any captures. Files given one by one are put into capture order too.
What is damaged or missing is told, the rest is written, and the exit status is 1.
  -o, --output FILE   instead of standard output
  --phone WHICH       when the files are those of several phones: the number of one as ls shows it,
                      "all" for one after the other, "same" when it is one phone all the same
Examples:
  muxz cat /data/vendor/radio/quarn/logs | sha256sum
  muxz cat -o stream.bin logs/QRXMDLog_3_2024_0131_235959t
  muxz cat logs/power_on_log.muxz > power_on.bin
)";

constexpr const char* kVerifyHelp = R"(muxz verify [--first] PATH...
Checks every block of each PATH, its lengths and that it unpacks, and that no file is missing
between others. Tells every fault with file and byte offset, and their number; status 1 when there
is one. Copies are left out, the power-on log counts apart.
  --first       tells the first fault and looks no further
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

constexpr const char* kLsHelp = R"(muxz ls [-r] [-b] [-f] [PATH...]
Lists captures in capture order. PATH is /data/vendor/radio/quarn/logs by default.
State: "newest" is the last capture, "being written" when a daemon has it open or it grows;
"unfinished" when its name says so though a later one is there; EE: a modem exception; copy: made by
a copy command, or another capture holds the same.
  -r, --raw     the unpacked sizes too (reads the lengths of all blocks)
  -b, --bytes   sizes in bytes
  -f, --files   every file of each capture
Examples:
  muxz ls
  muxz ls -r box/data/vendor/radio/quarn/logs
)";

constexpr const char* kCheckHelp = R"(muxz check [--quick] [--phone WHICH] PATH...
Tells on one screen what the files hold: captures with start, end, sizes and rate; exceptions and
when they were; what is damaged or missing; the phone and what changed; the UTC offset. The last
line is the verdict. Status 0: good; 1: faults or holes; 2: something cannot be read.
  --quick         reads the lengths of the blocks, but does not unpack them
  --phone WHICH   as of cat
Examples:
  muxz check ticket/logs
)";

// --- arguments

// What a command was given: the letters of its options, what two of them say, and the rest.
struct Arguments {
    std::string letters;
    std::string output;
    Phones phones;
    std::vector<std::string> paths;
    bool wrong = false;

    bool Has(char letter) const { return letters.find(letter) != std::string::npos; }
};

Phones ParsePhones(const std::string& text) {
    if (text == "all") return PhoneChoice();
    if (text == "same") return PhoneChoice{PhoneChoice::Which::kSame};
    const auto number = quarn::log_names::ParseIndex(text);
    if (!number || *number == 0) return std::nullopt;
    return PhoneChoice{PhoneChoice::Which::kOne, *number};
}

Arguments Parse(int argc, char** argv, const char* allowed) {
    static constexpr option kLong[] = {
        {"help", no_argument, nullptr, 'h'},        {"all", no_argument, nullptr, 'a'},
        {"raw", no_argument, nullptr, 'r'},         {"bytes", no_argument, nullptr, 'b'},
        {"files", no_argument, nullptr, 'f'},       {"output", required_argument, nullptr, 'o'},
        {"first", no_argument, nullptr, 'F'},       {"quick", no_argument, nullptr, 'Q'},
        {"phone", required_argument, nullptr, 'P'}, {nullptr, 0, nullptr, 0},
    };
    Arguments arguments;
    // getopt tells of what is no option at all; of what another command has it knows nothing.
    for (int letter; (letter = getopt_long(argc, argv, allowed, kLong, nullptr)) != -1;) {
        if (letter == '?' || strchr(allowed, letter) == nullptr) {
            arguments.wrong = true;
        } else {
            arguments.letters += static_cast<char>(letter);
            if (letter == 'o') arguments.output = optarg;
            if (letter == 'P' && !(arguments.phones = ParsePhones(optarg))) arguments.wrong = true;
        }
    }
    if (arguments.Has('o') && arguments.output.empty()) arguments.wrong = true;
    arguments.paths.assign(argv + optind, argv + argc);
    return arguments;
}

struct Command {
    const char* help;
    const char* allowed;  // options as getopt takes them
    size_t least_paths;
    int (*run)(const Arguments&);
};

const std::map<std::string_view, Command> kCommands = {
    {"info", {kInfoHelp, "ha", 1, [](const Arguments& a) { return Info(a.paths, a.Has('a')); }}},
    {"cat",
     {kCatHelp, "ho:P:", 1, [](const Arguments& a) { return Cat(a.paths, a.output, a.phones); }}},
    {"verify",
     {kVerifyHelp, "hF", 1, [](const Arguments& a) { return Verify(a.paths, a.Has('F')); }}},
    {"recover",
     {kRecoverHelp, "ho:", 1, [](const Arguments& a) { return RecoverFiles(a.paths, a.output); }}},
    {"check",
     {kCheckHelp, "hQP:", 1,
      [](const Arguments& a) { return Check(a.paths, a.Has('Q'), a.phones); }}},
    {"ls",
     {kLsHelp, "hrbf", 0,
      [](const Arguments& a) {
          return Ls(a.paths.empty() ? std::vector<std::string>{kDefaultTree} : a.paths,
                    {.raw = a.Has('r'), .exact = a.Has('b'), .files = a.Has('f')});
      }}},
};

int UsageError(const char* help) {
    fputs(help, stderr);
    return kUsageOrIo;
}

int Run(int argc, char** argv) {
    const std::string name = argc > 1 ? argv[1] : "";
    if (name == "--help" || name == "-h") {
        fputs(kHelp, stdout);
        return kFine;
    }
    const auto command = kCommands.find(name);
    if (command == kCommands.end()) return UsageError(kHelp);
    const auto& [help, allowed, least, run] = command->second;

    std::string program = "muxz " + name;
    argv[1] = program.data();  // for the messages of getopt
    const Arguments arguments = Parse(argc - 1, argv + 1, allowed);
    if (arguments.Has('h')) {
        fputs(help, stdout);
        return kFine;
    }
    if (arguments.wrong || arguments.paths.size() < least) return UsageError(help);
    return run(arguments);
}

}  // namespace

int main(int argc, char** argv) {
    // A reader that leaves and a limit on file sizes are told as errors of the write.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    const int status = Run(argc, argv);
    if (fflush(stdout) == 0 && ferror(stdout) == 0) return status;
    fprintf(stderr, "muxz: standard output: %s\n", strerror(errno));
    return kUsageOrIo;
}
