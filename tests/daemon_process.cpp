#include "daemon_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>

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
    if (pid > 0) status = WaitForChild(pid);
    pid = -1;
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

std::string Output(const std::string& command) {
    const Ran ran = Run(command);
    EXPECT_EQ(ran.status, 0) << command << ": " << ran.err;
    return ran.out;
}

std::string Console(const std::string& command) {
    return Output(SIMCTL_PROGRAM " --box /data " + command);
}

std::string Quarnctl(const std::string& command) { return Output(QUARNCTL_PROGRAM " " + command); }

}  // namespace test
