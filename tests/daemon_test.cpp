// The daemon's own process on the simulated phone: start-up, orderly end, sudden end.
#include <cutils/sockets.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "sim/restart.h"
#include "storage/log_names.h"
#include "support.h"

namespace fs = std::filesystem;

namespace {

const std::string kModem = "/data/modem";
const std::string kLogs = "/data/vendor/radio/quarn/logs/";
constexpr int kRestartAsked = 75;

// One run of the unchanged daemon; its Android log goes to a file.
class Daemon {
  public:
    Daemon(const std::string& name, const std::string& scenario) : log_path("/data/log." + name) {
        fs::create_directories("/data/vendor/radio");
        test::WriteFile(kModem + "/scenario", scenario);
        pid = fork();
        if (pid == 0) {
            const int log = open(log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(log, STDERR_FILENO);
            setenv("QUARN_SIM_DIR", kModem.c_str(), 1);
            setenv(sim::kRestartStatusVariable, std::to_string(kRestartAsked).c_str(), 1);
            execl(QUARN_PROGRAM, "quarn", nullptr);
            _exit(127);
        }
    }
    ~Daemon() { Kill(); }

    std::string Log() const { return test::ReadFile(log_path); }
    bool WaitFor(const std::string& text) const {
        return test::WaitUntil([&] { return Log().find(text) != std::string::npos; });
    }
    void Kill() {
        if (pid > 0) kill(pid, SIGKILL);
        Wait();
    }
    // The exit status, or minus the signal.
    int Wait() {
        int status = 0;
        if (pid > 0) waitpid(pid, &status, 0);
        pid = -1;
        return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    }

  private:
    const std::string log_path;
    pid_t pid;
};

// What a program prints that ends well.
std::string Output(const std::string& command) {
    std::string text;
    FILE* const out = popen(command.c_str(), "re");
    char buf[4096];
    while (const size_t n = fread(buf, 1, sizeof(buf), out)) text.append(buf, n);
    EXPECT_EQ(pclose(out), 0) << command;
    return text;
}

// The same for a command on the phone's console.
std::string Console(const std::string& command) {
    return Output(SIMCTL_PROGRAM " --box /data " + command);
}

uint64_t Polls() {
    const std::string state = Console("state");
    return std::stoull(state.substr(state.find("poll ") + 5));
}

}  // namespace

TEST(Daemon, StartsInOrderOnceTheModemLayerIsUp) {
    Daemon daemon("start", "fail init 20\nproperty ro.boot.cdt_hwid board\n");
    ASSERT_TRUE(daemon.WaitFor("start all handler done"));
    const std::string log = daemon.Log();
    size_t at = 0;
    for (const char* line : {
             "start init quarn",
             "quarn_property_set: rc 0",
             "init all handle done",
             "file_io: create folder /data/vendor/radio/quarn/",
             "Custom header: initialize successfully",
             "reader_handler: start success",
             "writer_handler: start success",
             "start all handler done",
         }) {
        at = log.find(line, at);
        ASSERT_NE(at, std::string::npos) << line << " is missing or out of order in\n" << log;
    }
}

TEST(Daemon, KeepsTryingWhileTheModemLayerIsDown) {
    Daemon daemon("down", "fail init 1000000\n");
    ASSERT_TRUE(daemon.WaitFor("init all handle done"));
    EXPECT_FALSE(fs::exists("/data/vendor/radio/quarn"));
    EXPECT_EQ(daemon.Log().find("start success"), std::string::npos);
}

// Asked to exit in order, the daemon keeps everything that it took from the port.
TEST(Daemon, AnOrderlyEndFlushesWhatIsHeld) {
    Daemon daemon("exit", "tap /data/tap\nsource generated 3\nrate 20M\nstream start\n");
    ASSERT_TRUE(test::WaitUntil([] { return test::TreeSize(kLogs) > 6'000'000; }));  // twice
    Console("stream stop");
    // A chunk that is not full is committed when the port has been quiet for one poll.
    const uint64_t polls = Polls();
    ASSERT_TRUE(test::WaitUntil([&] { return Polls() >= polls + 3; }));
    const auto handed_over = fs::file_size("/data/tap");
    ASSERT_GT(handed_over, 6'000'000u);
    EXPECT_EQ(system(QUARNCTL_PROGRAM " transfer_type 3 >/dev/null"), 0);
    EXPECT_EQ(daemon.Wait(), 0);
    EXPECT_TRUE(test::DecodeTree(kLogs) == test::ReadFile("/data/tap"));
}

// Asked to exit while the ring is full, the daemon answers first, ends within its usual time, and
// leaves no hole: what is lost is the end of the stream.
TEST(Daemon, AnExitAtFullRateLeavesNoHole) {
    for (const int delay_ms : {0, 500}) {
        SCOPED_TRACE(delay_ms);
        for (const char* left : {"/data/vendor", "/data/tap"}) fs::remove_all(left);
        Daemon daemon("exit", "tap /data/tap\nsource generated 3\nrate 0\nstream start\n");
        ASSERT_TRUE(daemon.WaitFor("ctrl_connect: create listen_fd="));
        std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));
        EXPECT_EQ(system(QUARNCTL_PROGRAM " transfer_type 3 >/dev/null"), 0);
        EXPECT_EQ(daemon.Wait(), 0);
        const std::string captured = test::DecodeTree(kLogs);
        EXPECT_GT(captured.size(), 1'000'000u);
        EXPECT_TRUE(test::ReadFile("/data/tap").starts_with(captured));
    }
}

