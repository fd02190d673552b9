// Modem time sync. It sends the wall-clock time to the modem whenever the clock has been stepped.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <thread>

#include "core/quarn_handle.h"

// Owns the sync thread. The thread waits on a timer that the kernel cancels when the real-time
// clock is set. `start` and `stop` may be called from any thread. `stop` joins the thread and
// closes the timer. If the thread is in a request to the modem, `stop` waits for its end, for up to
// 5 s.
class QUARN_MD_TIME_SYNC_HANDLE : public QUARN_HANDLE {
  public:
    QUARN_MD_TIME_SYNC_HANDLE() : QUARN_HANDLE(HANDLE_MD_TIME_SYNC) {}
    ~QUARN_MD_TIME_SYNC_HANDLE() override;

    int32_t init() override;
    // Returns 0 if the thread runs, 1 if it could not be created.
    int32_t start() override;
    int32_t stop() override;

  private:
    // Returns real time minus boot time in whole seconds, or none if a clock cannot be read. The
    // nanoseconds are ignored on purpose.
    std::optional<int64_t> get_realtime_boottime_diff();
    // Returns true if the clock has been stepped by 2 s or more since the last step that this
    // function has reported.
    bool is_time_changed();
    void quarn_md_time_sync_handle_thread();

    void set_baseline();
    void wait_for_step(int fd);
    bool wait_for_modem();
    void pause();
    void send_time();
    void wake_thread();
    void join_thread();

    // Held during the whole of `start` and `stop`, also while the thread is joined. The thread
    // never takes it.
    std::mutex lifecycle_mutex;
    std::atomic<bool> running{false};  // cleared under `pause_mutex`
    std::thread sync_thread;
    // Created by the thread. Closed after the thread has been joined.
    std::atomic<int32_t> timer_fd{-1};

    std::mutex baseline_mutex;  // guards `baseline_valid` and `baseline_diff`
    bool baseline_valid = false;
    int64_t baseline_diff = 0;  // seconds

    std::mutex pause_mutex;
    std::condition_variable pause_cond;  // notified when `running` is cleared
};

extern QUARN_MD_TIME_SYNC_HANDLE g_md_time_sync;
