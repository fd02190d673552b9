// Device events and the modem's state file, in the box's own network namespace.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "byte_source.h"
#include "control/quarn_ctrl_connect.h"
#include "core/quarn.h"
#include "core/system_utility.h"
#include "modem/ctrl_port.h"
#include "modem/quarn_event_detect.h"
#include "platform/mcl.h"
#include "platform/system_properties.h"
#include "sim/uevents.h"
#include "support.h"
#include "syscall_faults.h"
#include "thread_limit.h"

namespace {

using namespace std::chrono_literals;

const std::string kStateFile = "/dev/wwan_fsm_state";
constexpr const char* kRemoved = "event_detect_handle: wwanD0MDLog is removed\n";
constexpr const char* kRestart = "event_detect_handle: restart quarn";
constexpr const char* kRecovered = "event_detect_handle: wwanD0MIPC0 is recover\n";
constexpr const char* kReady = "event_detect_handle: md ready";

// Returns the descriptor on which the started handle receives device events.
int SocketOf(const test::LogCapture& log) {
    const std::string told = "event_detect_handle: uevent_socket_server = ";
    EXPECT_TRUE(log.WaitFor(told + "..."));
    for (const auto& [priority, text] : log.messages()) {
        if (text.starts_with(told)) return std::stoi(text.substr(told.size()));
    }
    return -1;
}

// Waits until the handle has read the state file once. It reads the file every 5 s.
void AwaitALook() { std::this_thread::sleep_for(5500ms); }

std::string RestartProperty() {
    char value[PROP_VALUE_MAX] = {};
    __system_property_get("vendor.quarn.qrx.restart", value);
    return value;
}

class EventDetect : public testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::create_directories("/data/vendor/radio");
        g_event_detect.init();
    }
    void TearDown() override { g_event_detect.stop(); }

    test::LogCapture log;
};

}  // namespace

TEST(ParseUevent, TakesExactlyTwoEvents) {
    const struct {
        std::vector<std::string> texts;
        int32_t event;
    } cases[] = {
        {{"remove@/d", "ACTION=remove", "SUBSYSTEM=vqmi", "DEVNAME=wwanD0MDLog"}, 1},
        {{"DEVNAME=wwanD0MDLog", "X=Y", "SUBSYSTEM=vqmi", "ACTION=remove"}, 1},
        {{"add@/d", "ACTION=add", "SUBSYSTEM=vqmi", "DEVNAME=wwanD0MIPC0"}, 2},
        {{"ACTION=add", "ACTION=remove", "SUBSYSTEM=vqmi", "DEVNAME=wwanD0MDLog"}, 1},
        {{"ACTION=add", "SUBSYSTEM=vqmi", "DEVNAME=wwanD0MDLog"}, 0},
        {{"ACTION=remove", "SUBSYSTEM=vqmi", "DEVNAME=wwanD0MIPC0"}, 0},
        {{"ACTION=removed", "SUBSYSTEM=vqmi", "DEVNAME=wwanD0MDLog"}, 0},
        {{"ACTION=remove", "SUBSYSTEM=vqmi", "DEVNAME=wwanD0MDLog1"}, 0},
        {{"ACTION=remove", "SUBSYSTEM=vqmi2", "DEVNAME=wwanD0MDLog"}, 0},
        {{"ACTION=remove", "DEVNAME=wwanD0MDLog"}, 0},
        {{"ACTION=remove", "SUBSYSTEM=vqmi", "", "DEVNAME=wwanD0MDLog"}, 0},
        {{"remove@/d ACTION=remove SUBSYSTEM=vqmi DEVNAME=wwanD0MDLog"}, 0},
        {{"ACTION=", "SUBSYSTEM=", "DEVNAME=", "MAJOR=", "MINOR=-x", "DEVPATH="}, 0},
        {{}, 0},
    };
    for (const auto& c : cases) {
        std::string message;
        for (const std::string& text : c.texts) message += text + '\0';
        SCOPED_TRACE(message);
        message += '\0';
        // A buffer of exactly this size, so that the sanitizer sees a read behind its end.
        const std::vector<char> exact(message.begin(), message.end());
        event_info info;
        EXPECT_EQ(QUARN_EVENT_DETECT_HANDLE::parse_uevent(exact.data(), &info), c.event);
    }
}

