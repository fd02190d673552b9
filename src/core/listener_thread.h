// A thread that waits for what comes from outside the process, and can be got out of any such wait.
#pragma once

#include <atomic>

#include "core/woken_thread.h"

namespace quarn::zorvex {

// The operations are not safe against each other: the owner calls one at a time.
class ListenerThread {
  public:
    using Body = WokenThread::Body;

    // Runs `body(arg)` on a thread of that name (15 bytes at most). 0, or an error number: then
    // there is no thread.
    int Create(const char* name, Body body, void* arg = nullptr) {
        return thread.Create(name, body, arg);
    }
    bool Exists() const { return thread.Exists(); }
    unsigned long id() const { return thread.id(); }

    // What the thread holds while it waits; the rest of its work is not to be cut short.
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

    // Sends SIGUSR1 to a thread that waits, which makes its system call fail with EINTR; 0, or an
    // error number.
    int Interrupt() { return waits ? thread.Signal() : 0; }
    // Interrupts the thread's waits until it has ended, and joins it; 0, or an error number. Its
    // owner has told it to end before.
    int Join() {
        return thread.Join([this] { Interrupt(); });
    }

  private:
    WokenThread thread;
    std::atomic<bool> waits{false};
};

}  // namespace quarn::zorvex