TEST(Daemon, CopiesVerifyWhileTheCaptureGoesOn) {
    test::WriteFile("/vendor/etc/quarn_default.cfg", "transfer_type 1\nfile_size 2\nlog_mode 1\n");
    Daemon daemon("copy", "tap /data/tap\nsource generated 3\nrate 60M\n");
    ASSERT_TRUE(test::WaitUntil([] { return test::TreeSize(kLogs) > 12'000'000; }));
    for (const char* flush : {"0", "1"}) {
        const std::string folder = std::string("/data/copy") + flush;
        fs::create_directory(folder);
        const std::string copy = " copy_log_file " + folder + " 8 " + flush;
        const std::string reply = Output(QUARNCTL_PROGRAM + copy);
        EXPECT_EQ(reply, "ok," +
                             std::to_string(test::TreeSize(folder) -
                                            fs::file_size(folder + "/copied_folder_list")) +
                             "\n");
        EXPECT_EQ(system((MUXZ_PROGRAM " verify " + folder + "/QRX* >/dev/null").c_str()), 0);
    }
    Console("log_mode 0");
    EXPECT_EQ(system(QUARNCTL_PROGRAM " transfer_type 3 >/dev/null"), 0);
    EXPECT_EQ(daemon.Wait(), 0);
    EXPECT_TRUE(test::DecodeTree(kLogs) == test::ReadFile("/data/tap"));
}

// Without a configuration the factory default is taken, here one that turns the modem's log on.
TEST(Daemon, AnExceptionInMidStreamMarksTheCaptureAndLosesNothing) {
    test::WriteFile("/vendor/etc/quarn_default.cfg", "transfer_type 1\nfile_size 50\nlog_mode 1\n");
    Daemon daemon("exception", "tap /data/tap\nsource generated 3\nrate 8M\n");
    ASSERT_TRUE(test::WaitUntil([] { return test::TreeSize(kLogs) > 1'000'000; }));
    Console("exception");
    const uintmax_t stored = test::TreeSize(kLogs);
    ASSERT_TRUE(test::WaitUntil([&] { return test::TreeSize(kLogs) > stored + 1'000'000; }));
    Console("log_mode 0");
    EXPECT_NE(Console("state").find("sync blocks: 1\n"), std::string::npos);
    EXPECT_EQ(system(QUARNCTL_PROGRAM " transfer_type 3 >/dev/null"), 0);
    EXPECT_EQ(daemon.Wait(), 0);
    EXPECT_TRUE(test::List(kLogs).at(0).ends_with("_EE"));
    EXPECT_TRUE(test::DecodeTree(kLogs) == test::ReadFile("/data/tap"));
}

