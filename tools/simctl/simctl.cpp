// simctl: sends one line to the console of a running simulated phone and prints the reply.
#include <poll.h>
#include <sys/time.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "core/version.h"
#include "sim/console.h"
#include "sim/socket_address.h"
#include "tools/simctl/completions.h"

namespace {

enum ExitStatus : int { kOk = 0, kRefused = 1, kUsage = 2, kUnreachable = 3, kNoOutput = 4 };

constexpr int kMaxPatience = 1'000'000;              // seconds; in milliseconds it fits an int
constexpr size_t kMaxReplyLine = size_t{64} * 1024;  // bytes; lines of the phone are far shorter

struct Options {
    std::string box;                    // empty if none was given
    std::chrono::seconds patience{30};  // for the whole reply
};

constexpr const char* kHelp = R"(Usage: simctl [OPTION...] COMMAND [ARGUMENT...]

Sends one command to the simulated phone that runs in a box, and prints the reply.

Commands:
  help [COMMAND]  lists the commands of the phone, or explains one; needs no running phone
  check FILE      prints the lines of a scenario that are wrong; needs no running phone
  get KEY         prints one value of "simctl state" alone, for scripts

Options:
  --box DIR       the folder of the box. The default is the first of these that exists: the folder
                  "box" in the current folder; "box" in the checkout in which simctl was built; for
                  an installed simctl, the box of quarn-run, which is "quarn/box" in
                  $XDG_STATE_HOME or in ~/.local/state
  --timeout S     how many seconds to wait for the reply; the default is 30
  --version       prints the version
  --help          prints this help

Exit status:
  0  success
  1  the phone refused the command
  2  wrong usage
  3  the phone cannot be reached
  4  standard output could not be written
)";

int Complain(int status, const std::string& why) {
    fprintf(stderr, "simctl: %s\n", why.c_str());
    return status;
}

std::string DefaultBox() {
    std::error_code error;
    if (std::filesystem::is_directory("box/modem", error)) return "box";
    // CHECKOUT/build/PRESET/tools/simctl
    const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
    const auto checkout = self.parent_path() / "../../..";
    if (std::filesystem::is_regular_file(checkout / "run", error)) return checkout / "box";
    // The same rule as in packaging/layout.sh.
    const char* state = getenv("XDG_STATE_HOME");
    if (state != nullptr && *state == '/') return std::string(state) + "/quarn/box";
    const char* home = getenv("HOME");
    if (home != nullptr && *home != '\0') return std::string(home) + "/.local/state/quarn/box";
    return "box";
}

// Makes a line that the phone splits into the same words. Returns false if a word cannot be sent.
bool JoinWords(const std::vector<std::string>& words, std::string* line) {
    for (const std::string& word : words) {
        if (word.find_first_of("\"\n") != std::string::npos) return false;
        const bool plain = !word.empty() && word.find_first_of(" \t\r") == std::string::npos;
        if (!line->empty()) *line += ' ';
        *line += plain ? word : '"' + word + '"';
    }
    *line += '\n';
    return true;
}

