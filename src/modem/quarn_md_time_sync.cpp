#include "modem/quarn_md_time_sync.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>

#include "core/named_thread.h"
#include "modem/ctrl_port.h"
#include "modem/quarn_mipc_cmd.h"
#include "platform/quarn_log.h"

namespace {

constexpr int64_t kSmallestStep = 2;  // seconds
constexpr std::chrono::seconds kPause(3);
constexpr int kTimerFlags = TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET;

// The interval would apply after the timer has expired for the first time, which it never does.
constexpr itimerspec kNever = {
    .it_interval = {.tv_sec = 10, .tv_nsec = 0},
    .it_value = {.tv_sec = std::numeric_limits<decltype(timespec::tv_sec)>::max(), .tv_nsec = 0},
};
// A time in the past. It is not zero, because zero would disarm the timer.
constexpr itimerspec kAtOnce = {
    .it_interval = {},
    .it_value = {.tv_sec = 0, .tv_nsec = 500},
};

bool arm(int fd, const itimerspec& when) {
    if (timerfd_settime(fd, kTimerFlags, &when, nullptr) == 0) return true;
    QUARN_LOGE("md_time_sync_handle: create timer failed, fd=%d", fd);
    return false;
}

}  // namespace

QUARN_MD_TIME_SYNC_HANDLE::~QUARN_MD_TIME_SYNC_HANDLE() {
    wake_thread();
    join_thread();
}

int32_t QUARN_MD_TIME_SYNC_HANDLE::init() {
    running = false;
    timer_fd = -1;
    std::lock_guard lock(baseline_mutex);
    baseline_valid = true;
    baseline_diff = 0;
    return 0;
}

int32_t QUARN_MD_TIME_SYNC_HANDLE::start() {
    std::lock_guard lock(lifecycle_mutex);
    set_baseline();
    if (running.exchange(true)) {
        QUARN_LOGI("md_time_sync_handle: already start");
        return 0;
    }
    if (!quarn_startThread(sync_thread, "quarn_md_time", "md_time_sync_handle",
                           [this] { quarn_md_time_sync_handle_thread(); })) {
        running = false;
        return 1;
    }
    QUARN_LOGI("md_time_sync_handle: start success");
    return 0;
}

int32_t QUARN_MD_TIME_SYNC_HANDLE::stop() {
    std::lock_guard lock(lifecycle_mutex);
    if (!running) {
        QUARN_LOGI("md_time_sync_handle: already stop");
        return 0;
    }
    wake_thread();
    QUARN_LOGE("md_time_sync_handle: wait md_time_sync_handle_thread joinable");
    join_thread();
    QUARN_LOGE("md_time_sync_handle: stop success");
    return 0;
}

// No wake-up can be lost. This function clears the flag and then reads `timer_fd`. The thread
// stores and arms the timer and then reads the flag. If the clock is stepped in between, the
// thread's read is cancelled, which ends it as well. The kernel then reports an error for the
// arming here, but the timer is armed.
void QUARN_MD_TIME_SYNC_HANDLE::wake_thread() {
    {
        std::lock_guard lock(pause_mutex);
        running = false;
    }
    pause_cond.notify_all();
    if (const int fd = timer_fd; fd >= 0) arm(fd, kAtOnce);
}

// Also closes the timer. No other code uses it after the join.
void QUARN_MD_TIME_SYNC_HANDLE::join_thread() {
    if (sync_thread.joinable()) sync_thread.join();
    if (const int fd = timer_fd.exchange(-1); fd >= 0) close(fd);
}

std::optional<int64_t> QUARN_MD_TIME_SYNC_HANDLE::get_realtime_boottime_diff() {
    timespec real_time;
    if (clock_gettime(CLOCK_REALTIME, &real_time) != 0) {
        QUARN_LOGE("md_time_sync_handle: read CLOCK_REALTIME failed, errno=%s", strerror(errno));
        return std::nullopt;
    }
    timespec boot_time;
    if (clock_gettime(CLOCK_BOOTTIME, &boot_time) != 0) {
        QUARN_LOGE("md_time_sync_handle: read CLOCK_BOOTTIME failed, errno=%s", strerror(errno));
        return std::nullopt;
    }
    return static_cast<int64_t>(real_time.tv_sec) - static_cast<int64_t>(boot_time.tv_sec);
}

void QUARN_MD_TIME_SYNC_HANDLE::set_baseline() {
    const std::optional<int64_t> diff = get_realtime_boottime_diff();
    if (!diff) return;
    std::lock_guard lock(baseline_mutex);
    baseline_diff = *diff;
    baseline_valid = true;
    QUARN_LOGI("md_time_sync_handle: initialize boottime/realtime difference");
}

bool QUARN_MD_TIME_SYNC_HANDLE::is_time_changed() {
    const std::optional<int64_t> diff = get_realtime_boottime_diff();
    if (!diff) return false;
    std::lock_guard lock(baseline_mutex);
    if (!baseline_valid) {
        baseline_diff = *diff;
        baseline_valid = true;
        return false;
    }
    // After a small step the baseline stays, so that small steps add up.
    if (std::llabs(*diff - baseline_diff) < kSmallestStep) return false;
    baseline_diff = *diff;
    QUARN_LOGI("md_time_sync_handle: update boottime/realtime difference");
    return true;
}

void QUARN_MD_TIME_SYNC_HANDLE::quarn_md_time_sync_handle_thread() {
    QUARN_LOGI("md_time_sync_handle: md_time_sync_handle_thread start");
    const int fd = timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC);
    if (fd < 0) {
        QUARN_LOGE("md_time_sync_handle: create timer failed, fd=%d", fd);
        return;
    }
    timer_fd = fd;
    arm(fd, kNever);
    while (running) wait_for_step(fd);
    QUARN_LOGI("md_time_sync_handle terminated");
}

void QUARN_MD_TIME_SYNC_HANDLE::wait_for_step(int fd) {
    uint64_t expirations;
    if (read(fd, &expirations, sizeof(expirations)) >= 0 || errno == EINTR) return;
    if (errno != ECANCELED) {
        pause();  // if the timer cannot be read, this loop must not take the processor
        return;
    }
    if (wait_for_modem() && is_time_changed()) send_time();
}

// Waits until the modem is ready. Returns false if the thread must end.
bool QUARN_MD_TIME_SYNC_HANDLE::wait_for_modem() {
    while (running) {
        if (quarn_getCtrlPortStatus()) return true;
        pause();
    }
    return false;
}

// Waits for kPause. Returns at once if the thread must end.
void QUARN_MD_TIME_SYNC_HANDLE::pause() {
    std::unique_lock lock(pause_mutex);
    pause_cond.wait_for(lock, kPause, [this] { return !running; });
}

void QUARN_MD_TIME_SYNC_HANDLE::send_time() {
    time_t now;
    if (time(&now) == static_cast<time_t>(-1)) {
        QUARN_LOGE("md_time_sync_handle: get system time failed, errno=%s", strerror(errno));
    } else if (quarn_mipcSetTime(&now) != 0) {
        QUARN_LOGE("md_time_sync_handle: set md time failed");
    }
}
