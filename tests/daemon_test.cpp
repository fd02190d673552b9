// The daemon as a process of its own on the simulated phone: start, exit in order, restart.
// quarn_soak tests what happens if the daemon is killed.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <system_error>
#include <thread>

#include "client.h"
#include "core/version.h"
#include "daemon_process.h"
#include "sim/restart.h"
#include "support.h"

namespace fs = std::filesystem;
using test::Console;
using test::Daemon;

namespace {

const std::string kLogs = "/data/vendor/radio/quarn/logs/";
constexpr int kRestartAsked = 75;

uint64_t Polls() { return std::stoull(Console("get calls_poll")); }

}  // namespace

TEST(Daemon, ThePhoneKeepsItsLogItsClockAndItsScenario) {
    const std::string kept = "/data/android_log", old(9'000'000, 'x');
    const Daemon::Environment keep = {{"QUARN_SIM_LOG", kept}};
    test::WriteFile(kept, old);
    const auto kept_has = [&](const std::string& text) {
        return test::WaitUntil(
            [&] { return test::ReadFile(kept).find(text) != std::string::npos; });
    };
    Daemon first("first",
                 "md_state 6\nafter 500ms client file_size 9\nafter 600ms client file_size 0\n",
                 keep);
    ASSERT_TRUE(
        kept_has(" E SIM     : /data/modem/scenario, line 3: client: the daemon answers "
                 "\"error\" to \"file_size 0\"\n"));
    EXPECT_EQ(test::Quarnctl("file_size"), "ok,9\n");
    EXPECT_EQ(test::ReadFile(kept + ".old"), old) << "a full log makes room";
    EXPECT_TRUE(kept_has(" I QUARN   : start init quarn\n"));

    Console("clock +3d");
    ASSERT_TRUE(kept_has("md_time_sync_handle: update boottime/realtime difference\n"));
    EXPECT_TRUE(test::WaitUntil([] { return Console("get clock_sets") == "2\n"; }));
    const auto three_days_on = [] {  // as the request that sets the modem's clock writes it
        const time_t then = time(nullptr) + 3 * 86'400;
        tm day = {};
        gmtime_r(&then, &day);
        char text[16];
        strftime(text, sizeof(text), "%Y-%m-%d", &day);
        return text + std::string();
    };
    EXPECT_TRUE(Console("get clock").starts_with(three_days_on())) << Console("get clock");
    first.Kill();
    std::filesystem::remove(kept);
    Daemon second("second", "", keep);
    ASSERT_TRUE(kept_has("stateNotify: listen_thread start\n"));
    EXPECT_TRUE(test::WaitUntil([] { return Console("get clock_sets") == "1\n"; }));
    EXPECT_TRUE(Console("get clock").starts_with(three_days_on())) << Console("get clock");
}

TEST(Daemon, LivesInOrderFromTheFirstInitToTheLastStop) {
    test::WriteFile("/vendor/etc/quarn_default.cfg", "transfer_type 1\nfile_size 7\nlog_mode 0\n");
    test::WriteFile("/data/stream", test::StreamBytes(8192 * 99));
    Daemon daemon("life",
                  "fail init 20\nproperty ro.boot.cdt_hwid board\nsource replay /data/stream\n"
                  "rate 0\n");
    ASSERT_TRUE(daemon.WaitFor("quarn_stateNotify: listen_thread start"));
    // A subscriber gets a notification when a command changes the log mode.
    test::Subscriber subscriber;
    ASSERT_TRUE(daemon.WaitFor("quarn_stateNotify: accept fd="));
    EXPECT_EQ(test::Quarnctl("log_mode 2"), "ok\n");
    EXPECT_EQ(subscriber.Receive(14), std::string("cb_log_mode,2\0", 14));
    subscriber.Close();
    EXPECT_EQ(test::Quarnctl("file_size"), "ok,7\n");
    EXPECT_EQ(Console("get clock_sets"), "1\n");
    // Once the daemon has started, an exception does not restart the counters of the report.
    Console("stream start");
    ASSERT_TRUE(test::WaitUntil([] { return Console("get at_its_end") == "yes\n"; }));
    Console("exception");
    ASSERT_TRUE(daemon.WaitFor("tot_poll_cnt: "));
    test::Quarnctl("transfer_type 3");
    EXPECT_EQ(daemon.Wait(), 0);
    const std::string log = daemon.Log();
    size_t at = 0;
    for (const char* line : {
             "start init quarn",
             "quarn_property_set: rc 0",
             "init all handle done",
             "file_io: create folder /data/vendor/radio/quarn/",
             "Power-on Log: init successfully",
             "Custom header: initialize successfully",
             "reader_handler: start success",
             "tool_handler: not support when io is file",
             "event_detect_handle: start success",
             "md_time_sync_handle: start success",
             "mipcInit: mipc init success",
             "load config done",
             "MIPC SYS_SET_TIME_REQ: ",
             "writer_handler: start success",
             "ctrl_connect: create listen_fd=",
             "start all handler done",
             "read rate: 99 KB/s",  // the first report, after eight seconds
             "quarn.is_close is set",
             "md_time_sync_handle: stop success",
             "event_detect_handle: stop success",
             "tool_handler: not support when io is file",
             "quarn_stateNotify: join",
             "ctrlConn_listen_thread: join",
             "reader_handler: stop success",
             "writer_handler: already stop",
             "stop all handler done",
             "Power-on Log: de-init successfully",
         }) {
        at = log.find(line, at);
        ASSERT_NE(at, std::string::npos) << line << " is missing or out of order in\n" << log;
    }
}

