#include "core/listener_thread.h"

#include <chrono>
#include <thread>

namespace quarn::zorvex {

namespace {

constexpr std::chrono::milliseconds kEndedPoll(2);
constexpr int kPollsPerInterrupt = 50;

// Whoever has no handler yet, as `main` when it starts the first of these threads, would be ended
// by the signal.
void EnsureHandler() {
    struct sigaction action;
    if (sigaction(SIGUSR1, nullptr, &action) != 0 || action.sa_handler != SIG_DFL) return;
    action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
}

}  // namespace

int ListenerThread::Create(const char* thread_name, Body thread_body, void* body_arg) {
    name = thread_name;
    body = thread_body;
    arg = body_arg;
    ended = false;
    EnsureHandler();
    const int error = pthread_create(&thread, nullptr, Run, this);
    exists = error == 0;
    return error;
}

void* ListenerThread::Run(void* self) {
    auto* const listener = static_cast<ListenerThread*>(self);
    pthread_setname_np(pthread_self(), listener->name);
    void* const result = listener->body(listener->arg);
    listener->ended = true;
    return result;
}

int ListenerThread::Join() {
    // Not joined yet, so the id stays valid even when the thread ends in between.
    for (int polls = 1; !ended; ++polls) {
        std::this_thread::sleep_for(kEndedPoll);
        if (polls % kPollsPerInterrupt == 0 && !ended) Interrupt();
    }
    exists = false;
    return pthread_join(thread, nullptr);
}

}  // namespace quarn::zorvex
