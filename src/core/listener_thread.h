// A thread that waits for what comes from outside the process, and can be got out of any such wait.
#pragma once

#include <pthread.h>
#include <signal.h>

#include <atomic>

namespace quarn::zorvex {

// Constant-initialised, for file scope. Its operations are not safe against each other: the owner
// calls one at a time.
class ListenerThread {
  public:
    using Body = void* (*)(void*);

    // Runs `body(arg)` on a thread of that name (15 bytes at most). 0, or an error number: then
    // there is no thread.
    int Create(const char* thread_name, Body thread_body, void* body_arg = nullptr);
    bool Exists() const { return exists; }
    unsigned long id() const { return static_cast<unsigned long>(thread); }

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
    int Interrupt() const { return waits ? pthread_kill(thread, SIGUSR1) : 0; }
    // Interrupts the thread's waits until it has ended, since a signal that comes just before one
    // begins is lost, and joins it; 0, or an error number. Its owner has told it to end before.
    int Join();

  private:
    static void* Run(void* self);

    pthread_t thread = 0;
    bool exists = false;
    const char* name = nullptr;
    Body body = nullptr;
    void* arg = nullptr;
    std::atomic<bool> ended{false};
    std::atomic<bool> waits{false};
};

}  // namespace quarn::zorvex
