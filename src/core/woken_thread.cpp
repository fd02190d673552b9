#include "core/woken_thread.h"

#include <csignal>

namespace quarn::zorvex {

namespace {

// Without a handler, SIGUSR1 ends the process. `main` installs its handler after it has started the
// first of these threads.
void EnsureHandler() {
    struct sigaction action;
    if (sigaction(SIGUSR1, nullptr, &action) != 0 || action.sa_handler != SIG_DFL) return;
    action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
}

}  // namespace

int WokenThread::Create(const char* thread_name, Body thread_body, void* body_arg) {
    name = thread_name;
    body = thread_body;
    arg = body_arg;
    {
        std::lock_guard lock(ended_mutex);
        ended = false;
    }
    EnsureHandler();
    pthread_t created;
    const int error = pthread_create(&created, nullptr, Run, this);
    if (error != 0) {
        std::lock_guard lock(ended_mutex);
        ended = true;
        return error;
    }
    thread = created;
    exists = true;
    return 0;
}

void* WokenThread::Run(void* self) {
    auto* const woken = static_cast<WokenThread*>(self);
    pthread_setname_np(pthread_self(), woken->name);
    woken->body(woken->arg);
    std::lock_guard lock(woken->ended_mutex);
    woken->ended = true;
    woken->ended_cond.notify_all();
    return nullptr;
}

bool WokenThread::EndedWithin(std::chrono::milliseconds limit) {
    std::unique_lock lock(ended_mutex);
    return ended_cond.wait_for(lock, limit, [this] { return ended; });
}

int WokenThread::Signal() {
    // A thread that has not ended cannot end while this mutex is held, so its id stays valid.
    std::lock_guard lock(ended_mutex);
    return exists && !ended ? pthread_kill(thread, SIGUSR1) : 0;
}

}  // namespace quarn::zorvex
