// quarnctl: asks and sets what the daemon does, and shows what changes. The protocol is told in
// docs/control-protocol.md.
#include <cutils/sockets.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

enum ExitStatus : int { kOk = 0, kRefused = 1, kUnreachable = 2 };

constexpr const char* kCommandSocket = "/dev/quarn_server.socket";
constexpr const char* kNotifySocket = "/dev/quarn_callback_server.socket";
constexpr size_t kRequestSize = 127;  // bytes that the daemon reads, the NUL among them
constexpr size_t kReplySize = 128;
constexpr seconds kForEver{0};

constexpr const char* kTransferTypes[] = {"usb", "storage", "socket", "exit"};
constexpr const char* kLogModes[] = {"disable", "streaming", "wrapping"};
constexpr const char* kLogLevels[] = {"all_off",    "moderate",    "standard", "slim",
                                      "ultra slim", "pls_ps_only", "low_power"};

enum class Argument { kNone, kNumber, kPath, kCopy };

struct Command {
    const char* name;
    bool has_query;  // sent without an argument it asks and changes nothing
    Argument argument;
    const char* range;    // what a set takes
    const char* meaning;  // with its unit, and whether the daemon keeps it over a restart
    seconds patience;     // for the reply
    std::span<const char* const> names = {};
    const char* unit = "";
};

constexpr seconds kPatience{30};  // a request may make a few exchanges with the modem, 5 s each
constexpr seconds kSwitchPatience{120};  // the writer ends first

constexpr Command kCommands[] = {
    {"log_mode", true, Argument::kNumber, "0 disable, 1 streaming, 2 wrapping",
     "the modem's log mode; saved", kPatience, kLogModes},
    {"log_level", true, Argument::kNumber,
     "0 all_off, 1 moderate, 2 standard, 3 slim, 4 ultra slim, 5 pls_ps_only, 6 low_power; "
     "only while the modem logs",
     "how much the modem logs; saved in place of log_filter", kPatience, kLogLevels},
    {"log_filter", false, Argument::kPath,
     "path of a filter file that the daemon can read; only while the modem logs",
     "a filter of your own; saved in place of log_level", kPatience},
    {"flush_interval",
     true,
     Argument::kNumber,
     "milliseconds; the modem decides what it takes",
     "how long the modem may hold log data back; saved",
     kPatience,
     {},
     "ms"},
    {"flush_status", true, Argument::kNone, "", "the modem's flush status", kPatience},
    {"trigger_flush", false, Argument::kNone, "", "the modem hands over what it holds", kPatience},
    {"flush_ring_buf", false, Argument::kNone, "",
     "what is compressed but not yet in the log file is written to it", kPatience},
    {"flush_log_buffer", false, Argument::kNone, "",
     "both: all that the modem and the daemon hold goes to the log file", kPatience},
    {"transfer_type", true, Argument::kNumber,
     "1 storage, 3 exit; 0 usb and 2 socket exist but are refused",
     "where the log stream goes; exit ends the daemon and is not saved, storage is",
     kSwitchPatience, kTransferTypes},
    {"file_size",
     true,
     Argument::kNumber,
     "1 to 4095 MB",
     "size of one log file; saved",
     kPatience,
     {},
     "MB"},
    {"recycle_size",
     true,
     Argument::kNumber,
     "1 to 4194303 MB",
     "how much all log files together may hold; saved",
     kPatience,
     {},
     "MB"},
    {"recycle_ee", true, Argument::kNumber, "0 no, 1 yes",
     "whether exception folders may be emptied too; saved", kPatience},
    {"recycle_keep_ee_size",
     true,
     Argument::kNumber,
     "0 to 4194303 MB; 0: no trimming",
     "how much of each exception folder is kept when it is trimmed; saved",
     kPatience,
     {},
     "MB"},
    {"log_folder", true, Argument::kPath,
     "/data/vendor/radio/quarn/logs or one folder directly in it",
     "where captures go, from the next one on; saved", kPatience},
    {"copy_log_file", false, Argument::kCopy,
     "DIRECTORY MB FLUSH: 1 to 2047 MB, flush first 0 or 1",
     "copies the newest log files; the reply has the bytes copied", kForEver},
};

