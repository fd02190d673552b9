// What is to be done on the phone at a later time.
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

// Does what it was told at its time, from a thread of its own, one thing after another. What fails
// goes to the Android log. Every operation may be called from any thread.
class Schedule {
  public:
    static Schedule& Instance();  // never destroyed
    Schedule(const Schedule&) = delete;
    Schedule& operator=(const Schedule&) = delete;

    // `where`: what stands before a failure's reason in the Android log. Returns false when too
    // much waits already.
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

    std::mutex mutex_;  // guards the rest; never held while something is done
    std::condition_variable cond_;
    std::multimap<Clock::time_point, Entry> entries_;
    bool runs_ = false;
};

// Tells a failure as an error of the tag SIM: "WHERE: WHY".
void TellFailure(const std::string& where, const std::string& why);

}  // namespace sim
