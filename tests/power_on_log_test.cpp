// The power-on log: its copy of the stream's first minute, its end, and the filter setting that a
// switch of the transfer type changes.
#include "storage/power_on_log.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "byte_source.h"
#include "control/transfer_type.h"
#include "core/quarn.h"
#include "modem/early_log_filter.h"
#include "modem/quarn_mipc_cmd.h"
#include "platform/mcl.h"
#include "shifted_clock.h"
#include "support.h"
#include "syscall_faults.h"
#include "thread_limit.h"

namespace fs = std::filesystem;
using namespace quarn::zorvex;
using namespace std::chrono_literals;
using sim::IpcFault;
using test::DecodeFile;

namespace {

const std::string kLogs = "/data/vendor/radio/quarn/logs/";
constexpr size_t kMb = 1 << 20;
constexpr const char* kDetected = "Power-on Log: detect power-on end event";
constexpr const char* kAlreadyStopped = "Power-on log: already stopped";
constexpr const char* kStopped = "Power-on log: stop event detect thread and stop writing log";

class PowerOn : public testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories("/data/vendor/radio");
        mcl_init();
        g_file_io.create_top_folder();
        g_writer.init();
        g_log_filter_manager.init();
        quarn_mipcInit("/dev/wwanD0MIPC0");
    }
    void TearDown() override {
        g_reader.stop();
        g_writer.stop();
        quarn_mipcDeinit();
        PowerOnLogDeInit();
        mcl_deinit();
    }

    // Waits until the modem has delivered `count` bytes in total and the writer has taken all of
    // them out of the ring.
    void Drain(size_t count) {
        ASSERT_TRUE(test::WaitUntil([&] { return modem.bytes_delivered() >= count; }, 60s));
        ASSERT_TRUE(test::WaitUntil([&] { return g_quarn.write_bytes == count; }, 60s));
    }
    // Stores bytes without the reader and the writer.
    static void Store(const std::string& bytes) {
        ASSERT_EQ(g_file_io.io_write(bytes.data(), static_cast<int>(bytes.size())),
                  static_cast<int>(bytes.size()));
        g_file_io.flush_ringBuf();
    }

    test::LogCapture log;
    test::ShiftedClock clock;
    sim::Modem& modem = sim::Modem::Instance();
};

}  // namespace

TEST_F(PowerOn, HoldsTheHeadOfTheStreamAndEndsWithTheMinute) {
    test::WriteFile(kPowerOnLogPath, "of the run before");
    PowerOnLogInit();
    g_log_filter_manager.exec(EXEC_MD_LOG_START, nullptr);
    int32_t level = 4;
    EXPECT_EQ(g_log_filter_manager.exec(EXEC_SET_LOG_LEVEL, &level), 0);
    const std::string first = test::StreamBytes(9 * kMb);
    const std::string second = test::StreamBytes(3 * kMb, 2);
    modem.SetSource(nullptr);
    modem.SetLogMode(1);
    g_reader.start();
    g_writer.start();
    for (size_t capture = 1; capture <= 3; ++capture) {
        if (capture > 1) g_file_io.io_close();
        const size_t part = first.size() / 3;
        test::Feed(first.substr((capture - 1) * part, part));
        Drain(capture * part);
    }
    EXPECT_EQ(test::List(kLogs).size(), 4u);
    EXPECT_EQ(log.Count("Power-on log: already started"), 2u);
    EXPECT_EQ(modem.settings().log_level, 1);

    clock.Shift(CLOCK_MONOTONIC, 30s);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(log.Count(kDetected), 0u);
    clock.Shift(CLOCK_MONOTONIC, 30s);
    ASSERT_TRUE(log.WaitFor("Power-on Log: thread PowerOnEventDetectThreadEntry terminate"));
    EXPECT_EQ(modem.settings().log_level, 4);
    std::string order;
    for (const auto& [priority, text] : log.messages()) {
        if (text == "Log Filter Manager: set log_level=4 successfully") order += "level ";
        if (text == "writer_handler: handle exec_id=18") order += "flush ";
    }
    EXPECT_EQ(order, "level flush ");
    // The bytes that the flush at the end of the minute writes belong to the power-on log.
    EXPECT_TRUE(DecodeFile(kPowerOnLogPath).bytes == first);
    EXPECT_FALSE(DecodeFile(kPowerOnLogPath).stray_byte);

    test::Feed(second);
    Drain(first.size() + second.size());
    g_writer.stop();
    const test::DecodedFile copy = DecodeFile(kPowerOnLogPath);
    EXPECT_TRUE(copy.bytes == first);
    EXPECT_TRUE(copy.stray_byte && test::ReadFile(kPowerOnLogPath).back() == 0);
    EXPECT_TRUE(test::DecodeTree(kLogs) == first + second);
    EXPECT_EQ(fs::status(kPowerOnLogPath).permissions(), fs::perms{0644});
    g_file_io.io_open();
    EXPECT_TRUE(log.Has(ANDROID_LOG_WARN, kAlreadyStopped));
}