// Without modem IPC the daemon applies no settings and sets no clock of the modem. Everything else
// works.
TEST(Daemon, StartsWithoutModemIpc) {
    test::WriteFile("/vendor/etc/quarn_default.cfg", "transfer_type 1\nfile_size 7\nlog_mode 1\n");
    Daemon daemon("mute", "ipc init 1 1\n");
    ASSERT_TRUE(daemon.WaitFor("ctrl_connect: quarn_ctrlConn_listen_thread start"));
    EXPECT_EQ(test::Quarnctl("file_size"), "ok,50\n");
    EXPECT_EQ(Console("get clock_sets"), "0\n");
    for (const char* line : {"load config", "open file: ", "MIPC SYS_SET_TIME_REQ"}) {
        EXPECT_EQ(daemon.Log().find(line), std::string::npos) << line;
    }
}

TEST(Daemon, KeepsTryingWhileTheModemLayerIsDown) {
    EXPECT_EQ(test::Output(QUARN_PROGRAM " --version"),
              std::string("quarn ") + quarn::kVersion + "\n");
    Daemon daemon("down", "fail init 1000000\n");
    ASSERT_TRUE(daemon.WaitFor("init all handle done"));
    EXPECT_FALSE(fs::exists("/data/vendor/radio/quarn"));
    EXPECT_EQ(daemon.Log().find("start success"), std::string::npos);
}

// When the daemon exits in order, it first stores everything that it read from the log port.
TEST(Daemon, AnOrderlyEndFlushesWhatIsHeld) {
    Daemon daemon("exit", "tap /data/tap\nsource generated 3\nrate 20M\nstream start\n");
    ASSERT_TRUE(test::WaitUntil(
        [] { return test::TreeSize(kLogs) > 6'000'000; }));  // capture and power-on log
    Console("stream stop");
    // The reader commits a chunk that is not full when the port has no data for one poll.
    const uint64_t polls = Polls();
    ASSERT_TRUE(test::WaitUntil([&] { return Polls() >= polls + 3; }));
    const auto handed_over = fs::file_size("/data/tap");
    ASSERT_GT(handed_over, 6'000'000u);
    test::Quarnctl("transfer_type 3");
    EXPECT_EQ(daemon.Wait(), 0);
    EXPECT_TRUE(test::DecodeTree(kLogs) == test::ReadFile("/data/tap"));
}

// A client requests an exit while the ring is full. The daemon replies first and then exits within
// its usual time. Only the end of the stream is lost: the files have no gap.
TEST(Daemon, AnExitAtFullRateLeavesNoHole) {
    for (const int delay_ms : {0, 500}) {
        SCOPED_TRACE(delay_ms);
        for (const char* left : {"/data/vendor", "/data/tap"}) fs::remove_all(left);
        Daemon daemon("exit", "tap /data/tap\nsource generated 3\nrate 0\nstream start\n");
        ASSERT_TRUE(daemon.WaitFor("ctrl_connect: create listen_fd="));
        std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));
        test::Quarnctl("transfer_type 3");
        EXPECT_EQ(daemon.Wait(), 0);
        const std::string captured = test::DecodeTree(kLogs);
        EXPECT_GT(captured.size(), 1'000'000u);
        const std::string tap = test::ReadFile("/data/tap");
        EXPECT_TRUE(tap.starts_with(captured));
        // The daemon logs the number of lost bytes.
        size_t dropped = 0;
        const std::string log = daemon.Log();
        for (size_t at = 0; (at = log.find(": drop ", at)) != std::string::npos;) {
            dropped += std::stoull(log.substr(at += 7));
        }
        EXPECT_EQ(captured.size() + dropped, tap.size());
    }
}

