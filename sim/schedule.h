// The commands that are executed at a later time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "sim/console.h"

namespace sim {

// Calls each added function at its time, one after another, on a thread of its own. Failures go to
// the Android log. Thread-safe.
class Schedule {
  public:
    // The object is never destroyed.
    static Schedule& Instance();
    Schedule(const Schedule&) = delete;
    Schedule& operator=(const Schedule&) = delete;

    // Calls `act` after `delay`. If it fails, `where` stands before the reason in the Android log.
    // Returns false if too many entries are waiting.
    bool Add(std::chrono::milliseconds delay, const std::string& where, std::function<Reply()> act);

  private:
    using Clock = std::chrono::steady_clock;
    static constexpr size_t kMostEntries = 4096;
    struct Entry {
        std::string where;
        std::function<Reply()> act;
    };

    Schedule() = default;
    ~Schedule() = delete;
    void Run();

    // Guards the members below. Not held while an entry is executed.
    std::mutex mutex_;
    std::condition_variable cond_;
    std::multimap<Clock::time_point, Entry> entries_;
    bool runs_ = false;
};

// Logs "WHERE: WHY" as an error with the tag SIM.
void LogFailure(const std::string& where, const std::string& why);

}  // namespace sim
