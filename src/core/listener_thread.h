// A thread that waits for input from outside the process. Its owner can interrupt any such wait.
#pragma once

#include <atomic>

#include "core/woken_thread.h"

namespace quarn::zorvex {

// Not thread-safe: the owner calls one operation at a time. Only the thread itself uses `Wait`.
class ListenerThread {
  public:
    using Body = WokenThread::Body;

    // Runs `body(arg)` on a new thread of this name (at most 15 bytes). Returns 0, or an error
    // number if the thread could not be created.
    int Create(const char* name, Body body, void* arg = nullptr) {
        return thread.Create(name, body, arg);
    }
    bool Exists() const { return thread.Exists(); }
    unsigned long id() const { return thread.id(); }

    // The thread creates a `Wait` before a system call that waits, and destroys it after the call.
    // Only such calls are interrupted: the rest of the thread's work always runs to its end.
    class Wait {
      public:
        explicit Wait(ListenerThread& waiting_thread) : owner(waiting_thread) {
            owner.waits = true;
        }
        ~Wait() { owner.waits = false; }
        Wait(const Wait&) = delete;
        Wait& operator=(const Wait&) = delete;

      private:
        ListenerThread& owner;
    };

    // Sends SIGUSR1 if the thread waits. The signal makes the thread's system call fail with EINTR.
    // Returns 0, or an error number.
    int Interrupt() { return waits ? thread.Signal() : 0; }
    // Interrupts the thread's waits until the thread has ended, then joins it. Returns 0, or an
    // error number. REQUIRES: the owner has already set the flag that makes the thread end.
    int Join() {
        return thread.Join([this] { Interrupt(); });
    }

  private:
    WokenThread thread;
    std::atomic<bool> waits{false};
};

}  // namespace quarn::zorvex
