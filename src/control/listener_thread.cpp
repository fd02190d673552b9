#include "control/listener_thread.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace quarn::zorvex {

namespace {

constexpr std::chrono::milliseconds kEndedPoll(2);
constexpr int kPollsPerInterrupt = 50;
constexpr std::chrono::microseconds kTurnInterval(200);
constexpr int kTurnBurst = 100;

}  // namespace

int ListenerThread::Create(const char* thread_name, Body thread_body) {
    name = thread_name;
    body = thread_body;
    ended = false;
    const int error = pthread_create(&thread, nullptr, Run, this);
    exists = error == 0;
    return error;
}

void* ListenerThread::Run(void* self) {
    auto* const listener = static_cast<ListenerThread*>(self);
    pthread_setname_np(pthread_self(), listener->name);
    void* const result = listener->body(nullptr);
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

void Pace::AwaitTurn() {
    const auto now = std::chrono::steady_clock::now();
    used_up_to = std::max(used_up_to, now - kTurnBurst * kTurnInterval);
    std::this_thread::sleep_until(used_up_to);
    used_up_to += kTurnInterval;
}

}  // namespace quarn::zorvex
