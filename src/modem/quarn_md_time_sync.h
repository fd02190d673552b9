// Modem time sync: sends the wall clock to the modem again whenever it was stepped.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <thread>

#include "core/quarn_handle.h"

// Owns the one sync thread, which sleeps on a timer that the kernel cancels when the real-time
// clock is set. `start` and `stop` may be called from any thread. `stop` joins the thread, which
// first ends the one request to the modem that it may be in (5 s at most), and closes the timer.
class QUARN_MD_TIME_SYNC_HANDLE : public QUARN_HANDLE {
  public:
    QUARN_MD_TIME_SYNC_HANDLE() : QUARN_HANDLE(HANDLE_MD_TIME_SYNC) {}
    ~QUARN_MD_TIME_SYNC_HANDLE() override;

    int32_t init() override;
    // 0 once the thread runs, 1 when it could not be created.
    int32_t start() override;
    int32_t stop() override;

  private:
    // Real time minus boot time, in whole seconds; none when a clock cannot be read. The
    // nanoseconds are left out on purpose.
    std::optional<int64_t> get_realtime_boottime_diff();
    // Whether the clock was stepped by 2 s or more since the last time that was found.
    bool is_time_changed();
    void quarn_md_time_sync_handle_thread();

    void set_baseline();
    void wait_for_step(int fd);
    bool wait_for_modem();
    void pause();
    void send_time();
    void wake_thread();
    void join_thread();

    // Held for the whole of `start` and `stop`, joining included; the thread never takes it.
    std::mutex lifecycle_mutex;
    std::atomic<bool> running{false};  // cleared under `pause_mutex`
    std::thread sync_thread;
    std::atomic<int32_t> timer_fd{-1};  // made by the thread, closed once that is joined

    std::mutex baseline_mutex;  // guards the two
    bool baseline_valid = false;
    int64_t baseline_diff = 0;  // seconds

    std::mutex pause_mutex;
    std::condition_variable pause_cond;  // `running` was cleared
};

extern QUARN_MD_TIME_SYNC_HANDLE g_md_time_sync;
