#include "shifted_clock.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <mutex>

namespace {

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kSlice = 5'000'000;  // ns between two reads of a clock that a test may move

std::atomic<bool> in_use{false};
std::array<std::atomic<int64_t>, CLOCK_BOOTTIME + 1> shifts;  // ns, by clock

template <typename Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

int64_t to_ns(const timespec& time) { return time.tv_sec * kSecond + time.tv_nsec; }
timespec from_ns(int64_t ns) { return {ns / kSecond, ns % kSecond}; }

int real_gettime(clockid_t clock, timespec* time) {
    static const auto function = real<int(clockid_t, timespec*)>("clock_gettime");
    return function(clock, time);
}

int real_settime(int fd, int flags, const itimerspec* when, itimerspec* old) {
    static const auto function =
        real<int(int, int, const itimerspec*, itimerspec*)>("timerfd_settime");
    return function(fd, flags, when, old);
}

// A timer of the kernel. To cancel it, this code makes it expire early.
struct Timer {
    std::mutex mutex;  // guards the members below
    itimerspec armed = {};
    int flags = 0;
    bool cancelled = false;
    std::atomic<int> fd{-1};
    std::atomic<int> reads{0};
    std::atomic<int> cancels{0};
};
Timer timer;

void cancel_timer() {
    std::lock_guard lock(timer.mutex);
    if ((timer.flags & TFD_TIMER_CANCEL_ON_SET) == 0) return;
    timer.cancelled = true;
    const itimerspec long_past = {{}, {0, 1}};
    real_settime(timer.fd, TFD_TIMER_ABSTIME, &long_past, nullptr);
}

}  // namespace

namespace test {

ShiftedClock::ShiftedClock() { in_use = true; }

ShiftedClock::~ShiftedClock() {
    for (auto& shift : shifts) shift = 0;
    in_use = false;
}

void ShiftedClock::Shift(clockid_t clock, std::chrono::nanoseconds by) {
    shifts[static_cast<size_t>(clock)] += by.count();
    if (clock == CLOCK_REALTIME) cancel_timer();
}

int ShiftedClock::timer_reads() const { return timer.reads; }
int ShiftedClock::timer_cancels() const { return timer.cancels; }

std::optional<ssize_t> ReadShiftedTimer(int fd, void* buf, size_t len) {
    static const auto function = real<ssize_t(int, void*, size_t)>("read");
    if (!in_use || fd != timer.fd) return std::nullopt;
    ++timer.reads;
    const ssize_t got = function(fd, buf, len);
    std::lock_guard lock(timer.mutex);
    if (got < 0 || !timer.cancelled) return got;
    timer.cancelled = false;
    real_settime(fd, timer.flags, &timer.armed, nullptr);
    ++timer.cancels;
    errno = ECANCELED;
    return -1;
}

}  // namespace test

// These functions replace those of the C library.
extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const int rc = real_gettime(clock, time);
    const auto index = static_cast<size_t>(clock);
    if (rc == 0 && index < shifts.size() && shifts[index] != 0) {
        *time = from_ns(to_ns(*time) + shifts[index]);
    }
    return rc;
}

time_t time(time_t* out) noexcept {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    if (out != nullptr) *out = now.tv_sec;
    return now.tv_sec;
}

int timerfd_create(clockid_t clock, int flags) noexcept {
    static const auto function = real<int(clockid_t, int)>("timerfd_create");
    const int fd = function(clock, flags);
    if (!in_use) return fd;
    std::lock_guard lock(timer.mutex);
    timer.flags = 0;
    timer.cancelled = false;
    timer.fd = fd;
    return fd;
}

int timerfd_settime(int fd, int flags, const itimerspec* when, itimerspec* old) noexcept {
    std::lock_guard lock(timer.mutex);
    const int rc = real_settime(fd, flags, when, old);
    if (rc == 0 && fd == timer.fd) {
        timer.armed = *when;
        timer.flags = flags;
    }
    return rc;
}

// Sleeps in short slices. The end of a slice looks like a spurious wake-up.
int pthread_cond_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* limit) {
    static const auto function =
        real<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*)>(
            "pthread_cond_clockwait");
    if (!in_use) return function(cond, mutex, clock, limit);
    timespec now = {};
    clock_gettime(clock, &now);
    const int64_t left = to_ns(*limit) - to_ns(now);
    if (left <= 0) return ETIMEDOUT;
    real_gettime(clock, &now);
    const timespec slice = from_ns(to_ns(now) + (left < kSlice ? left : kSlice));
    const int rc = function(cond, mutex, clock, &slice);
    return rc == ETIMEDOUT && left > kSlice ? 0 : rc;
}

}  // extern "C"
