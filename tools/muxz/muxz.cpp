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

#include "tools/muxz/commands.h"
#include "tools/muxz/messages.h"

namespace {

using namespace muxz;

constexpr const char* kDefaultTree = "/data/vendor/radio/quarn/logs";

constexpr const char* kHelp = R"(muxz reads log files.

  muxz info FILE...        header, block statistics, how the file ends
  muxz cat PATH...         the raw stream of files, captures and trees
  muxz verify PATH...      checks every block
  muxz recover FILE        finds the blocks of a damaged file
  muxz ls [TREE]           the captures of a tree

"muxz COMMAND --help" tells more. Exit status: 0 fine, 1 faults in the data, 2 usage or
input and output. A file named ".tmp" is still being written and may end anywhere.
)";

constexpr const char* kInfoHelp = R"(muxz info [-a] FILE...
Shows the header of each file, what its blocks amount to and how it ends.
  -a, --all     the modem record and unknown entries whole
Examples:
  muxz info logs/QRXMDLog_0_2024_0131_235959/QRXMDLog_0_2024_0131_235959.muxz
  muxz info -a logs/power_on_log.muxz
)";

constexpr const char* kCatHelp = R"(muxz cat [-o FILE] PATH...
Writes the raw stream of each PATH: a file, a capture folder (its files in the order of their
numbers) or a tree (its captures in capture order; power-on log and copies are left out).
What is damaged is told, the rest is written, and the exit status is 1.
  -o, --output FILE   instead of standard output
Examples:
  muxz cat /data/vendor/radio/quarn/logs | sha256sum
  muxz cat -o stream.bin logs/QRXMDLog_3_2024_0131_235959t
  muxz cat logs/power_on_log.muxz > power_on.bin
)";

constexpr const char* kVerifyHelp = R"(muxz verify PATH...
Checks every block of each PATH, a file, a capture folder or a tree (with its power-on log, without
copies): its lengths, and that it unpacks. Ends with status 1 at the first fault, which it tells
with file and byte offset.
Examples:
  muxz verify /data/vendor/radio/quarn/logs
  muxz verify logs/QRXMDLog_0_2024_0131_235959/*.muxz
)";

constexpr const char* kRecoverHelp = R"(muxz recover [-o FILE] FILE
Writes what can be unpacked of a file whose header is unknown or whose bytes are damaged or cut
anywhere, and tells what was skipped. Status 1 when something was.
  -o, --output FILE   instead of standard output
Examples:
  muxz recover -o stream.bin damaged.muxz
  muxz recover disk_image | less
)";

constexpr const char* kLsHelp = R"(muxz ls [-r] [-b] [-f] [TREE]
Lists the captures of a tree in capture order. TREE is /data/vendor/radio/quarn/logs by default.
State: "open" until the next capture starts, else "finished"; EE: a modem exception; copy: made by a
copy command, or another capture of the tree holds the same.
  -r, --raw     the unpacked sizes too (reads the lengths of all blocks)
  -b, --bytes   sizes in bytes
  -f, --files   every file of each capture
Examples:
  muxz ls
  muxz ls -r box/data/vendor/radio/quarn/logs
)";

// --- arguments

// What a command was given: the letters of its options, the argument of -o, and the rest.
struct Arguments {
    std::string letters;
    std::string output;
    std::vector<std::string> paths;
    bool wrong = false;

    bool Has(char letter) const { return letters.find(letter) != std::string::npos; }
};

Arguments Parse(int argc, char** argv, const char* allowed) {
    static constexpr option kLong[] = {
        {"help", no_argument, nullptr, 'h'},
        {"all", no_argument, nullptr, 'a'},
        {"raw", no_argument, nullptr, 'r'},
        {"bytes", no_argument, nullptr, 'b'},
        {"files", no_argument, nullptr, 'f'},
        {"output", required_argument, nullptr, 'o'},
        {nullptr, 0, nullptr, 0},
    };
    Arguments arguments;
    // getopt tells of what is no option at all; of what another command has it knows nothing.
    for (int letter; (letter = getopt_long(argc, argv, allowed, kLong, nullptr)) != -1;) {
        if (letter == '?' || strchr(allowed, letter) == nullptr) {
            arguments.wrong = true;
        } else {
            arguments.letters += static_cast<char>(letter);
            if (letter == 'o') arguments.output = optarg;
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
    size_t most_paths;
    int (*run)(const Arguments&);
};

const std::map<std::string_view, Command> kCommands = {
    {"info",
     {kInfoHelp, "ha", 1, SIZE_MAX, [](const Arguments& a) { return Info(a.paths, a.Has('a')); }}},
    {"cat",
     {kCatHelp, "ho:", 1, SIZE_MAX, [](const Arguments& a) { return Cat(a.paths, a.output); }}},
    {"verify", {kVerifyHelp, "h", 1, SIZE_MAX, [](const Arguments& a) { return Verify(a.paths); }}},
    {"recover",
     {kRecoverHelp, "ho:", 1, 1,
      [](const Arguments& a) { return RecoverFile(a.paths[0], a.output); }}},
    {"ls",
     {kLsHelp, "hrbf", 0, 1,
      [](const Arguments& a) {
          return Ls(a.paths.empty() ? kDefaultTree : a.paths[0],
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
    const auto& [help, allowed, least, most, run] = command->second;

    std::string program = "muxz " + name;
    argv[1] = program.data();  // for the messages of getopt
    const Arguments arguments = Parse(argc - 1, argv + 1, allowed);
    if (arguments.Has('h')) {
        fputs(help, stdout);
        return kFine;
    }
    if (arguments.wrong || arguments.paths.size() < least || arguments.paths.size() > most)
        return UsageError(help);
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
