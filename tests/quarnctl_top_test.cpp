// Tests quarnctl top against a real daemon. Its Android log is kept in the box, where sim/logcat
// finds it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "daemon_process.h"
#include "support.h"

namespace fs = std::filesystem;
using test::Daemon;

namespace {

const std::string kKept = "/data/android_log";
const std::string kTree = "/data/vendor/radio/quarn/logs";
const std::string kLog = "/data/some_log";

test::Result Top(const std::string& options) {
    return test::RunMerged(QUARNCTL_PROGRAM " top " + options);
}

std::string Line(const std::string& message, int seconds_ago = 0) {
    const time_t time = ::time(nullptr) - seconds_ago;
    tm local = {};
    localtime_r(&time, &local);
    char stamp[32];
    strftime(stamp, sizeof(stamp), "%m-%d %H:%M:%S", &local);
    return std::string(stamp) + ".000  1  1 I QUARN   : " + message + "\n";
}
std::string Report(int stalls = 0, int rate = 100) {
    return Line("read rate: " + std::to_string(rate) + " KB/s, write rate: 90 KB/s") +
           (stalls == 0 ? "" : Line("log buffer stall count: " + std::to_string(stalls))) +
           Line("tot_read_cnt: 9 (len_greater_zero=4, len_zero=0, fail=5)") +
           Line("fail_read_cnt: 5 (eagain=2, eintr=3, enodev=0, ebadf=0, eother=0)");
}

// A daemon that answers requests. sim/logcat prints its log.
struct RunningDaemon : Daemon {
    explicit RunningDaemon(const std::string& scenario = "")
        : Daemon("top", scenario, {{"QUARN_SIM_LOG", kKept}}) {
        setenv("QUARN_SIM_LOG", kKept.c_str(), 1);
        EXPECT_TRUE(Logs("stateNotify: listen_thread start"));
    }
    static bool Logs(const std::string& text) {
        return test::WaitUntil(
            [&] { return test::ReadFile(kKept).find(text) != std::string::npos; });
    }
};

// A `quarnctl top` that runs until a signal ends it.
class Running {
  public:
    Running(const std::string& options, int out) {
        pid = fork();
        if (pid != 0) return;
        dup2(out, STDOUT_FILENO);
        const std::string command = "exec " QUARNCTL_PROGRAM " top " + options;
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(127);
    }
    ~Running() { End(SIGKILL); }
    // Sends `signal`. Returns the signal that ended the process, or 0.
    int End(int signal) {
        if (pid <= 0) return 0;
        kill(pid, signal);
        return Wait();
    }
    void Signal(int signal) const { kill(pid, signal); }

  private:
    int Wait() {
        int status = 0;
        waitpid(std::exchange(pid, -1), &status, 0);
        return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }

    pid_t pid;
};

// The newest object of a `top --json`.
class JsonOutput {
  public:
    int fd() const { return out; }
    bool Shows(const std::function<bool(const nlohmann::json&)>& predicate) {
        return test::WaitUntil([&] {
            std::string text = test::ReadFile(kPath);
            text.erase(text.rfind('\n') + 1);
            if (text.empty()) return false;
            last = nlohmann::json::parse(text.substr(text.rfind('\n', text.size() - 2) + 1));
            return predicate(last);
        });
    }
    nlohmann::json last;

