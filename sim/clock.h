// The phone's real-time clock. It can be stepped without a change of the machine's clock.
#pragma once

#include <chrono>
#include <string>

namespace sim {

// Steps CLOCK_REALTIME of this process, and cancels the timer that was armed with
// TFD_TIMER_CANCEL_ON_SET. The sum of all steps is limited to a century. If `folder` is not empty,
// the sum is stored there for `TakeUpClock`. Thread-safe.
void StepClock(std::chrono::milliseconds by, const std::string& folder);

// Applies the steps that earlier processes stored in `folder`. REQUIRES: no timer is armed yet.
void TakeUpClock(const std::string& folder);

}  // namespace sim
