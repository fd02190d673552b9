// quarnctl: queries and changes the settings of the daemon, and shows its notifications.
// docs/control-protocol.md describes the protocol.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "commands.h"
#include "connection.h"
#include "core/version.h"
#include "exit_status.h"
#include "help.h"
#include "status.h"
#include "top.h"
#include "watch.h"

namespace quarnctl {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// --- arguments ---

struct Arguments {
    std::vector<std::string> words;
    WatchOptions watch;
    TopOptions top;
    bool top_only = false;  // an option was given that is for top only
    seconds timeout{-1};    // negative if none was given
    bool json = false;
    bool help = false;
    bool version = false;
};

// Separates the options from the other words. Parse returns false and sets `why` for a wrong
// option.
class Parser {
  public:
    Parser(int argc, char** argv) : given(argv + 1, argv + argc) {}

    bool Parse(Arguments& arguments, std::string& why) {
        for (; at < given.size(); ++at) {
            if (given[at] == "--") {
                arguments.words.insert(arguments.words.end(),
                                       given.begin() + static_cast<ptrdiff_t>(at) + 1, given.end());
                return true;
            }
            if (!TakeOption(arguments, why)) return false;
        }
        return true;
    }

  private:
    bool TakeOption(Arguments& arguments, std::string& why) {
        const std::string& word = given[at];
        if (word == "-h") return arguments.help = true;
        if (!word.starts_with("--")) {
            arguments.words.push_back(word);
            return true;
        }
        const size_t equals = word.find('=');
        const std::string name = word.substr(0, equals);
        const auto flag = [&](bool& option) {
            option = true;
            if (equals != std::string::npos) why = name + " takes no value";
            return equals == std::string::npos;
        };
        if (name == "--help") return flag(arguments.help);
        if (name == "--version") return flag(arguments.version);
        if (name == "--json") return flag(arguments.json);
        if (name == "--once") return arguments.top_only = flag(arguments.top.once);
        if (name == "--log") {
            arguments.top_only = true;
            return TakeValue(name, equals, "a file, or -", arguments.top.log, why);
        }
        if (name == "--interval") {
            int32_t number = 0;
            arguments.top_only = true;
            if (!TakeNumber(name, equals, 1, "a number of seconds of at least 1", number, why)) {
                return false;
            }
            arguments.top.interval = seconds(number);
            return true;
        }
        if (name == "--timeout") {
            int32_t number = 0;
            if (!TakeNumber(name, equals, 0, "a number of seconds", number, why)) return false;
            arguments.timeout = seconds(number);
            return true;
        }
        if (name == "--count") {
            return TakeNumber(name, equals, 1, "a number of at least 1", arguments.watch.count,
                              why);
        }
        if (name == "--until") {
            return TakeValue(name, equals, "a text", arguments.watch.until, why);
        }
        why = "no such option: " + name + " (quarnctl help)";
        return false;
    }

    // Sets `value` to the text behind "=", or else to the next word.
    bool TakeValue(const std::string& name, size_t equals, const char* wanted, std::string& value,
                   std::string& why) {
        if (equals != std::string::npos) {
            value = given[at].substr(equals + 1);
        } else if (at + 1 < given.size()) {
            value = given[++at];
        }
        if (value.empty()) why = name + " needs " + wanted;
        return !value.empty();
    }

    bool TakeNumber(const std::string& name, size_t equals, int32_t least, const char* wanted,
                    int32_t& number, std::string& why) {
        std::string value;
        if (!TakeValue(name, equals, wanted, value, why)) return false;
        if (ToNumber(value, number) && number >= least) return true;
        why = name + " needs " + wanted + ", not " + value;
        return false;
    }

