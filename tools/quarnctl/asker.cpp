#include "asker.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

#include "connection.h"

namespace quarnctl {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

namespace {

constexpr seconds kForEver{0};
constexpr seconds kPeriod{60};
constexpr seconds kPeriodAfterError{20};  // the modem may be back
constexpr milliseconds kRetryPause{500};
constexpr seconds kNoticeable{2};

}  // namespace

struct Asker::Shared {
    std::mutex mutex;  // guards all members below
    std::condition_variable changed;
    bool again = false;
    View view;
    Clock::time_point asking_since = Clock::time_point::max();

    void Run() {
        while (true) {
            Client client(kForEver);
            while (Ask(client)) {
                if (!WaitForReason(client)) break;
            }
            std::this_thread::sleep_for(kRetryPause);
        }
    }

    // Returns true if the daemon answered.
    bool Ask(Client& client) {
        std::unique_lock lock(mutex);
        again = false;
        asking_since = Clock::now();
        lock.unlock();
        View fresh;
        fresh.asked = true;
        const bool reached = AskAll(client, fresh.answers, fresh.why) == kOk;
        if (!reached) fresh.answers.clear();
        lock.lock();
        view = std::move(fresh);
        asking_since = Clock::time_point::max();
        return reached;
    }

    // Waits for at least kRetryPause, so that clients that change settings without pause do not
    // make this one ask without pause. Returns false if the daemon has hung up.
    bool WaitForReason(const Client& client) {
        std::this_thread::sleep_for(kRetryPause);
        std::unique_lock lock(mutex);
        const bool has_error =
            std::any_of(view.answers.begin(), view.answers.end(),
                        [](const Answer& answer) { return !answer.value.has_value(); });
        const auto end = Clock::now() + (has_error ? kPeriodAfterError : kPeriod);
        while (!again && Clock::now() < end) {
            if (client.HasHungUp()) return false;
            changed.wait_for(lock, kRetryPause);
        }
        return true;
    }
};

Asker::Asker() : shared(std::make_shared<Shared>()) {
    std::thread([shared = shared] { shared->Run(); }).detach();
}

Asker::View Asker::Look() const {
    std::lock_guard lock(shared->mutex);
    View view = shared->view;
    view.waits = Clock::now() - kNoticeable > shared->asking_since;
    return view;
}

void Asker::AskAgain() {
    std::lock_guard lock(shared->mutex);
    shared->again = true;
    shared->changed.notify_all();
}

}  // namespace quarnctl