int Connect(const std::string& box, std::chrono::seconds limit) {
    const sim::SocketAddress address(box + "/modem", sim::kConsoleSocketName);
    if (!address.ok()) return -1;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1) return -1;
    // Limits connecting and sending. The reply has its own deadline.
    const timeval patience = {static_cast<time_t>(limit.count()), 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
    if (connect(fd, address.address(), sim::SocketAddress::size()) != 0) {
        const int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

// As recv(2), but waits at most until `deadline`. Returns -1 with errno ETIMEDOUT after that.
ssize_t Receive(int fd, char* piece, size_t size, std::chrono::steady_clock::time_point deadline) {
    using std::chrono::milliseconds;
    while (true) {
        const auto left =
            std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd readable = {fd, POLLIN, 0};
        const int ready = left.count() > 0 ? poll(&readable, 1, static_cast<int>(left.count())) : 0;
        if (ready == 0) errno = ETIMEDOUT;
        const ssize_t got = ready > 0 ? recv(fd, piece, size, 0) : -1;
        if (got >= 0 || errno != EINTR) return got;
    }
}

// Prints the wrong lines of a scenario on standard output, one message in each line.
int CheckScenario(const std::vector<std::string>& words) {
    if (words.size() != 2) return Complain(kUsage, "check needs one file");
    if (!std::ifstream(words[1])) {
        return Complain(kUsage, "cannot read " + words[1] + ": " + strerror(errno));
    }
    const auto faults = sim::Console("").CheckScenario(words[1]);
    for (const auto& [line, why] : faults) {
        printf("%s, line %d: %s\n", words[1].c_str(), line, why.c_str());
    }
    return faults.empty() ? kOk : kRefused;
}

int ShowHelp(const std::vector<std::string>& words) {
    std::string line;
    for (const std::string& word : words) line += word + ' ';
    const sim::Reply reply = sim::Console("").Execute(line);
    if (!reply.ok) return Complain(kUsage, reply.text);
    fputs(reply.text.c_str(), stdout);
    return kOk;
}

// Prints the lines of the reply as they arrive, up to the mark that ends it. Returns the exit
// status.
int PrintReply(int fd, std::chrono::seconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    std::string pending;
    char piece[4096];
    while (true) {
        const ssize_t got = Receive(fd, piece, sizeof(piece), deadline);
        if (got < 0) return Complain(kUnreachable, std::string("no answer: ") + strerror(errno));
        if (got == 0)
            return Complain(kUnreachable, "the phone closed the connection without an answer");
        pending.append(piece, static_cast<size_t>(got));
        for (size_t end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
            const std::string line = pending.substr(0, end);
            pending.erase(0, end + 1);
            if (line == sim::kOkMark) return kOk;
            if (line.starts_with(sim::kErrorMark)) {
                return Complain(kRefused, line.substr(sim::kErrorMark.size()));
            }
            puts(line.c_str());
        }
        if (pending.size() > kMaxReplyLine) {
            return Complain(kUnreachable, "a line of the answer is too long");
        }
    }
}

// Sends the words to the phone and prints its reply.
int Send(const Options& options, const std::vector<std::string>& words) {
    const std::string box = options.box.empty() ? DefaultBox() : options.box;
    std::string line;
    if (!JoinWords(words, &line))
        return Complain(kUsage, "a word must not contain a double quote or a newline");
    const int fd = Connect(box, options.patience);
    if (fd == -1) {
        return Complain(kUnreachable,
                        "no phone is running in " + box + " (" + strerror(errno) + ")");
    }
    if (send(fd, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size())) {
        return Complain(kUnreachable, std::string("cannot send: ") + strerror(errno));
    }
    return PrintReply(fd, options.patience);
}

// Removes the options with a value from the front of the words. Returns the reason if one is wrong,
// else "".
std::string TakeOptions(std::vector<std::string>& words, Options& options) {
    while (!words.empty()) {
        const size_t equals = words[0].find('=');
        const std::string name = words[0].substr(0, equals);
        if (name != "--box" && name != "--timeout") break;
        std::string value;
        if (equals != std::string::npos) {
            value = words[0].substr(equals + 1);
        } else if (words.size() > 1) {
            value = words[1];
            words.erase(words.begin());
        }
        words.erase(words.begin());
        if (name == "--box") {
            if (value.empty()) return "--box needs a folder";
            options.box = value;
            continue;
        }
        int seconds = 0;
        const auto [end, error] =
            std::from_chars(value.data(), value.data() + value.size(), seconds);
        if (error != std::errc{} || end != value.data() + value.size() || seconds < 1 ||
            seconds > kMaxPatience) {
            return "--timeout needs a number of seconds from 1 to " + std::to_string(kMaxPatience);
        }
        options.patience = std::chrono::seconds(seconds);
    }
    return "";
}

int Run(int argc, char** argv) {
    std::vector<std::string> words(argv + 1, argv + argc);
    if (!words.empty() && words[0] == "--complete") {  // for completions/
        sim::PrintCompletions({words.begin() + 1, words.end()});
        return kOk;
    }
    Options options;
    if (const std::string why = TakeOptions(words, options); !why.empty()) {
        return Complain(kUsage, why);
    }
    if (words.empty()) return Complain(kUsage, "no command given (simctl --help)");
    if (words[0] == "--help" || words[0] == "-h") {
        fputs(kHelp, stdout);
        return kOk;
    }
    if (words[0] == "--version") {
        printf("simctl %s\n", quarn::kVersion);
        return kOk;
    }
    if (words[0].starts_with('-')) {
        return Complain(kUsage, "no such option: " + words[0] + " (simctl --help)");
    }
    if (words[0] == "check") return CheckScenario(words);
    if (words[0] == "help") return ShowHelp(words);
    return Send(options, words);
}

}  // namespace

int main(int argc, char** argv) {
    const int status = Run(argc, argv);
    if (fflush(stdout) == 0 && ferror(stdout) == 0) return status;
    return Complain(kNoOutput, "standard output could not be written");
}