constexpr const char* kUse =
    "Use: quarnctl [--timeout SECONDS] COMMAND [ARGUMENT...]\n"
    "\n"
    "  quarnctl COMMAND           asks the daemon, or has it do something; prints its reply\n"
    "  quarnctl COMMAND ARGUMENT  sets something; a value can be given by its number or its name\n"
    "  quarnctl status            everything that can be asked, and settings that fight each "
    "other\n"
    "  quarnctl watch             prints what changes until it is stopped; outlives the daemon\n"
    "  quarnctl help              this\n"
    "\n"
    "  --timeout SECONDS          how long to wait for a reply, 0: for ever (default: 30, for\n"
    "                             transfer_type 120, for copy_log_file for ever)\n";

int Complain(int status, const std::string& why) {
    fprintf(stderr, "quarnctl: %s\n", why.c_str());
    return status;
}

void PrintHelp() {
    printf("%s\nCommands:\n", kUse);
    for (const Command& command : kCommands) {
        const bool only_asks = command.has_query && command.argument == Argument::kNone;
        printf("\n  %-22s %s\n", command.name, command.meaning);
        if (command.argument != Argument::kNone) printf("  %-22s   takes %s\n", "", command.range);
        if (only_asks) printf("  %-22s   can only be asked\n", "");
        if (!command.has_query && command.argument != Argument::kNone) {
            printf("  %-22s   cannot be asked\n", "");
        }
    }
    printf(
        "\nExit status: 0 \"ok\", 1 \"error\" or wrongly used, 2 the daemon cannot be reached or "
        "does\n"
        "not answer in time.\n");
}

const Command* FindCommand(std::string_view name) {
    const auto* const found =
        std::find_if(std::begin(kCommands), std::end(kCommands),
                     [&](const Command& command) { return command.name == name; });
    return found == std::end(kCommands) ? nullptr : found;
}