TEST_F(EventDetect, ARemovalClosesTheCaptureAndAsksForTheRestart) {
    mcl_init();
    g_file_io.create_top_folder();
    g_writer.init();
    const std::string bytes = test::StreamBytes(3'000'000);
    test::Feed(bytes);
    g_reader.start();
    g_writer.start();
    ASSERT_TRUE(test::WaitUntil([&] { return g_quarn.write_bytes == bytes.size(); }));
    quarn_property_set("vendor.quarn.qrx.restart", "0");
    ASSERT_EQ(g_event_detect.start(), 0);

    // A message that fills the buffer of one read may be cut. A message with one byte less is
    // complete.
    const auto removal = [](size_t size) {
        std::string message = sim::DeviceEvent("remove", "vqmi", "wwanD0MDLog");
        message += "PAD=" + std::string(size - message.size() - 5, 'x') + '\0';
        EXPECT_EQ(message.size(), size);
        return message;
    };
    ASSERT_TRUE(sim::SendUevent(removal(2048)));
    ASSERT_TRUE(sim::SendUevent(removal(5000)));
    ASSERT_TRUE(sim::SendDeviceEvent("remove", "vqmi", "wwanD0MDLog1"));
    ASSERT_TRUE(sim::SendDeviceEvent("remove", "usb", "wwanD0MDLog"));
    for (size_t seed = 1; seed <= 50; ++seed) {
        ASSERT_TRUE(sim::SendUevent(sim::NoiseUevent(seed * 41, seed)));
    }
    ASSERT_TRUE(sim::SendDeviceEvent("add", "vqmi", "wwanD0MIPC0"));
    ASSERT_TRUE(log.WaitFor(kRecovered));
    EXPECT_EQ(log.Count(kRemoved), 0u);
    EXPECT_EQ(RestartProperty(), "0");

    ASSERT_TRUE(sim::SendUevent(removal(2047)));
    ASSERT_TRUE(log.WaitFor(kRestart));
    ASSERT_TRUE(test::WaitUntil([] { return RestartProperty() == "1"; }));
    EXPECT_EQ(log.Count(kRemoved), 1u);
    EXPECT_FALSE(g_file_io.check_io_open());
    EXPECT_TRUE(test::DecodeTree("/data/vendor/radio/quarn/logs/") == bytes);
    g_reader.stop();
    g_writer.stop();
    mcl_deinit();
}

// Returns true if a thread waits for the mutex: the C library then sets its lock word to 2.
bool HasWaiter(std::mutex& mutex) {
    return __atomic_load_n(&mutex.native_handle()->__data.__lock, __ATOMIC_RELAXED) == 2;
}

// The restart blocks the queue, but not the thread that reads the socket. One restart is enough for
// all removals that arrive until it is done. A stop waits for it.
TEST_F(EventDetect, OneRestartAnswersABurstOfRemovalsAndAStopWaitsForIt) {
    for (const bool stops_meanwhile : {false, true}) {
        SCOPED_TRACE(stops_meanwhile);
        log.Clear();
        quarn_property_set("vendor.quarn.qrx.restart", "0");
        ASSERT_EQ(g_event_detect.start(), 0);
        std::unique_lock busy(g_quarn.exec_mutex);
        for (size_t i = 1; i <= 80; ++i) {
            ASSERT_TRUE(sim::SendDeviceEvent("remove", "vqmi", "wwanD0MDLog"));
            ASSERT_TRUE(log.WaitFor(kRemoved, i));
            // The first removal is off the queue once its restart waits for the mutex.
            ASSERT_TRUE(test::WaitUntil([] { return HasWaiter(g_quarn.exec_mutex); }));
        }
        EXPECT_EQ(log.Count("event_detect_handle: 64 events wait, more are dropped"), 1u);
        std::thread stopping([&] {
            const auto restarted = [] { return RestartProperty() == "1"; };
            EXPECT_TRUE(stops_meanwhile || test::WaitUntil(restarted));
            g_event_detect.stop();
        });
        if (stops_meanwhile) {
            EXPECT_TRUE(log.WaitFor("event_process: wait quarn_event_process_thread joinable"));
        }
        EXPECT_EQ(RestartProperty(), "0");  // init kills the daemon soon after it is set
        busy.unlock();
        stopping.join();
        EXPECT_EQ(log.Count(kRestart), 1u);
        EXPECT_EQ(RestartProperty(), "1");
    }
}

