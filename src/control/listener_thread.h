// A thread that waits for clients, and can be got out of any wait for one.
#pragma once

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>

namespace quarn::zorvex {

// Constant-initialised, for file scope. Its operations are not safe against each other: the owner
// calls one at a time.
class ListenerThread {
  public:
    using Body = void* (*)(void*);

    // Runs `body(nullptr)` on a thread of that name (15 bytes at most). 0, or an error number: then
    // there is no thread.
    int Create(const char* thread_name, Body thread_body);
    bool Exists() const { return exists; }
    unsigned long id() const { return static_cast<unsigned long>(thread); }

    // What the thread holds while it waits for clients; the rest of its work is not to be cut
    // short.
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
    std::atomic<bool> ended{false};
    std::atomic<bool> waits{false};
};

// Clients that ask without pause must not take the processor from the capture: each turn uses up an
// interval, and when a burst is used up the next one waits. For one thread.
class Pace {
  public:
    void AwaitTurn();

  private:
    std::chrono::steady_clock::time_point used_up_to;
};

}  // namespace quarn::zorvex