TEST_F(PowerOn, StopsAtTheSizeBoundWithTheWriteThatReachesIt) {
    constexpr unsigned int kBound = 52'428'800;
    PowerOnLogInit();
    ASSERT_EQ(g_file_io.io_open(), 0);
    const auto header = fs::file_size(kPowerOnLogPath);
    const std::string bytes(kBound, 'x');
    PowerOnLogWrite(bytes.data(), kBound - 2, false);
    PowerOnLogWrite(bytes.data(), 2, true);  // the stray byte does not count
    EXPECT_EQ(log.Count("Power-on log: stop writing log, ..."), 0u);
    PowerOnLogWrite(bytes.data(), 5, false);
    EXPECT_TRUE(
        log.Has(ANDROID_LOG_INFO, "Power-on log: stop writing log, file size=52428804 bytes"));
    EXPECT_EQ(fs::file_size(kPowerOnLogPath), header + kBound + 4);
    for (int i = 0; i < 2; ++i) PowerOnLogWrite(bytes.data(), 7, false);
    EXPECT_EQ(fs::file_size(kPowerOnLogPath), header + kBound + 5);
    EXPECT_EQ(test::ReadFile(kPowerOnLogPath).back(), 0);
}

TEST_F(PowerOn, StartsOnlyWhenItCan) {
    ASSERT_EQ(g_file_io.io_open(), 0);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR,
                        "PowerOnLogStart: Error starting power-on log: init function should be "
                        "called first"));
    {
        const test::NoNewThreads limit;
        PowerOnLogInit();
        PowerOnLogStart(0);
        EXPECT_TRUE(log.Has(ANDROID_LOG_WARN, kAlreadyStopped));
        // Without its thread the minute ends at once, because nothing would end it later.
        EXPECT_EQ(log.Count("Log Filter Manager: logging state changes to 0x0"), 1u);
        PowerOnLogStop();
    }
    PowerOnLogInit();
    g_quarn.transfer_type = SAVE_MODE_SOCKET;
    PowerOnLogStart(0);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR,
                        "PowerOnLogStart: Error starting power-on log: transfer type 2 should be "
                        "storage"));
    g_quarn.transfer_type = SAVE_MODE_STORAGE;
    {
        const size_t descriptors = test::List("/proc/self/fd").size();
        const test::FailCalls full({test::Call::kWrite, ENOSPC, kPowerOnLogPath});
        PowerOnLogStart(0);
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "PowerOnLogStart: Error writing log file ..."));
        EXPECT_EQ(test::List("/proc/self/fd").size(), descriptors);
        fs::remove(kPowerOnLogPath);
    }
    test::WriteFile(std::string(kPowerOnLogPath) + "/in the way", "x");
    PowerOnLogStart(0);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, std::string("PowerOnLogStart: Error opening log file ") +
                                               kPowerOnLogPath + ": File exists"));
    fs::remove_all(kPowerOnLogPath);
    PowerOnLogStart(0);
    Store("abc");
    PowerOnLogDeInit();
    EXPECT_EQ(DecodeFile(kPowerOnLogPath).bytes, "abc");
    EXPECT_TRUE(DecodeFile(kPowerOnLogPath).stray_byte);
}

