// Clocks of this process that a test can move, in place of minutes of waiting.
#pragma once

#include <chrono>
#include <ctime>

namespace test {

// While it lives, a clock that was moved by `Shift` runs on from there, for every reader in this
// process, and who waits on a condition variable with a time limit on the steady clock wakes when
// the limit has passed on the moved one. One at a time; waits should begin after its construction.
class ShiftedClock {
  public:
    ShiftedClock();
    ~ShiftedClock();
    ShiftedClock(const ShiftedClock&) = delete;
    ShiftedClock& operator=(const ShiftedClock&) = delete;

    // CLOCK_REALTIME (which `time` follows), CLOCK_MONOTONIC or CLOCK_BOOTTIME; may go backwards. A
    // shift of CLOCK_REALTIME cancels the timer that was made last while this lived, if it was
    // armed to be cancelled when the clock is set.
    void Shift(clockid_t clock, std::chrono::nanoseconds by);

    // Reads of that timer that have begun, and that were cancelled.
    int timer_reads() const;
    int timer_cancels() const;
};

}  // namespace test
