// Clocks of this process that a test can move, so that it does not wait for minutes.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <ctime>
#include <optional>

namespace test {

// While an object exists, all threads of the process see the clocks that `Shift` moved. A thread
// that waits on a condition variable with a time limit on the steady clock wakes when the moved
// clock passes the limit. Only one object may exist at a time. Waits should begin after its
// construction.
class ShiftedClock {
  public:
    ShiftedClock();
    ~ShiftedClock();
    ShiftedClock(const ShiftedClock&) = delete;
    ShiftedClock& operator=(const ShiftedClock&) = delete;

    // Moves CLOCK_REALTIME, CLOCK_MONOTONIC or CLOCK_BOOTTIME, also backwards. `time` follows
    // CLOCK_REALTIME. A shift of CLOCK_REALTIME cancels the last timer that was made while this
    // object existed, if it was armed with TFD_TIMER_CANCEL_ON_SET.
    void Shift(clockid_t clock, std::chrono::nanoseconds by);

    // Number of reads of that timer that have begun, and number of those that were cancelled.
    int timer_reads() const;
    int timer_cancels() const;
};

// Reads the timer that a step of the clock cancels. Returns no value for any other descriptor.
// Called by the function that replaces the C library's `read`.
std::optional<ssize_t> ReadShiftedTimer(int fd, void* buf, size_t len);

}  // namespace test
