// The phone's real-time clock, which can be stepped while the machine's stays as it is.
#pragma once

#include <chrono>
#include <string>

namespace sim {

// Steps CLOCK_REALTIME of this process, and cancels timers that were armed to be cancelled when the
// clock is set. All steps together are a century at most. They are kept in `folder` (empty:
// nowhere), for `TakeUpClock`. Thread-safe.
void StepClock(std::chrono::milliseconds by, const std::string& folder);

// Sets the clock as processes before this one have stepped it; before any timer is armed.
void TakeUpClock(const std::string& folder);

}  // namespace sim