// A program that the daemon starts would inherit none of its files and sockets. The threads have
// names. If a client closes its connection before the reply, the daemon still serves other clients.
TEST(Daemon, KeepsItsDescriptorsAndOutlivesItsClients) {
    struct Process : Daemon {
        using Daemon::Daemon;
        std::string folder() const { return "/proc/" + std::to_string(pid) + "/"; }
    };
    test::WriteFile("/vendor/etc/quarn_default.cfg", "transfer_type 1\nlog_mode 1\n");
    Process daemon("process", "source generated 3\nrate 8M\n");
    ASSERT_TRUE(test::WaitUntil([] { return test::TreeSize(kLogs) > 1'000'000; }));
    const test::Subscriber subscriber;
    ASSERT_TRUE(daemon.WaitFor("quarn_stateNotify: accept fd="));
    test::Client client;
    ASSERT_TRUE(daemon.WaitFor("ctrl_connect: accept fd="));
    // The daemon inherits the descriptors that this process was started with.
    const auto target = [](const std::string& fd) {
        std::error_code gone;
        return fs::read_symlink(fd, gone).string() + "\n";
    };
    std::string given = daemon.log_path + "\n";  // opened by the simulated phone
    for (const std::string& fd : test::List("/proc/self/fd"))
        given += target("/proc/self/fd/" + fd);
    std::string inherited, files;
    for (const std::string& fd : test::List(daemon.folder() + "fd")) {
        const std::string file = target(daemon.folder() + "fd/" + fd);
        const std::string info = test::ReadFile(daemon.folder() + "fdinfo/" + fd);
        const size_t flags = info.find("flags:");
        if (flags == std::string::npos || given.find(file) != std::string::npos) continue;
        files += file;
        if ((std::stoul(info.substr(flags + 6), nullptr, 8) & O_CLOEXEC) == 0) inherited += file;
    }
    EXPECT_EQ(inherited, "");
    EXPECT_NE(files.find("power_on_log.muxz"), std::string::npos) << files;
    EXPECT_NE(files.find("[timerfd]"), std::string::npos) << files;
    std::string threads = "\n";
    for (const std::string& id : test::List(daemon.folder() + "task")) {
        threads += test::ReadFile(daemon.folder() + "task/" + id + "/comm");
    }
    for (const char* name : {"quarn_reader", "quarn_writer", "quarn_ctrl", "quarn_state",
                             "quarn_uevent", "quarn_event", "quarn_md_time", "quarn_sync"}) {
        EXPECT_NE(threads.find("\n" + std::string(name) + "\n"), std::string::npos) << threads;
    }

    EXPECT_TRUE(client.Send(std::string("flush_log_buffer\0", 17)));
    client.Close();
    EXPECT_TRUE(daemon.WaitFor("command_handler: send cmd ack=ok fail, rc=-1, errno=Broken pipe"));
    EXPECT_EQ(test::Quarnctl("log_mode 0"), "ok\n");
}

TEST(Daemon, CopiesVerifyWhileTheCaptureGoesOn) {
    test::WriteFile("/vendor/etc/quarn_default.cfg", "transfer_type 1\nfile_size 2\nlog_mode 1\n");
    Daemon daemon("copy", "tap /data/tap\nsource generated 3\nrate 60M\n");
    ASSERT_TRUE(test::WaitUntil([] { return test::TreeSize(kLogs) > 12'000'000; }));
    for (const char* flush : {"0", "1"}) {
        const std::string folder = std::string("/data/copy") + flush;
        fs::create_directory(folder);
        const std::string copy = " copy_log_file " + folder + " 8 " + flush;
        const std::string reply = test::Quarnctl(copy);
        EXPECT_EQ(reply, "ok," +
                             std::to_string(test::TreeSize(folder) -
                                            fs::file_size(folder + "/copied_folder_list")) +
                             "\n");
        test::Output(MUXZ_PROGRAM " verify " + folder + "/QRX*");
    }
    Console("log_mode 0");
    test::Quarnctl("transfer_type 3");
    EXPECT_EQ(daemon.Wait(), 0);
    EXPECT_TRUE(test::DecodeTree(kLogs) == test::ReadFile("/data/tap"));
}

