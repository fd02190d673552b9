#include "shifted_clock.h"

#include <dlfcn.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>

namespace {

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kSlice = 5'000'000;  // ns between two looks at a clock that may be moved

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

}  // namespace

namespace test {

ShiftedClock::ShiftedClock() { in_use = true; }

ShiftedClock::~ShiftedClock() {
    for (auto& shift : shifts) shift = 0;
    in_use = false;
}

void ShiftedClock::Shift(clockid_t clock, std::chrono::nanoseconds by) {
    shifts[static_cast<size_t>(clock)] += by.count();
}

}  // namespace test

// These stand before the C library's own.
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

// Sleeps in slices, each of which ends like a spurious wake-up.
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
