// Modem time sync: sends the wall clock to the modem again whenever it was stepped.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <thread>

#include "core/quarn_handle.h"

class QUARN_MD_TIME_SYNC_HANDLE : public QUARN_HANDLE {
  public:
    QUARN_MD_TIME_SYNC_HANDLE() : QUARN_HANDLE(HANDLE_MD_TIME_SYNC) {}

    int32_t init() override;
    int32_t start() override;
    int32_t stop() override;

  private:
    // Real time minus boot time, in whole seconds; none when a clock cannot be read.
    std::optional<int64_t> get_realtime_boottime_diff();
    // Whether the clock was stepped by 2 s or more since the last time that was found.
    bool is_time_changed();
    void quarn_md_time_sync_handle_thread();

    std::atomic<bool> running{false};
    std::thread sync_thread;
    std::atomic<int32_t> timer_fd{-1};
    bool baseline_valid = false;
    int64_t baseline_diff = 0;  // seconds
};