  private:
    static constexpr const char* kPath = "/data/shown";
    const int out = open(kPath, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
};

}  // namespace

TEST(QuarnctlTop, OnceTellsWhetherStallsOrDropsGrew) {
    EXPECT_EQ(Top("--once --log /dev/null").status, 3) << "no daemon";
    const RunningDaemon daemon;
    const std::string drop = Line("write_handler: drop 9 bytes data from cur_used_buf");
    const std::string start = Line("start init quarn"), end = Line("stop all handler done");
    const struct {
        std::string log;
        int status;
        std::vector<std::string> parts;  // of what is printed, in this order
    } cases[] = {
        {"", 3, {"no report yet", "read rate               -               -", "has no line of"}},
        {start + Report(),
         0,
         {"keeps up", "100             100  KB/s", "3  EINTR 3, nothing to read 2"}},
        {Report() + Report(7, 300),
         1,
         {"falls behind: 7 stalls", "300             200", "7               7"}},
        {Report(7) + Report(), 0, {"keeps up", "stalls                  0               7"}},
        {Report(1) + drop, 1, {"falls behind: 1 stall, 9 bytes dropped"}},
        {Report() + drop + end + start + Report(), 1, {"falls behind: 9 bytes", "starts"}},
        {Report() + drop + Report() + Report(), 0, {"dropped bytes           0               9"}},
        {Report() + end + start, 0, {"no report yet", "-             100"}},
        {Line("read rate: 1 KB/s, write rate: 1 KB/s", 100),
         0,
         {"reports no more; last report 1 min 4"}},
        {"11-23 10:00:00.000  1  1 I OTHER   : read rate: 1 KB/s, write rate: 1 KB/s\n",
         3,
         {"no report yet", "the log has no line of the daemon"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.log);
        test::WriteFile(kLog, c.log);
        for (const std::string& source : {"--log " + kLog, "--log - <" + kLog}) {
            const test::Result run = Top("--once " + source);
            EXPECT_EQ(run.status, c.status);
            size_t at = 0;
            for (const std::string& part : c.parts) {
                at = run.text.find(part, at);
                ASSERT_NE(at, std::string::npos) << part << " not in\n" << run.text;
            }
        }
    }
    // Logs that cannot be read, and wrong arguments.
    test::WriteFile("/data/bin/logcat",
                    "#!/bin/sh\nprintf 'logcat: \\302\\233Permission denied\\n'\nexit 1\n");
    fs::permissions("/data/bin/logcat", fs::perms::all);
    const struct {
        std::string options;
        int status;
        std::string part;
    } others[] = {
        {"--once --log /data/none", 3, "cannot open /data/none: No such file"},
        {"--once --log - --timeout 1 <>/dev/null", 3, "the log has no line of the daemon"},
        {"--once --interval 0", 2, "at least 1"},
        {"--timeout 5", 2, "goes with --once"},
        {"now", 2, "takes no argument"},
    };
    for (const auto& c : others) {
        const test::Result run = Top(c.options);
        EXPECT_EQ(run.status, c.status) << c.options;
        EXPECT_NE(run.text.find(c.part), std::string::npos) << run.text;
    }
    setenv("PATH", ("/data/bin:" + std::string(getenv("PATH"))).c_str(), 1);
    const test::Result denied = Top("--once");
    EXPECT_EQ(denied.status, 3);
    EXPECT_NE(denied.text.find("logcat cannot read the log: logcat: ??Permission denied; may"),
              std::string::npos)
        << denied.text;
    test::WriteFile("/data/bin/logcat", "#!/bin/sh\nkill -STOP $$\n");
    EXPECT_EQ(Top("--once --timeout 1").status, 3) << "logcat hangs";
}

TEST(QuarnctlTop, ShowsADaemonWhoseStorageIsFull) {
    constexpr uint64_t kStorage = 3 << 20;
    fs::create_directories(kTree);
    ASSERT_EQ(mount("tmpfs", kTree.c_str(), "tmpfs", 0, "size=3M"), 0);
    test::WriteFile("/vendor/etc/quarn_default.cfg", "transfer_type 1\nfile_size 2\nlog_mode 1\n");
    const RunningDaemon daemon("md_state 6\nsource generated 1\nrate 20M\n");
    ASSERT_TRUE(daemon.Logs("log buffer stall count: "));
    ASSERT_TRUE(daemon.Logs("tot_poll_cnt: "));
    const test::Result run = Top("--once --json");
    EXPECT_EQ(run.status, 1) << run.text;
    const auto shown = nlohmann::json::parse(run.text);
    EXPECT_TRUE(shown["falls_behind"]);
    EXPECT_GT(shown["stalls"], 0);
    EXPECT_GT(shown["report"]["read_rate"], 1000);
    EXPECT_EQ(shown["log"]["starts"], 1);
    EXPECT_EQ(shown["storage"]["bytes"], kStorage);
    EXPECT_LT(shown["storage"]["free"], kStorage / 2);
    EXPECT_EQ(shown["settings"]["file_size"]["value"], 2);
    EXPECT_EQ(shown["tree"]["limit"], uint64_t{2500} << 20);
    uint64_t bytes = 0;
    std::string open_file;
    for (const auto& entry : fs::recursive_directory_iterator(kTree)) {
        if (!entry.is_regular_file() || entry.path().filename() == "power_on_log.muxz") continue;
        bytes += entry.file_size() / 1024 * 1024;
        if (entry.path().extension() == ".tmp") open_file = entry.path();
    }
    EXPECT_EQ(shown["tree"]["bytes"], bytes);
    EXPECT_EQ(shown["file"]["path"], open_file);
    EXPECT_EQ(shown["capture"], fs::path(open_file).parent_path().string());
    EXPECT_EQ(shown["file"]["bytes"], fs::file_size(open_file));

    // As a user who may not read the tree: what the log and the daemon tell is left.
    fs::permissions("/data/vendor/radio/quarn", fs::perms::none);
    const test::Result refused = test::RunMerged(
        "setpriv --bounding-set=-all --inh-caps=-all --ambient-caps=-all " QUARNCTL_PROGRAM
        " top --once");
    fs::permissions("/data/vendor/radio/quarn", fs::perms::owner_all);
    EXPECT_EQ(refused.status, 1);
    const fs::path path = open_file;
    for (const std::string& part : {std::string("not readable: Permission denied; limit 2500 MB"),
                                    "  " + path.parent_path().filename().string() + "\n",
                                    "  " + path.filename().string() + "\n"}) {
        EXPECT_NE(refused.text.find(part), std::string::npos) << part << " not in\n"
                                                              << refused.text;
    }
}

TEST(QuarnctlTop, OutlivesTheDaemonAndHearsOfSettings) {
    JsonOutput output;
    std::optional<RunningDaemon> daemon(std::in_place);
    Running top("--json", output.fd());
    const auto file_size = [&](int size) {
        return output.Shows([&](const nlohmann::json& shown) {
            return shown["settings"].is_object() && shown["settings"]["file_size"]["value"] == size;
        });
    };
    EXPECT_TRUE(file_size(50));
    test::Quarnctl("file_size 9");
    EXPECT_TRUE(file_size(9)) << output.last;
    daemon.reset();
    EXPECT_TRUE(output.Shows([](const nlohmann::json& shown) {
        return shown["settings"].is_null() && shown["verdict"] == "the daemon cannot be reached";
    })) << output.last;
    daemon.emplace();
    EXPECT_TRUE(file_size(9)) << output.last;
    EXPECT_EQ(output.last["log"]["starts"], 2);
    EXPECT_EQ(top.End(SIGTERM), SIGTERM);
}

TEST(QuarnctlTop, FollowsALogThatIsCutAndReplaced) {
    JsonOutput output;
    const auto reports = [&](int count) {
        return output.Shows(
            [&](const nlohmann::json& shown) { return shown["log"]["reports"] == count; });
    };
    const auto append = [](const std::string& text) { std::ofstream(kLog, std::ios::app) << text; };
    const Running top("--json --log " + kLog, output.fd());
    EXPECT_TRUE(reports(0)) << output.last;  // it is not there yet
    append(Report() + Report().substr(0, 50));
    EXPECT_TRUE(reports(1)) << output.last;
    append(Report().substr(50) + Report().substr(0, 30));
    EXPECT_TRUE(reports(2)) << output.last;
    fs::resize_file(kLog, 0);
    append(Report());
    EXPECT_TRUE(reports(3)) << output.last;
    append(Report());
    fs::rename(kLog, kLog + ".old");
    append(Report());
    EXPECT_TRUE(reports(5)) << output.last;
}

TEST(QuarnctlTop, TheTerminalIsAsBeforeAtTheEnd) {
    fs::create_directories("/dev/pts");
    ASSERT_EQ(mount("devpts", "/dev/pts", "devpts", 0, "newinstance,ptmxmode=0666"), 0);
    const int terminal = open("/dev/pts/ptmx", O_RDWR | O_NOCTTY | O_CLOEXEC);
    int number = -1, unlocked = 0;
    ASSERT_EQ(ioctl(terminal, TIOCGPTN, &number), 0);
    ASSERT_EQ(ioctl(terminal, TIOCSPTLCK, &unlocked), 0);
    const int inside =
        open(("/dev/pts/" + std::to_string(number)).c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    fcntl(terminal, F_SETFL, O_NONBLOCK);
    winsize size = {.ws_row = 6, .ws_col = 60, .ws_xpixel = 0, .ws_ypixel = 0};
    ioctl(terminal, TIOCSWINSZ, &size);
    test::WriteFile(kLog, Report(5));
    Running top("--interval 1000 --log " + kLog, inside);
    std::string text;
    const auto comes = [&](const std::string& wanted) {
        return test::WaitUntil([&] {
            char piece[4096];
            const ssize_t n = read(terminal, piece, sizeof(piece));
            if (n > 0) text.append(piece, static_cast<size_t>(n));
            return text.find(wanted) != std::string::npos;
        });
    };
    EXPECT_TRUE(comes("\x1b[J"));
    EXPECT_TRUE(text.starts_with("\x1b[?1049h\x1b[?25l\x1b[H")) << text;
    EXPECT_NE(text.find("stalls                  5               5\x1b[J"), std::string::npos)
        << "the screen ends with its sixth row: " << text;
    text.clear();
    size.ws_col = 20;
    ioctl(terminal, TIOCSWINSZ, &size);
    top.Signal(SIGWINCH);  // the kernel's is for programs whose controlling terminal it is
    EXPECT_TRUE(comes("read rate           \r")) << text;
    EXPECT_EQ(top.End(SIGINT), SIGINT);
    EXPECT_TRUE(comes("\x1b[?25h\x1b[?1049l")) << text;
    close(inside);
    close(terminal);
}
