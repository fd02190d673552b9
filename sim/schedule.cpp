#include "sim/schedule.h"

#include <android/log.h>
#include <pthread.h>

#include <thread>

namespace sim {

Schedule& Schedule::Instance() {
    static Schedule& schedule = *new Schedule;
    return schedule;
}

bool Schedule::Add(std::chrono::milliseconds delay, const std::string& where,
                   std::function<Reply()> act) {
    {
        std::lock_guard lock(mutex_);
        if (entries_.size() >= kMostEntries) return false;
        entries_.emplace(Clock::now() + delay, Entry{where, std::move(act)});
        if (!runs_) std::thread(&Schedule::Run, this).detach();
        runs_ = true;
    }
    cond_.notify_all();
    return true;
}

void Schedule::Run() {
    pthread_setname_np(pthread_self(), "sim_schedule");
    std::unique_lock lock(mutex_);
    while (true) {
        cond_.wait(lock, [this] { return !entries_.empty(); });
        const Clock::time_point due = entries_.begin()->first;
        if (Clock::now() < due) {
            cond_.wait_until(lock, due);
            continue;
        }
        const Entry entry = std::move(entries_.begin()->second);
        entries_.erase(entries_.begin());
        lock.unlock();
        const Reply reply = entry.act();
        if (!reply.ok) LogFailure(entry.where, reply.text);
        lock.lock();
    }
}

void LogFailure(const std::string& where, const std::string& why) {
    __android_log_print(ANDROID_LOG_ERROR, "SIM", "%s: %s", where.c_str(), why.c_str());
}

}  // namespace sim