// Bytes that were appended to an emptied power-on log would follow a gap.
TEST_F(PowerOn, EndsWhenItsFileIsCut) {
    PowerOnLogInit();
    ASSERT_EQ(g_file_io.io_open(), 0);
    Store("one ");
    fs::resize_file(kPowerOnLogPath, 0);
    Store("two ");
    EXPECT_TRUE(log.Has(ANDROID_LOG_WARN, std::string("Power-on log: stop writing log, ") +
                                              kPowerOnLogPath + " was cut"));
    EXPECT_EQ(fs::file_size(kPowerOnLogPath), 0u);
    EXPECT_EQ(test::DecodeTree(kLogs), "one two ");
}

// The daemon stops writing to a deleted power-on log and does not create it again. The captures
// continue.
TEST_F(PowerOn, EndsWhenItsFileIsDeleted) {
    PowerOnLogInit();
    ASSERT_EQ(g_file_io.io_open(), 0);
    const size_t descriptors = test::List("/proc/self/fd").size();
    Store("one ");
    fs::remove(kPowerOnLogPath);
    Store("two ");
    EXPECT_TRUE(log.Has(ANDROID_LOG_WARN, std::string("Power-on log: stop writing log, ") +
                                              kPowerOnLogPath + " was deleted"));
    // Open are the log file and a duplicate of its descriptor, which waits for the sync. The
    // power-on log is closed.
    EXPECT_EQ(test::List("/proc/self/fd").size(), descriptors + 1);
    g_file_io.io_close();
    g_file_io.io_open();
    EXPECT_TRUE(log.Has(ANDROID_LOG_WARN, kAlreadyStopped));
    EXPECT_FALSE(fs::exists(kPowerOnLogPath));
    EXPECT_EQ(test::DecodeTree(kLogs), "one two ");
}

// The captures and the power-on log are on two small disks. First the disk of the captures is full,
// then the disk of the power-on log.
TEST_F(PowerOn, AFullDiskNeitherDoublesNorTearsABlock) {
    ASSERT_EQ(mount("none", kLogs.c_str(), "tmpfs", 0, "size=6m"), 0);
    ASSERT_EQ(g_file_io.set_log_folder(kLogs + "run1"), 0);
    ASSERT_EQ(mount("none", (kLogs + "run1").c_str(), "tmpfs", 0, "size=2m"), 0);
    PowerOnLogInit();
    const std::string bytes = test::StreamBytes(36 * kMb);
    test::Feed(bytes);
    g_reader.start();
    g_writer.start();
    ASSERT_TRUE(log.WaitFor("io: common_write fail, ...", 3));
    ASSERT_EQ(mount("none", (kLogs + "run1").c_str(), "tmpfs", MS_REMOUNT, "size=64m"), 0);
    ASSERT_TRUE(log.WaitFor("PowerOnLogWrite: Error writing log file: No space left on device"));
    Drain(bytes.size());
    g_writer.stop();
    EXPECT_TRUE(test::DecodeTree(kLogs + "run1") == bytes);
    const test::DecodedFile copy = DecodeFile(kPowerOnLogPath);
    EXPECT_GT(copy.bytes.size(), 8 * kMb);
    EXPECT_TRUE(bytes.starts_with(copy.bytes));
    EXPECT_TRUE(copy.stray_byte);
}

