#include "sim/clock.h"

#include <dlfcn.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <mutex>

namespace {

constexpr int64_t kSecond = 1'000'000'000;

std::atomic<int64_t> real_time_shift{0};  // ns

template <typename Function>
Function* Real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

int RealSetTime(int fd, int flags, const itimerspec* when, itimerspec* old) {
    static const auto function =
        Real<int(int, int, const itimerspec*, itimerspec*)>("timerfd_settime");
    return function(fd, flags, when, old);
}

// The timer that was last armed with TFD_TIMER_CANCEL_ON_SET. The daemon has one. A step makes it
// expire, and then its next read fails with ECANCELED.
struct Timer {
    std::mutex mutex;  // guards the next two
    itimerspec armed = {};
    int flags = 0;
    std::atomic<int> fd{-1};
    std::atomic<bool> cancelled{false};
};
Timer timer;

}  // namespace

namespace sim {

void StepClock(std::chrono::milliseconds by, const std::string& folder) {
    constexpr int64_t kMost = int64_t{36'500} * 86'400 * kSecond;
    std::lock_guard lock(timer.mutex);
    const int64_t wanted = real_time_shift + std::chrono::nanoseconds(by).count();
    real_time_shift = std::clamp(wanted, -kMost, kMost);
    if (!folder.empty()) std::ofstream(folder + "/clock_shift") << real_time_shift << '\n';
    if (timer.fd == -1) return;
    timer.cancelled = true;
    const itimerspec long_past = {{}, {0, 1}};
    RealSetTime(timer.fd, TFD_TIMER_ABSTIME, &long_past, nullptr);
}

void TakeUpClock(const std::string& folder) {
    int64_t shift = 0;
    if (std::ifstream(folder + "/clock_shift") >> shift) real_time_shift = shift;
}

}  // namespace sim

// These functions replace those of the C library. They are weak, so that a test can replace them.
extern "C" {

[[gnu::weak]] int clock_gettime(clockid_t clock, timespec* time) noexcept {
    static const auto function = Real<int(clockid_t, timespec*)>("clock_gettime");
    const int rc = function(clock, time);
    const int64_t shift = real_time_shift;
    if (rc != 0 || clock != CLOCK_REALTIME || shift == 0) return rc;
    const int64_t now = time->tv_sec * kSecond + time->tv_nsec + shift;
    *time = {now / kSecond, now % kSecond};
    return 0;
}

[[gnu::weak]] time_t time(time_t* out) noexcept {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    if (out != nullptr) *out = now.tv_sec;
    return now.tv_sec;
}

[[gnu::weak]] int timerfd_settime(int fd, int flags, const itimerspec* when,
                                  itimerspec* old) noexcept {
    std::lock_guard lock(timer.mutex);
    const int rc = RealSetTime(fd, flags, when, old);
    if (rc == 0 && (flags & TFD_TIMER_CANCEL_ON_SET) != 0) {
        timer.armed = *when;
        timer.flags = flags;
        timer.fd = fd;
    }
    return rc;
}

[[gnu::weak]] ssize_t read(int fd, void* buf, size_t len) {
    static const auto function = Real<ssize_t(int, void*, size_t)>("read");
    const ssize_t got = function(fd, buf, len);
    if (got < 0 || fd != timer.fd || !timer.cancelled.exchange(false)) return got;
    std::lock_guard lock(timer.mutex);
    RealSetTime(fd, timer.flags, &timer.armed, nullptr);
    errno = ECANCELED;
    return -1;
}

}  // extern "C"