bool ToNumber(std::string_view text, int32_t& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

// The name of a value; empty when it has none.
std::string NameOf(std::span<const char* const> names, std::string_view value) {
    int32_t number = -1;
    if (!ToNumber(value, number) || number < 0 || static_cast<size_t>(number) >= names.size()) {
        return "";
    }
    return names[static_cast<size_t>(number)];
}

std::string NameOf(const Command& command, std::string_view value) {
    // A filter has taken the place of every level.
    if (command.names.data() == std::data(kLogLevels) && value == "-1") return "a custom filter";
    return NameOf(command.names, value);
}

// --- what the daemon would misunderstand is not sent ---

// The daemon takes anything that is not a number for 0, so names become numbers here.
bool NumberArgument(const Command& command, std::string& argument) {
    int32_t number = 0;
    if (ToNumber(argument, number)) return true;
    const auto named = std::find(command.names.begin(), command.names.end(), argument);
    if (named == command.names.end()) return false;
    argument = std::to_string(named - command.names.begin());
    return true;
}

// Empty when the request can be sent, else why not. Names in `argument` become numbers.
std::string CheckArgument(const Command& command, bool has_argument, std::string& argument) {
    const std::string name = command.name;
    if (!has_argument) {
        const bool needed = !command.has_query && command.argument != Argument::kNone;
        return needed ? name + " wants an argument: " + command.range : "";
    }
    switch (command.argument) {
        case Argument::kNone:
            return name + " takes no argument";
        case Argument::kNumber:
            if (!NumberArgument(command, argument)) {
                return name + " does not know \"" + argument + "\", it takes " + command.range;
            }
            break;
        case Argument::kPath:
        case Argument::kCopy:
            // The daemon's own working folder is not the caller's.
            if (!argument.starts_with('/')) return name + " wants a path that begins with /";
            break;
    }
    if (argument.find('\n') != std::string::npos) return "an argument cannot hold a newline";
    const size_t size = name.size() + 1 + argument.size() + 1;
    if (size <= kRequestSize) return "";
    return "the request is too long by " + std::to_string(size - kRequestSize) +
           " bytes: the argument of " + name + " may have " +
           std::to_string(kRequestSize - name.size() - 2);
}

// --- the command socket ---

class Descriptor {
  public:
    explicit Descriptor(int descriptor = -1) : fd(descriptor) {}
    ~Descriptor() {
        if (fd >= 0) close(fd);
    }
    Descriptor(Descriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    int get() const { return fd; }

  private:
    int fd;
};

// Negative, with errno set, when nobody listens or, with the queue of waiting clients full, nobody
// accepts in time.
Descriptor Connect(const char* name, seconds patience) {
    Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const timeval limit = {static_cast<time_t>(patience.count()), 0};
    if (fd.get() < 0 || setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) != 0 ||
        socket_local_client_connect(fd.get(), name, ANDROID_SOCKET_NAMESPACE_ABSTRACT,
                                    SOCK_STREAM) < 0) {
        return Descriptor();
    }
    return fd;
}

bool WaitReadable(int fd, seconds patience, Clock::time_point start) {
    while (true) {
        int wait = -1;
        if (patience != kForEver) {
            const auto left =
                std::chrono::ceil<milliseconds>(start + patience - Clock::now()).count();
            wait = static_cast<int>(std::max<int64_t>(0, left));
        }
        pollfd poll_fd = {fd, POLLIN, 0};
        const int ready = poll(&poll_fd, 1, wait);
        if (ready >= 0 || errno != EINTR) return ready > 0;
    }
}

class Client {
  public:
    // `patience` overrides every command's own; negative: none given.
    explicit Client(seconds given_patience) : given(given_patience) {}

    // kOk and the reply's text, or kUnreachable with a complaint.
    int Ask(const Command& command, const std::string& request, std::string& reply) {
        const seconds patience = given.count() >= 0 ? given : command.patience;
        if (fd.get() < 0) {
            fd = Connect(kCommandSocket, patience);
            if (fd.get() < 0) {
                const bool full = errno == EAGAIN;
                return Complain(kUnreachable, std::string("the daemon cannot be reached: ") +
                                                  (full ? "it is busy" : strerror(errno)));
            }
        }
        if (send(fd.get(), request.c_str(), request.size() + 1, MSG_NOSIGNAL) < 0) {
            return Complain(kUnreachable, HungUp());
        }
        return Receive(patience, reply);
    }

  private:
    static std::string HungUp() {
        return "the daemon hung up without an answer: it is ending, or serves ten clients already";
    }

    int Receive(seconds patience, std::string& reply) {
        std::array<char, kReplySize> block;
        const Clock::time_point start = Clock::now();
        for (size_t got = 0; got < block.size();) {
            if (!WaitReadable(fd.get(), patience, start)) {
                return Complain(kUnreachable,
                                "no answer within " + std::to_string(patience.count()) +
                                    " s: the daemon is busy, perhaps with another client's copy");
            }
            const ssize_t n = recv(fd.get(), block.data() + got, block.size() - got, 0);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return Complain(kUnreachable, HungUp());
            got += static_cast<size_t>(n);
        }
        reply.assign(block.data(), strnlen(block.data(), block.size()));
        return kOk;
    }

    const seconds given;
    Descriptor fd;
};

// --- one command ---

// A saved setting is found by the first place where its key stands, even inside another's value.
void WarnOfKeysIn(const Command& command, const std::string& argument) {
    if (command.argument != Argument::kPath) return;
    for (const Command& other : kCommands) {
        const bool is_key =
            other.argument == Argument::kNumber || other.argument == Argument::kPath;
        if (!is_key || &other == &command) continue;
        if (argument.find(other.name) == std::string::npos) continue;
        Complain(kOk, std::string("warning: the path holds the word ") + other.name +
                          ", which can be taken for that setting when it is saved or loaded");
    }
}

int RunCommand(Client& client, const Command& command, const std::vector<std::string>& words) {
    std::string argument;
    for (const std::string& word : words) argument += (&word == words.data() ? "" : " ") + word;
    const std::string why = CheckArgument(command, !words.empty(), argument);
    if (!why.empty()) return Complain(kRefused, why);

    std::string request = command.name;
    if (!words.empty()) request += ' ' + argument;
    std::string reply;
    if (const int status = client.Ask(command, request, reply); status != kOk) return status;
    puts(reply.c_str());
    if (reply == "ok" || reply.starts_with("ok,")) {
        WarnOfKeysIn(command, argument);
        return kOk;
    }
    std::string hint = std::string("the daemon refused or could not do it: ") + command.name;
    if (!words.empty()) hint += std::string(" takes ") + command.range;
    return Complain(kRefused, hint + "; its log has the reason");
}

// --- status ---

using Answers = std::map<std::string, std::string>;  // values by command; none where "error" came

// Whether all of `names` were answered with numbers; then `numbers` has them in that order.
bool Numbers(const Answers& answers, std::initializer_list<const char*> names,
             std::vector<int32_t>& numbers) {
    numbers.clear();
    for (const char* name : names) {
        const auto answer = answers.find(name);
        int32_t number = 0;
        if (answer == answers.end() || !ToNumber(answer->second, number)) return false;
        numbers.push_back(number);
    }
    return true;
}

void PrintWarnings(const Answers& answers) {
    std::vector<int32_t> n;
    if (Numbers(answers, {"recycle_size", "file_size"}, n) && n[0] < n[1]) {
        printf(
            "warning: recycle_size (%d MB) is below one file (%d MB): the file being written "
            "stays, all others go\n",
            n[0], n[1]);
    }
    if (Numbers(answers, {"recycle_keep_ee_size", "recycle_size"}, n) && n[0] >= n[1]) {
        printf(
            "warning: recycle_keep_ee_size (%d MB) is not below recycle_size (%d MB): trimming "
            "exception folders never makes room\n",
            n[0], n[1]);
    }
    if (Numbers(answers, {"log_mode", "log_level"}, n)) {
        const std::string level = NameOf(kLogLevels, std::to_string(n[1]));
        if (n[0] == 0 && n[1] > 0) {
            printf(
                "warning: log_level is %d (%s), but log_mode is 0 (disable): nothing is "
                "logged\n",
                n[1], level.c_str());
        }
        if (n[0] != 0 && n[1] == 0) {
            printf(
                "warning: log_mode is %d (%s), but log_level is 0 (all_off): nothing is "
                "logged\n",
                n[0], NameOf(kLogModes, std::to_string(n[0])).c_str());
        }
    }
}

int PrintStatus(Client& client) {
    Answers answers;
    bool all_answered = true;
    for (const Command& command : kCommands) {
        if (!command.has_query) continue;
        std::string reply;
        if (const int status = client.Ask(command, command.name, reply); status != kOk) {
            return status;
        }
        if (!reply.starts_with("ok,")) {
            all_answered = false;
            printf("%-22s %s\n", command.name, reply.c_str());
            continue;
        }
        const std::string value = reply.substr(3);
        const std::string name = NameOf(command, value);
        answers[command.name] = value;
        printf("%-22s %s%s%s%s%s\n", command.name, value.c_str(), *command.unit != '\0' ? " " : "",
               command.unit, name.empty() ? "" : "  ", name.c_str());
    }
    PrintWarnings(answers);
    if (all_answered) return kOk;
    return Complain(kRefused, "not everything could be asked: the modem may be away");
}

// --- watch ---

std::string Now() {
    const auto now = std::chrono::system_clock::now();
    const time_t whole = std::chrono::system_clock::to_time_t(now);
    const auto ms = std::chrono::duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    tm local = {};
    localtime_r(&whole, &local);
    char day[32];
    strftime(day, sizeof(day), "%Y-%m-%d %H:%M:%S", &local);
    char text[48];
    snprintf(text, sizeof(text), "%s.%03d", day, static_cast<int>(ms));
    return text;
}

void PrintNotification(const std::string& text) {
    const size_t comma = std::min(text.find(','), text.size());
    const std::string word = text.substr(0, comma);
    const std::string value = text.substr(std::min(comma + 1, text.size()));
    std::string name;
    if (word == "cb_log_mode") name = NameOf(kLogModes, value);
    if (word == "cb_transfer_type") name = NameOf(kTransferTypes, value);
    if (word == "cb_reboot") name = "the modem rebooted, the daemon restarts";
    printf("%s %s%s%s\n", Now().c_str(), text.c_str(), name.empty() ? "" : "  ", name.c_str());
}

// Prints until the daemon hangs up.
class Watcher {
  public:
    [[noreturn]] void Run() {
        while (true) {
            const Descriptor fd = Connect(kNotifySocket, kPatience);
            if (fd.get() >= 0) Follow(fd.get());
            if (fd.get() < 0) Tell("waiting for the daemon");
            std::this_thread::sleep_for(kRetryPause);
        }
    }

  private:
    static constexpr milliseconds kRetryPause{500};
    static constexpr size_t kMaxNotification = 4096;

    // Each change of how things stand once.
    void Tell(const char* state) {
        if (told == state) return;
        told = state;
        fprintf(stderr, "%s %s\n", Now().c_str(), state);
    }

    // A daemon with all places taken accepts and hangs up; so a connection counts only after a
    // while.
    void Follow(int fd) {
        pollfd poll_fd = {fd, POLLIN, 0};
        bool served = poll(&poll_fd, 1, static_cast<int>(kRetryPause.count())) == 0;
        if (served) Tell("connected");
        std::string pending;
        char piece[512];
        while (true) {
            const ssize_t n = recv(fd, piece, sizeof(piece), 0);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            served = true;
            Tell("connected");
            pending.append(piece, static_cast<size_t>(n));
            for (size_t end; (end = pending.find('\0')) != std::string::npos;) {
                PrintNotification(pending.substr(0, end));
                pending.erase(0, end + 1);
            }
            if (pending.size() > kMaxNotification) pending.clear();
        }
        Tell(served ? "the daemon went away"
                    : "the daemon hung up at once: it is ending, or has ten subscribers already");
    }

    std::string told;
};

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> words(argv + 1, argv + argc);
    int32_t timeout = -1;
    if (!words.empty() && words[0] == "--timeout") {
        if (words.size() < 2 || !ToNumber(words[1], timeout) || timeout < 0) {
            return Complain(kRefused, "--timeout wants a number of seconds");
        }
        words.erase(words.begin(), words.begin() + 2);
    }
    if (words.empty()) {
        fputs(kUse, stderr);
        return kRefused;
    }
    const std::string name = words[0];
    words.erase(words.begin());
    if (name == "help" || name == "--help" || name == "-h") {
        PrintHelp();
        return kOk;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);  // whoever reads along sees each line as it comes
    Client client{seconds(timeout)};
    if (name == "status" || name == "watch") {
        if (!words.empty()) return Complain(kRefused, name + " takes no argument");
        if (name == "status") return PrintStatus(client);
        Watcher().Run();
    }
    if (const Command* const command = FindCommand(name)) {
        return RunCommand(client, *command, words);
    }
    return Complain(kRefused, "no such command: " + name + " (quarnctl help)");
}