// A stop waits for the event thread, which waits for `exec_mutex` or for the modem. Meanwhile
// neither a notification nor the writer may wait for the stop.
TEST_F(PowerOn, AStopThatIsUnderWayBlocksNoOtherCaller) {
    for (const bool in_flush : {false, true}) {
        SCOPED_TRACE(in_flush);
        PowerOnLogInit();
        ASSERT_EQ(g_file_io.io_open(), 0);
        Store("kept,");
        std::unique_lock notification(g_quarn.exec_mutex, std::defer_lock);
        if (in_flush) {
            modem.FailIpc(119, IpcFault::kSilence, 0, 1);
        } else {
            notification.lock();
        }
        while (in_flush ? modem.ipc_status().under_way == 0 : log.Count(kDetected) == 0) {
            clock.Shift(CLOCK_MONOTONIC, 60s);  // again if the thread was not waiting yet
            std::this_thread::sleep_for(5ms);
        }
        if (in_flush) notification.lock();
        std::thread stop(PowerOnLogStop);
        EXPECT_TRUE(test::WaitUntil([&] {
            PowerOnLogStart(0);
            return log.Count(kAlreadyStopped) > 0;
        }));
        g_file_io.io_close();
        EXPECT_EQ(g_file_io.io_open(), 0);
        Store("left out");
        EXPECT_EQ(log.Count(kStopped), 0u);
        // The event thread itself flushes this byte.
        ASSERT_GT(g_file_io.io_write("x", 1), 0);
        std::thread second_stop(PowerOnLogStop);
        notification.unlock();
        stop.join();
        second_stop.join();
        EXPECT_EQ(log.Count("Flush log buffers done"), 1u);
        PowerOnLogDeInit();
        EXPECT_EQ(DecodeFile(kPowerOnLogPath).bytes, "kept,");
        EXPECT_TRUE(DecodeFile(kPowerOnLogPath).stray_byte);
        g_file_io.io_close();
        log.Clear();
    }
}

namespace {

enum Outcome { kFine, kNoPlace, kNotEnded, kNotTheHead };

// Runs the modules of the daemon once, with a /data of its own. The exit comes around the end of
// the first minute. Depending on the seed, notifications or a stop of the power-on log come, too.
Outcome LiveAndEnd(unsigned int seed) {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/data", "tmpfs", 0, nullptr) != 0) {
        return kNoPlace;
    }
    fs::create_directories("/data/vendor/radio");
    std::mt19937 random(seed);
    const auto pause = [&random] { return std::chrono::milliseconds(random() % 2600); };
    test::ShiftedClock clock;
    sim::Modem& modem = sim::Modem::Instance();
    modem.SetSource(sim::MakeGeneratedSource(seed));
    modem.SetRate(kMb);
    g_writer.init();
    g_notify.init();
    g_log_filter_manager.init();
    mcl_init();
    g_file_io.create_top_folder();
    PowerOnLogInit();
    g_reader.start();
    quarn_mipcInit("/dev/wwanD0MIPC0");
    g_writer.start();
    quarn_mipcSetLogMode(1);
    test::WaitUntil([] { return fs::exists(kPowerOnLogPath); });

    std::vector<std::thread> threads;
    threads.emplace_back([&clock, at = pause()] {
        std::this_thread::sleep_for(at);
        clock.Shift(CLOCK_MONOTONIC, 60s);
    });
    if (random() % 3 == 0) {
        threads.emplace_back([at = pause()] {
            std::this_thread::sleep_for(at);
            PowerOnLogStop();
        });
    }
    if (random() % 2 == 0) {
        threads.emplace_back([&modem, at = pause()] {
            std::this_thread::sleep_for(at);
            modem.Raise(NTFY_MD_LOG_END);
            modem.Raise(NTFY_MD_EXCEPTION);
        });
    }
    std::this_thread::sleep_for(pause());
    if (random() % 8 == 0) modem.FailIpc(0, sim::IpcFault::kSilence, 0, 1000);
    quarn_setTransferType(SAVE_MODE_EXIT);
    g_reader.stop();
    quarn_endCallbacks();
    g_writer.stop();
    quarn_mipcDeinit();
    PowerOnLogDeInit();
    mcl_deinit();
    for (std::thread& thread : threads) thread.join();
    const test::DecodedFile copy = DecodeFile(kPowerOnLogPath);
    if (!copy.stray_byte) return kNotEnded;
    return test::Decode(kLogs).bytes.starts_with(copy.bytes) ? kFine : kNotTheHead;
}

}  // namespace

TEST(PowerOnEnd, AnExitAtAnyMomentNeitherHangsNorLeavesTheFileOpen) {
    constexpr unsigned int kRounds = 60;
    constexpr unsigned int kAtOnce = 15;
    const test::LogCapture quiet;
    std::vector<pid_t> children;
    for (unsigned int round = 0; round < kRounds; ++round) {
        const pid_t pid = fork();
        if (pid == 0) {
            _exit(LiveAndEnd(round));
        }
        children.push_back(pid);
        if (children.size() < kAtOnce && round + 1 < kRounds) continue;
        for (const pid_t child : children) {
            EXPECT_EQ(test::WaitForChild(child), 0)
                << "round of child " << child << ", last round " << round;
        }
        children.clear();
    }
}

