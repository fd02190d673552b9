#include "tests/soak/phone.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "sim/console.h"
#include "sim/socket_address.h"

namespace fs = std::filesystem;

namespace soak {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

const std::string kModem = "/data/modem";
constexpr seconds kConsolePatience(60);

std::string ReadFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return std::move(text).str();
}

void SetPatience(int fd, seconds limit) {
    const timeval patience = {limit.count(), 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
}

// A child that ends elsewhere in this program may interrupt a wait.
ssize_t Receive(int fd, char* out, size_t size) {
    ssize_t got = 0;
    do {
        got = recv(fd, out, size, 0);
    } while (got < 0 && errno == EINTR);
    return got;
}

// Entries of a folder of /proc but for those of the power-on log: links to its file, its thread.
size_t Entries(const std::string& folder) {
    std::error_code gone;
    size_t count = 0;
    for (const auto& entry : fs::directory_iterator(folder, gone)) {
        const std::string what = entry.is_directory(gone)
                                     ? ReadFile(entry.path() / "comm")
                                     : fs::read_symlink(entry.path(), gone).native();
        if (what.find("power_on") == std::string::npos) ++count;
    }
    return count;
}

long StatusValue(const std::string& status, const std::string& key) {
    const size_t at = status.find(key);
    return at == std::string::npos ? 0 : atol(status.c_str() + at + key.size());
}

}  // namespace

bool Phone::Start(const std::string& scenario, const std::string& log_path) {
    log = log_path;
    fs::create_directories(kModem);
    fs::remove(kModem + "/delivered");  // it goes on counting over restarts
    std::ofstream(kModem + "/scenario") << scenario;
    setenv("QUARN_SIM_DIR", kModem.c_str(), 1);
    const int log_fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(log_fd, STDERR_FILENO);
        execl(QUARN_PROGRAM, "quarn", nullptr);
        _exit(127);
    }
    close(log_fd);
    const auto limit = steady_clock::now() + seconds(60);
    while (Runs() && ReadFile(log).find("start all handler done") == std::string::npos) {
        if (steady_clock::now() > limit) {
            report.Fault("the daemon hangs while it starts\n" + Stacks());
            return false;
        }
        std::this_thread::sleep_for(milliseconds(10));
    }
    if (!Runs()) report.Fault("the daemon ended while it started\n" + Stacks());
    return Runs();
}

bool Phone::Runs() {
    if (pid <= 0) return false;
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
}

void Phone::Kill() {
    if (pid <= 0) return;
    kill(pid, SIGKILL);
    WaitForEnd(seconds(60));
}

std::optional<int> Phone::WaitForEnd(seconds limit) {
    const auto end = steady_clock::now() + limit;
    while (Runs()) {
        if (steady_clock::now() > end) return std::nullopt;
        std::this_thread::sleep_for(milliseconds(5));
    }
    int status = 0;
    waitpid(pid, &status, 0);
    pid = -1;
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

std::string Phone::Console(const std::string& line) {
    const sim::SocketAddress address(kModem, sim::kConsoleSocketName);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    SetPatience(fd, kConsolePatience);
    std::string text;
    ssize_t got = connect(fd, address.address(), address.size()) == 0
                      ? send(fd, (line + "\n").data(), line.size() + 1, MSG_NOSIGNAL)
                      : 0;
    char piece[4096];
    while (got > 0 && text.find("\n= ") == std::string::npos && !text.starts_with("= ")) {
        got = Receive(fd, piece, sizeof(piece));
        if (got > 0) text.append(piece, static_cast<size_t>(got));
    }
    if (got < 0 && errno == EAGAIN) report.Fault("the console hangs at " + line + "\n" + Stacks());
    if (text.starts_with(sim::kErrorMark)) report.Fault("the phone refuses " + line + ": " + text);
    close(fd);
    return text;
}

uint64_t Phone::Delivered() {
    return strtoull(ReadFile(kModem + "/delivered").c_str(), nullptr, 10);
}

Holdings Phone::Holds() const {
    const std::string proc = "/proc/" + std::to_string(pid);
    const std::string status = ReadFile(proc + "/status");
    return {Entries(proc + "/fd"), Entries(proc + "/task"), StatusValue(status, "VmRSS:"),
            StatusValue(status, "VmHWM:")};
}

std::string Phone::Stacks() const {
    std::string text;
    std::error_code gone;
    for (const auto& task :
         fs::directory_iterator("/proc/" + std::to_string(pid) + "/task", gone)) {
        const std::string path = task.path();
        std::string name = ReadFile(path + "/comm");
        if (name.ends_with('\n')) name.pop_back();
        text +=
            "    " + name + ": " + ReadFile(path + "/wchan") + " " + ReadFile(path + "/syscall");
        if (!text.ends_with('\n')) text += '\n';
    }
    const std::string lines = ReadFile(log);
    size_t at = lines.size();
    for (int line = 0; line < 30 && at != std::string::npos && at > 0; ++line) {
        at = lines.rfind('\n', at - 1);
    }
    return text + lines.substr(at == std::string::npos ? 0 : at + 1);
}

// --- clients

Client::Client(const char* socket_name)
    : socket_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const size_t length = strlen(socket_name);  // behind a NUL byte: abstract
    memcpy(address.sun_path + 1, socket_name, length);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + length);
    if (connect(socket_fd, reinterpret_cast<const sockaddr*>(&address), size) == 0) return;
    close(socket_fd);
    socket_fd = -1;
}

Client::~Client() {
    if (socket_fd != -1) close(socket_fd);
}

bool Client::Send(std::string_view bytes) const {
    return send(socket_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
}

std::optional<std::string> Client::Reply(seconds limit, bool* hangs) const {
    SetPatience(socket_fd, limit);
    char block[128];
    size_t have = 0;
    ssize_t got = 1;
    while (have < sizeof(block) && got > 0) {
        got = Receive(socket_fd, block + have, sizeof(block) - have);
        if (got > 0) have += static_cast<size_t>(got);
    }
    *hangs = got < 0 && errno == EAGAIN;
    if (have < sizeof(block)) return std::nullopt;
    return std::string(block, strnlen(block, sizeof(block)));
}

}  // namespace soak
