#include "daemon_process.h"

#include <cutils/sockets.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "control/protocol.h"
#include "support.h"

namespace test {

namespace {

const std::string kModem = "/data/modem";

}  // namespace

Daemon::Daemon(const std::string& name, const std::string& scenario, const Environment& more)
    : log_path("/data/log." + name) {
    std::filesystem::create_directories("/data/vendor/radio");
    WriteFile(kModem + "/scenario", scenario);
    pid = fork();
    if (pid == 0) {
        const int log = open(log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(log, STDERR_FILENO);
        setenv("QUARN_SIM_DIR", kModem.c_str(), 1);
        for (const auto& [variable, value] : more) setenv(variable.c_str(), value.c_str(), 1);
        execl(QUARN_PROGRAM, "quarn", nullptr);
        _exit(127);
    }
}

std::string Daemon::Log() const { return ReadFile(log_path); }

bool Daemon::WaitFor(const std::string& text) const {
    return WaitUntil([&] { return Log().find(text) != std::string::npos; });
}

bool Daemon::Ended() {
    if (pid > 0 && waitpid(pid, &status, WNOHANG) == pid) pid = -1;
    return pid < 0;
}

void Daemon::Kill() {
    if (pid > 0) kill(pid, SIGKILL);
    Wait();
}

int Daemon::Wait() {
    if (pid > 0) waitpid(pid, &status, 0);
    pid = -1;
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

std::string Output(const std::string& command) {
    std::string text;
    FILE* const out = popen(command.c_str(), "re");
    char buf[4096];
    while (const size_t n = fread(buf, 1, sizeof(buf), out)) text.append(buf, n);
    EXPECT_EQ(pclose(out), 0) << command;
    return text;
}

std::string Console(const std::string& command) {
    return Output(SIMCTL_PROGRAM " --box /data " + command);
}

std::string Quarnctl(const std::string& command) { return Output(QUARNCTL_PROGRAM " " + command); }

std::optional<std::string> Request(const std::string& request) {
    const int fd = socket_local_client(quarn::protocol::kCommandSocket,
                                       ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM);
    if (fd < 0) return {};
    std::array<char, quarn::protocol::kReplySize + 1> reply = {};
    const ssize_t length = static_cast<ssize_t>(reply.size()) - 1;
    const bool whole = send(fd, request.c_str(), request.size() + 1, MSG_NOSIGNAL) > 0 &&
                       recv(fd, reply.data(), static_cast<size_t>(length), MSG_WAITALL) == length;
    close(fd);
    if (!whole) return {};
    return reply.data();
}

}  // namespace test