// Without a configuration file the daemon uses the factory default, which turns the modem's log on
// in this test.
TEST(Daemon, AnExceptionInMidStreamMarksTheCaptureAndLosesNothing) {
    test::WriteFile("/vendor/etc/quarn_default.cfg", "transfer_type 1\nfile_size 50\nlog_mode 1\n");
    Daemon daemon("exception", "tap /data/tap\nsource generated 3\nrate 8M\n");
    ASSERT_TRUE(test::WaitUntil([] { return test::TreeSize(kLogs) > 1'000'000; }));
    Console("exception");
    const uintmax_t stored = test::TreeSize(kLogs);
    ASSERT_TRUE(test::WaitUntil([&] { return test::TreeSize(kLogs) > stored + 1'000'000; }));
    Console("log_mode 0");
    EXPECT_EQ(Console("get sync_blocks"), "1\n");
    test::Quarnctl("transfer_type 3");
    EXPECT_EQ(daemon.Wait(), 0);
    EXPECT_TRUE(test::List(kLogs).at(0).ends_with("_EE"));
    EXPECT_TRUE(test::DecodeTree(kLogs) == test::ReadFile("/data/tap"));
}

// When the log device vanishes, here in the middle of the stream, the daemon requests its restart.
// The files contain everything that the daemon had read. The next process continues with the next
// bytes of the modem.
TEST(Daemon, ARemovalOfTheLogDeviceCostsNothingThatTheRingCouldDrain) {
    test::WriteFile("/vendor/etc/quarn_default.cfg", "transfer_type 1\nfile_size 2\nlog_mode 1\n");
    const std::string scenario = "tap /data/tap\nsource replay /data/stream\n";
    test::WriteFile("/data/stream", test::StreamBytes(60'000'000));
    {
        Daemon daemon("removal", scenario + "rate 30M\n",
                      {{sim::kRestartStatusVariable, std::to_string(kRestartAsked)}});
        ASSERT_TRUE(daemon.WaitFor("quarn_stateNotify: listen_thread start"));
        const test::Subscriber subscriber;
        ASSERT_TRUE(daemon.WaitFor("quarn_stateNotify: accept fd="));
        ASSERT_TRUE(test::WaitUntil([] { return test::TreeSize(kLogs) > 3'000'000; }));
        Console("uevent remove vqmi wwanD0MDLog");
        // Reads until the end, because the daemon closes the connection before it restarts.
        EXPECT_EQ(subscriber.Receive(64), std::string("cb_reboot\0", 10));
        EXPECT_EQ(daemon.Wait(), kRestartAsked);
        // No client can subscribe between the message and the restart.
        EXPECT_LT(daemon.Log().find("quarn_stateNotify: join"),
                  daemon.Log().find("quarn_stateNotify: Data fully sent"));
    }
    const std::string stream = test::ReadFile("/data/stream");
    const std::string before = test::DecodeTree(kLogs);
    EXPECT_TRUE(before == test::ReadFile("/data/tap"));
    ASSERT_LT(before.size(), stream.size());

    Daemon daemon("anew", scenario + "rate 0\n");
    ASSERT_TRUE(daemon.WaitFor("start all handler done"));
    ASSERT_TRUE(test::WaitUntil([] { return Console("get at_its_end") == "yes\n"; }));
    EXPECT_EQ(Console("get delivered"), "60000000\n");
    EXPECT_EQ(Console("property vendor.quarn.qrx.restart"), "0\n");
    test::Quarnctl("flush_log_buffer");
    test::Quarnctl("transfer_type 3");
    EXPECT_EQ(daemon.Wait(), 0);
    EXPECT_EQ(test::List(kLogs).size(), 3u);  // two captures and the power-on log
    EXPECT_TRUE(test::DecodeTree(kLogs) == stream);
}