    const std::vector<std::string> given;
    size_t at = 0;
};

// --- commands ---

// Warns if the path contains the name of a setting. The daemon does not save such a path, because
// it would take the path for the setting when it loads the file.
void WarnOfKeysIn(const Command& command, const std::vector<std::string>& words) {
    if (command.argument != Argument::kPath || words.empty()) return;
    for (const Command& other : Commands()) {
        const bool is_key =
            other.argument == Argument::kNumber || other.argument == Argument::kPath;
        if (!is_key || words[0].find(other.name) == std::string::npos) continue;
        Complain(kOk, std::string("warning: the path contains the word ") + other.name +
                          ", so it is in force now but is lost when the daemon restarts");
        return;
    }
}

int Refused(const Command& command, bool with_argument) {
    std::string hint =
        std::string("the daemon refused the request or could not carry it out: ") + command.name;
    if (with_argument) hint += std::string(" takes ") + command.range;
    return Complain(kRefused, hint + "; its log has the reason: logcat -s QUARN");
}

int RunCommand(Client& client, const Command& command, const std::vector<std::string>& words) {
    std::string request, reply, why;
    if (!MakeRequest(command, words, request, why)) return Complain(kUsage, why);
    if (const ExitStatus status = client.Ask(command, request, reply, why); status != kOk) {
        return Complain(status, why);
    }
    puts(reply.c_str());
    if (!IsOk(reply)) return Refused(command, !words.empty());
    WarnOfKeysIn(command, words);
    return kOk;
}

int Get(Client& client, const std::vector<std::string>& words) {
    const Command* const command = words.size() == 1 ? FindCommand(words[0]) : nullptr;
    if (words.size() != 1) return Complain(kUsage, "get needs the name of one setting");
    if (command == nullptr) return Complain(kUsage, "no such command: " + words[0]);
    if (!command->has_query) return Complain(kUsage, words[0] + " cannot be queried");
    std::string reply, why, value;
    if (const ExitStatus status = client.Ask(*command, command->name, reply, why); status != kOk) {
        return Complain(status, why);
    }
    if (!HasValue(reply, value)) return Refused(*command, false);
    puts(value.c_str());
    return kOk;
}

// The daemon answers this query from its own state, without the modem.
constexpr const char* kSimplestQuery = "file_size";

int Wait(seconds limit) {
    constexpr milliseconds kRetryPause(100);
    const Deadline deadline(limit);
    std::string reply, why;
    while (true) {
        const int left = deadline.Left();  // ms
        const seconds patience = left < 0 ? seconds(1) : seconds(left / 1000 + 1);
        Client client(std::min(patience, seconds(1)));
        if (client.Ask(*FindCommand(kSimplestQuery), kSimplestQuery, reply, why) == kOk) return kOk;
        if (deadline.Passed()) return Complain(kUnreachable, why);
        std::this_thread::sleep_for(kRetryPause);
    }
}

// Returns the reason if an option does not go with the command, else "".
std::string WrongTogether(const Arguments& arguments, std::string_view command) {
    const bool watches = command == "watch", tops = command == "top";
    if (arguments.json && !watches && !tops && command != "status") {
        return "--json goes with status, watch and top only";
    }
    if (arguments.top_only && !tops) return "--once, --interval and --log go with top only";
    if (!watches && (arguments.watch.count != 0 || !arguments.watch.until.empty())) {
        return "--count and --until go with watch only";
    }
    if (tops && !arguments.top.once && arguments.timeout.count() >= 0) {
        return "with top, --timeout goes with --once";
    }
    return "";
}

int Run(const Arguments& arguments) {
    std::vector<std::string> words = arguments.words;
    if (words.empty()) {
        PrintUsage(stderr);
        return kUsage;
    }
    const std::string name = words[0];
    words.erase(words.begin());
    if (const std::string why = WrongTogether(arguments, name); !why.empty()) {
        return Complain(kUsage, why);
    }
    Client client(arguments.timeout);
    if (name == "get") return Get(client, words);
    if (const Command* const command = FindCommand(name)) {
        return RunCommand(client, *command, words);
    }
    if (name != "status" && name != "watch" && name != "top" && name != "wait") {
        return Complain(kUsage, "no such command: " + name + " (quarnctl help)");
    }
    if (!words.empty()) return Complain(kUsage, name + " takes no argument");
    if (name == "status") return PrintStatus(client, arguments.json);
    if (name == "wait") return Wait(arguments.timeout);
    if (name == "top") {
        TopOptions options = arguments.top;
        options.json = arguments.json;
        options.timeout = arguments.timeout;
        return Top(options);
    }
    WatchOptions options = arguments.watch;
    options.json = arguments.json;
    options.limit = arguments.timeout;
    return Watch(options);
}

int Main(int argc, char** argv) {
    if (argc > 1 && argv[1] == std::string_view("--complete")) {  // for completions/
        PrintCompletions({argv + 2, argv + argc});
        return kOk;
    }
    Arguments arguments;
    std::string why;
    if (!Parser(argc, argv).Parse(arguments, why)) return Complain(kUsage, why);
    if (arguments.version) {
        printf("quarnctl %s\n", quarn::kVersion);
        return kOk;
    }
    if (arguments.help || (!arguments.words.empty() && arguments.words[0] == "help")) {
        PrintHelp();
        return kOk;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);  // a program that reads the output sees each line at once
    return Run(arguments);
}

}  // namespace

int Complain(ExitStatus status, const std::string& why) {
    fprintf(stderr, "quarnctl: %s\n", why.c_str());
    return status;
}

}  // namespace quarnctl

int main(int argc, char** argv) {
    const int status = quarnctl::Main(argc, argv);
    if (fflush(stdout) == 0 && ferror(stdout) == 0) return status;
    return quarnctl::Complain(quarnctl::kNoOutput, "standard output could not be written");
}