// The daemon asks for its restart when the log device goes, here in mid-stream. What it held is in
// the files, and the next process goes on with what the modem hands over.
TEST(Daemon, ARemovalOfTheLogDeviceCostsNothingThatTheRingCouldDrain) {
    test::WriteFile("/vendor/etc/quarn_default.cfg", "transfer_type 1\nfile_size 2\nlog_mode 1\n");
    const std::string scenario = "tap /data/tap\nsource replay /data/stream\n";
    test::WriteFile("/data/stream", test::StreamBytes(60'000'000));
    {
        Daemon daemon("removal", scenario + "rate 30M\n");
        ASSERT_TRUE(daemon.WaitFor("quarn_stateNotify: listen_thread start"));
        const int subscriber = socket_local_client("/dev/quarn_callback_server.socket",
                                                   ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM);
        ASSERT_TRUE(daemon.WaitFor("quarn_stateNotify: accept fd="));
        ASSERT_TRUE(test::WaitUntil([] { return test::TreeSize(kLogs) > 3'000'000; }));
        Console("uevent remove vqmi wwanD0MDLog");
        char told[64] = {};
        EXPECT_EQ(recv(subscriber, told, sizeof(told), 0), 10);
        EXPECT_STREQ(told, "cb_reboot");
        EXPECT_EQ(recv(subscriber, told, sizeof(told), 0), 0);
        close(subscriber);
        EXPECT_EQ(daemon.Wait(), kRestartAsked);
    }
    const std::string stream = test::ReadFile("/data/stream");
    const std::string before = test::DecodeTree(kLogs);
    EXPECT_TRUE(before == test::ReadFile("/data/tap"));
    ASSERT_LT(before.size(), stream.size());

    Daemon daemon("anew", scenario + "rate 0\n");
    ASSERT_TRUE(daemon.WaitFor("start all handler done"));
    ASSERT_TRUE(test::WaitUntil(
        [] { return Console("state").find("at its end: yes") != std::string::npos; }));
    EXPECT_NE(Console("state").find("delivered: 60000000 bytes"), std::string::npos);
    EXPECT_EQ(Console("property vendor.quarn.qrx.restart"), "0\n");
    EXPECT_EQ(system(QUARNCTL_PROGRAM " flush_log_buffer >/dev/null"), 0);
    EXPECT_EQ(system(QUARNCTL_PROGRAM " transfer_type 3 >/dev/null"), 0);
    EXPECT_EQ(daemon.Wait(), 0);
    EXPECT_EQ(test::List(kLogs).size(), 2u);
    EXPECT_TRUE(test::DecodeTree(kLogs) == stream);
}

// After any sudden end every block that reached a file decodes, and the next start goes on.
TEST(Daemon, SuddenEndsTearNothingButTheLastBlock) {
    constexpr int kRuns = 8;
    for (int run = 0; run < kRuns; ++run) {
        const std::string number = std::to_string(run);
        const uintmax_t stored = test::TreeSize(kLogs);
        Daemon daemon(number, "tap /data/tap." + number + "\nsource generated " + number +
                                  "\nrate 0\nstream start\n");
        ASSERT_TRUE(test::WaitUntil([&] {
            return test::TreeSize(kLogs) >
                   stored + 1'000'000 + static_cast<uintmax_t>(run) * 700'000;
        }));
    }
    auto folders = test::List(kLogs);
    ASSERT_EQ(folders.size(), static_cast<size_t>(kRuns) + 1);
    EXPECT_EQ(folders.back(), quarn::log_names::kPowerOnLog);
    folders.pop_back();
    for (int run = 0; run < kRuns; ++run) {
        SCOPED_TRACE(folders[static_cast<size_t>(run)]);
        const std::string folder = folders[static_cast<size_t>(run)];
        EXPECT_TRUE(folder.starts_with("QRXMDLog_" + std::to_string(run) + "_"));
        const bool last = run + 1 == kRuns;
        EXPECT_EQ(quarn::log_names::IsUnfinished(folder), last);
        for (const auto& file : test::List(kLogs + folder)) EXPECT_EQ(file.ends_with(".tmp"), last);
        const test::Decoded decoded = test::Decode(kLogs + folder);
        EXPECT_LE(decoded.torn.size(), 1u);
        EXPECT_GT(decoded.bytes.size(), 1'000'000u);
        EXPECT_TRUE(test::ReadFile("/data/tap." + std::to_string(run)).starts_with(decoded.bytes));
    }
}