// --- the setting ---

TEST_F(PowerOn, ReadsTheFilterSettingFromTheFirstLine) {
    const std::string invalid = " to int failed: Invalid argument";
    const struct {
        const char* answer;
        int value;         // -1: the read fails
        std::string told;  // after "Convert power-on log filter enable "; empty: no message
    } cases[] = {
        {"3\r\n\r\nOK\r\n", 3, ""},
        {"\n\r-7\nOK", -7, ""},
        {"AT+ZORVEARLYLOGFILTER?\r\n3\r\nOK\r\n", -1, "AT+ZORVEARLYLOGFILTER?" + invalid},
        {"12x\r\nOK", -1, "12x" + invalid},
        {" 3\r\nOK", -1, " 3" + invalid},
        {"2147483648\r\nOK", -1, "2147483648 to int failed: Numerical result out of range"},
        {"3\r\nERROR\r\n", -1, ""},
        {"", -1, ""},
    };
    for (const auto& [answer, expected, told] : cases) {
        SCOPED_TRACE(answer);
        log.Clear();
        modem.AnswerAt(answer, 1);
        int value = 99;
        EXPECT_EQ(GetPowerOnLogFilterEnableNvramCfg(value), expected != -1);
        EXPECT_EQ(value, expected);
        EXPECT_EQ(log.Count("Power-on log: Convert power-on log filter enable " +
                            (told.empty() ? "..." : told)),
                  told.empty() ? 0u : 1u);
    }
    EXPECT_TRUE(SetPowerOnLogFilterEnableNvramCfg(-12));
    modem.AnswerAt("ERROR\r\n", 1);
    EXPECT_FALSE(SetPowerOnLogFilterEnableNvramCfg(3));
    EXPECT_EQ(modem.settings().early_log_filter, -12);
}

TEST_F(PowerOn, ASwitchOfTheTransferTypeSetsTheFilter) {
    const QUARN_SAVE_MODE usb = SAVE_MODE_USB, socket = SAVE_MODE_SOCKET,
                          storage = SAVE_MODE_STORAGE, exit = SAVE_MODE_EXIT;
    const struct {
        QUARN_SAVE_MODE from, to;
        int written;  // value of the setting; 0: it is not written
        bool read_fails = false, write_fails = false;
    } rows[] = {
        {storage, usb, 2},
        {storage, socket, 2},
        {usb, storage, 3},
        {socket, storage, 3},
        {usb, socket, 0},
        {storage, exit, 0},
        {exit, storage, 0},
        {usb, usb, 0},
        {storage, usb, 2, true},
        {storage, usb, 2, false, true},
        {usb, storage, 3, true, true},
        {usb, exit, 0, true},
    };
    for (const auto& [from, to, written, read_fails, write_fails] : rows) {
        SCOPED_TRACE(testing::Message() << from << " to " << to << read_fails << write_fails);
        SetPowerOnLogFilterEnableNvramCfg(0);
        g_log_filter_manager.init();
        log.Clear();
        modem.AnswerAt(read_fails ? "ERROR\r\n" : "5\r\n\r\nOK\r\n", 1);
        if (write_fails) modem.AnswerAt("ERROR\r\n", 1);
        HandleTransferTypeSwitch(from, to);
        modem.AnswerAt("", 0);
        const size_t leaves = written == 2 ? 1 : 0;
        EXPECT_EQ(modem.settings().early_log_filter, write_fails ? 0 : written);
        EXPECT_EQ(log.Count("Switch transfer_type with warnings"),
                  read_fails || write_fails ? 1u : 0u);
        EXPECT_EQ(log.Count(kStopped), leaves);
        EXPECT_EQ(log.Count("Log Filter Manager: logging state changes to 0x0"), leaves);
    }
}
