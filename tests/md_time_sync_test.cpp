// The modem's clock follows steps of this phone's clock.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <ctime>

#include "control/quarn_ctrl_connect.h"
#include "modem/ctrl_port.h"
#include "modem/quarn_md_time_sync.h"
#include "modem/quarn_mipc_cmd.h"
#include "shifted_clock.h"
#include "sim/modem.h"
#include "support.h"
#include "thread_limit.h"

namespace {

using namespace std::chrono_literals;

constexpr char kStart[] = "md_time_sync_handle: start success";
constexpr char kStopped[] = "md_time_sync_handle: stop success";

class MdTimeSync : public testing::Test {
  protected:
    MdTimeSync() {
        // The seconds of both clocks begin at the same moment, so that whole seconds show a step
        // exactly.
        timespec real_time, boot_time;
        clock_gettime(CLOCK_BOOTTIME, &boot_time);
        clock_gettime(CLOCK_REALTIME, &real_time);
        clock.Shift(CLOCK_REALTIME,
                    std::chrono::nanoseconds(boot_time.tv_nsec - real_time.tv_nsec));
        EXPECT_EQ(quarn_mipcInit("/dev/wwanD0MIPC0"), 0);
        handle.init();
    }
    ~MdTimeSync() override { quarn_mipcDeinit(); }

    void Start() {
        const int before = clock.timer_reads();
        ASSERT_EQ(handle.start(), 0);
        ASSERT_TRUE(test::WaitUntil([&] { return clock.timer_reads() > before; }));
    }
    // Moves the boot time first, so that a thread that sees the new real time also sees the new
    // boot time.
    void Step(std::chrono::seconds real_time, std::chrono::seconds boot_time = 0s) {
        clock.Shift(CLOCK_BOOTTIME, boot_time);
        clock.Shift(CLOCK_REALTIME, real_time);
    }

    test::LogCapture log;
    test::ShiftedClock clock;
    sim::Modem& modem = sim::Modem::Instance();
    QUARN_MD_TIME_SYNC_HANDLE handle;
};

TEST_F(MdTimeSync, EachStepOfTwoSecondsIsToldOnce) {
    static constexpr struct {
        std::chrono::seconds real_time, boot_time;
        uint64_t sets;  // how often the modem's clock has been set so far
    } kSteps[] = {
        {1s, 0s, 0},        // too small
        {1s, 0s, 1},        // both together are large enough
        {2s, 0s, 2},        //
        {-2s, 0s, 3},       //
        {3600s, 3600s, 3},  // the phone was asleep
        {-1s, 0s, 3},       //
        {1s, 0s, 3},        // both together are 0
        {-86400s, 0s, 4},   //
        {86402s, 2s, 5},    // the clock was set while the phone was asleep
    };
    quarn_setCtrlPortReady();
    Start();
    for (const auto& step : kSteps) {
        const int reads = clock.timer_reads();
        Step(step.real_time, step.boot_time);
        ASSERT_TRUE(test::WaitUntil([&] { return clock.timer_reads() > reads; }));
        EXPECT_EQ(modem.ipc_status().clock_sets, step.sets) << (&step - kSteps);
    }
    // Compared to the minute. The next minute may have begun in between.
    const time_t now = time(nullptr);
    char texts[2][32];
    for (const int back : {0, 1}) {
        const time_t then = now - 60 * back;
        tm utc;
        strftime(texts[back], sizeof(texts[back]), "%Y-%m-%d %H:%M:", gmtime_r(&then, &utc));
    }
    const std::string shown = modem.ipc_status().clock;
    EXPECT_TRUE(shown.starts_with(texts[0]) || shown.starts_with(texts[1])) << shown;

    modem.FailIpc(0, sim::IpcFault::kCause, 7, 1);
    Step(5s);
    EXPECT_TRUE(log.WaitFor("md_time_sync_handle: set md time failed"));
    EXPECT_EQ(handle.stop(), 0);
    EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, kStopped));
    EXPECT_EQ(log.Count("md_time_sync_handle: create timer failed..."), 0u);
}

TEST_F(MdTimeSync, StepsAreHeldBackUntilTheModemIsReady) {
    // The clock stands still, so only a stop can end a pause that has begun.
    Start();
    Step(5s);
    ASSERT_TRUE(test::WaitUntil([&] { return clock.timer_cancels() == 1; }));
    clock.Shift(CLOCK_MONOTONIC, -1h);
    EXPECT_EQ(handle.stop(), 0);
    clock.Shift(CLOCK_MONOTONIC, 1h);

    Start();
    const int reads = clock.timer_reads();
    Step(5s);
    ASSERT_TRUE(test::WaitUntil([&] { return clock.timer_cancels() == 2; }));
    Step(-1s);  // the handle adds it to the first step
    clock.Shift(CLOCK_MONOTONIC, 3s);
    EXPECT_EQ(modem.ipc_status().clock_sets, 0u);
    EXPECT_EQ(clock.timer_reads(), reads);
    quarn_setCtrlPortReady();
    clock.Shift(CLOCK_MONOTONIC, 3s);
    EXPECT_TRUE(test::WaitUntil([&] { return clock.timer_reads() == reads + 2; }));
    EXPECT_EQ(modem.ipc_status().clock_sets, 1u);
    EXPECT_EQ(handle.stop(), 0);
}

TEST_F(MdTimeSync, NothingIsLeftAfterManyStarts) {
    const auto left = [] {
        return std::pair(test::List("/proc/self/fd").size(), test::List("/proc/self/task").size());
    };
    quarn_setCtrlPortReady();
    handle.start();  // a sanitizer starts a thread of its own with the first thread
    handle.stop();
    const auto before = left();
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(handle.start(), 0);
        if (i % 3 == 1) Step(std::chrono::seconds(i % 2 == 0 ? 1 : -1));
        const bool runs = i % 5 != 1 || log.WaitFor("md_time_sync_handle: md_time_sync...");
        EXPECT_TRUE(runs);
        ASSERT_EQ(handle.stop(), 0);
        log.Clear();
    }
    EXPECT_TRUE(test::WaitUntil([&] { return left() == before; }));
}

TEST_F(MdTimeSync, GoesWithoutWhatItCannotHave) {
    {
        test::NoNewThreads none;
        EXPECT_EQ(handle.start(), 1);
        EXPECT_TRUE(log.Has(ANDROID_LOG_ERROR, "md_time_sync_handle: create thread fail, ..."));
    }
    EXPECT_EQ(handle.stop(), 0);
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "md_time_sync_handle: already stop"));

    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none = {0, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(handle.start(), 0);
    EXPECT_TRUE(log.WaitFor("md_time_sync_handle: create timer failed, fd=-1"));
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(handle.start(), 0);
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, "md_time_sync_handle: already start"));
    EXPECT_EQ(handle.stop(), 0);

    log.Clear();
    Start();
    EXPECT_TRUE(log.Has(ANDROID_LOG_INFO, kStart));
    EXPECT_EQ(handle.stop(), 0);
}

}  // namespace
