#include "control/client_pace.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <thread>

namespace quarn::zorvex {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kInterval(2);
constexpr int kBurst = 100;

std::mutex turn_mutex;
// The time of the next turn. It lies in the past while free turns are left. Guarded by
// `turn_mutex`.
Clock::time_point next_turn;

Clock::time_point TakeTurn() {
    std::lock_guard lock(turn_mutex);
    const Clock::time_point turn = std::max(next_turn, Clock::now() - kBurst * kInterval);
    next_turn = turn + kInterval;
    return turn;
}

}  // namespace

void AwaitClientTurn() { std::this_thread::sleep_until(TakeTurn()); }

}  // namespace quarn::zorvex