TEST_F(EventDetect, StartsOnceAndStops) {
    {
        const test::NoNewThreads limit;
        EXPECT_EQ(g_event_detect.start(), 1);
    }
    EXPECT_EQ(log.Count("event_process: create thread fail, ..."), 1u);
    EXPECT_EQ(log.Count("event_detect_handle: create thread fail, ..."), 1u);
    for (int run = 0; run < 20; ++run) {
        SCOPED_TRACE(run);
        log.Clear();
        ASSERT_EQ(g_event_detect.start(), 0);
        ASSERT_EQ(g_event_detect.start(), 0);
        EXPECT_EQ(log.Count("event_process: already start"), 1u);
        EXPECT_EQ(log.Count("event_detect_handle: already start"), 1u);
        if (run == 0) {
            // The netlink port with the id of this process is taken, so the handle uses another
            // one.
            QUARN_EVENT_DETECT_HANDLE second;
            EXPECT_EQ(second.start(), 0);
            ASSERT_TRUE(sim::SendDeviceEvent("add", "vqmi", "wwanD0MIPC0"));
            EXPECT_TRUE(log.WaitFor(kRecovered, 2));
            second.stop();
            log.Clear();
        }
        g_event_detect.stop();
        EXPECT_EQ(log.Count("event_detect_handle: thread terminate"), 1u);
        EXPECT_EQ(log.Count("event_process: stop success"), 1u);
    }
    const size_t descriptors = test::List("/proc/self/fd").size();
    g_event_detect.start();
    g_event_detect.stop();
    g_event_detect.stop();
    EXPECT_EQ(log.Count("event_process: already stop"), 1u);
    EXPECT_EQ(test::List("/proc/self/fd").size(), descriptors);
}

TEST_F(EventDetect, LooksAtTheStateFileUntilTheModemIsReady) {
    ASSERT_EQ(g_event_detect.start(), 0);
    test::WriteFile(kStateFile, "state=5\nstate=6\n");
    AwaitALook();
    EXPECT_FALSE(quarn_getCtrlPortStatus());
    test::WriteFile(kStateFile, "state=6");
    ASSERT_TRUE(log.WaitFor(kReady));
    EXPECT_TRUE(test::WaitUntil(quarn_getCtrlPortStatus));
}

TEST_F(EventDetect, AStateFileThatIsAPipeBlocksNothing) {
    ASSERT_EQ(mkfifo(kStateFile.c_str(), 0600), 0);
    ASSERT_EQ(g_event_detect.start(), 0);
    int writer = -1;
    for (size_t looks = 1; looks <= 2; ++looks) {
        AwaitALook();
        ASSERT_TRUE(sim::SendDeviceEvent("add", "vqmi", "wwanD0MIPC0"));
        ASSERT_TRUE(log.WaitFor(kRecovered, looks));
        if (looks == 1) writer = open(kStateFile.c_str(), O_RDWR | O_CLOEXEC);
    }
    EXPECT_EQ(write(writer, "state=6", 7), 7);
    EXPECT_TRUE(log.WaitFor(kReady));
    close(writer);
}

// A driver may block a read of its state file, even a non-blocking one. The handle then reads no
// events. If more events come than the receive buffer holds, the handle logs this once and goes on
// with the rest. A stop ends the blocked read.
TEST_F(EventDetect, OutlivesADriverThatWaitsAndAnOverflow) {
    test::WriteFile(kStateFile, "state=5");
    ASSERT_EQ(g_event_detect.start(), 0);
    const int socket = SocketOf(log);
    int size = 0;
    socklen_t length = sizeof(size);
    EXPECT_EQ(getsockopt(socket, SOL_SOCKET, SO_RCVBUF, &size, &length), 0);
    EXPECT_GE(size, 256 * 1024);
    const test::Fault waiting{test::Call::kRead, EINTR, kStateFile.c_str()};
    {
        const test::FailCalls driver(waiting);
        ASSERT_TRUE(test::WaitUntil([&] { return driver.failed() > 0; }));
        for (int i = 0; i < 3000; ++i) {
            ASSERT_TRUE(sim::SendDeviceEvent("add", "vqmi", "wwanD0MIPC0"));
        }
        EXPECT_EQ(log.Count(kRecovered), 0u);
    }
    ASSERT_TRUE(log.WaitFor(kRecovered));
    EXPECT_EQ(log.Count("event_detect_handle: receive buffer overflow, device events are lost"),
              1u);
    ASSERT_TRUE(test::WaitUntil([&] {
        log.Clear();
        return sim::SendDeviceEvent("add", "vqmi", "wwanD0MIPC0") && log.WaitFor(kRecovered);
    }));
    const test::FailCalls driver(waiting);
    ASSERT_TRUE(test::WaitUntil([&] { return driver.failed() > 0; }));
    g_event_detect.stop();
    EXPECT_EQ(log.Count("event_detect_handle: stop success"), 1u);
}
