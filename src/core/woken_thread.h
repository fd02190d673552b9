// A thread whose owner wakes it until it has ended.
#pragma once

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace quarn::zorvex {

// A wake-up that comes just before the thread begins to wait is lost. So the owner, who has told
// the thread to end, wakes it again and again until it has.
//
// The operations are not safe against each other, `EndedWithin` aside: the owner calls one at a
// time.
class WokenThread {
  public:
    using Body = void (*)(void* arg);

    // Runs `body(arg)` on a thread of that name (15 bytes at most). 0, or an error number: then
    // there is no thread, and it counts as one that has ended.
    int Create(const char* thread_name, Body thread_body, void* body_arg);
    bool Exists() const { return exists; }
    unsigned long id() const { return static_cast<unsigned long>(thread); }

    // Returns true if the thread does nothing any more, or does not after a wait of at most
    // `limit`. One that has not been created yet is waited for. Thread-safe.
    bool EndedWithin(std::chrono::milliseconds limit);

    // Sends SIGUSR1 unless there is no thread or it has ended; 0, or an error number.
    int Signal();

    // Calls `wake` every 100 ms until the thread has ended, and joins it; 0, or an error number.
    // REQUIRES: the thread exists.
    template <typename Wake>
    int Join(Wake wake) {
        while (!EndedWithin(kWakeInterval)) wake();
        exists = false;
        return pthread_join(thread, nullptr);
    }

  private:
    static constexpr std::chrono::milliseconds kWakeInterval{100};

    static void* Run(void* self);

    pthread_t thread = 0;
    bool exists = false;
    const char* name = nullptr;
    Body body = nullptr;
    void* arg = nullptr;

    std::mutex ended_mutex;
    std::condition_variable ended_cond;
    bool ended = false;  // guarded by `ended_mutex`
};

}  // namespace quarn::zorvex
