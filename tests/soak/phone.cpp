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

size_t Entries(const std::string& folder) {
    std::error_code gone;
    size_t count = 0;
    for (fs::directory_iterator entry(folder, gone), end; !gone && entry != end;
         entry.increment(gone)) {
        ++count;
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
    std::ofstream(kModem + "/scenario") << scenario;
    pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), STDERR_FILENO);
        setenv("QUARN_SIM_DIR", kModem.c_str(), 1);
        execl(QUARN_PROGRAM, "quarn", nullptr);
        _exit(127);
    }
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

std::optional<std::string> Phone::Console(const std::string& line) {
    const sim::SocketAddress address(kModem, sim::kConsoleSocketName);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    SetPatience(fd, seconds(60));
    std::string text;
    const std::string request = line + "\n";
    ssize_t got = 0;
    if (connect(fd, address.address(), address.size()) == 0 &&
        send(fd, request.data(), request.size(), MSG_NOSIGNAL) > 0) {
        char piece[4096];
        while ((got = recv(fd, piece, sizeof(piece), 0)) > 0) {
            text.append(piece, static_cast<size_t>(got));
            if (text.starts_with(sim::kErrorMark) || text.find(sim::kOkMark) != std::string::npos) {
                break;
            }
        }
    }
    const bool hangs = got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    close(fd);
    if (hangs) report.Fault("the phone's console hangs at " + line + "\n" + Stacks());
    if (text.starts_with(sim::kErrorMark)) report.Fault("the phone refuses " + line + ": " + text);
    const size_t mark = text.find(sim::kOkMark);
    if (mark == std::string::npos) return std::nullopt;
    return text.substr(0, mark);
}

int64_t Phone::State(std::string_view key) {
    const std::string text = "\n" + Console("state").value_or("");
    const size_t at = text.find("\n" + std::string(key) + ": ");
    return at == std::string::npos ? -1 : atoll(text.c_str() + at + key.size() + 3);
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
    const ssize_t got = recv(socket_fd, block, sizeof(block), MSG_WAITALL);
    *hangs = got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    if (got != static_cast<ssize_t>(sizeof(block))) return std::nullopt;
    return std::string(block, strnlen(block, sizeof(block)));
}

}  // namespace soak
