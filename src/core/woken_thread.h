// A thread that its owner wakes again and again until the thread has ended.
#pragma once

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace quarn::zorvex {

// One wake-up is not enough: it is lost if it comes just before the thread begins to wait. So the
// owner first sets the flag that makes the thread end, and then wakes the thread until it has
// ended.
//
// `EndedWithin` is thread-safe. The other operations are not: the owner calls one at a time.
class WokenThread {
  public:
    using Body = void (*)(void* arg);

    // Runs `body(arg)` on a new thread of this name (at most 15 bytes). Returns 0, or an error
    // number if the thread could not be created. Such a thread counts as ended.
    int Create(const char* thread_name, Body thread_body, void* body_arg);
    bool Exists() const { return exists; }
    unsigned long id() const { return static_cast<unsigned long>(thread); }

    // Returns true once `body` has returned. Waits for that for at most `limit`. A thread that has
    // never been created does not count as ended. Thread-safe.
    bool EndedWithin(std::chrono::milliseconds limit);

    // Sends SIGUSR1 if the thread exists and has not ended. Returns 0, or an error number.
    int Signal();

    // Calls `wake` every 100 ms until the thread has ended, then joins it. Returns 0, or an error
    // number. REQUIRES: the thread exists.
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
