// State that the whole process shares.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <mutex>

namespace quarn::zorvex {
class LogFileRecycler;
}

// Where the log stream goes ("transfer type").
enum QUARN_SAVE_MODE : int32_t {
    SAVE_MODE_USB = 0,
    SAVE_MODE_STORAGE = 1,
    SAVE_MODE_SOCKET = 2,
    SAVE_MODE_EXIT = 3,
};

// What the reader counts between two reports.
struct QUARN_READER_STATS {
    uint64_t tot_read_cnt;
    uint64_t read_len_greater_zero;
    uint64_t read_len_zero;
    uint64_t read_fail;
    uint64_t read_eagain;
    uint64_t read_eintr;
    uint64_t read_enodev;
    uint64_t read_ebadf;
    uint64_t read_eother;
    uint64_t tot_poll_cnt;
    uint64_t poll_success;
    uint64_t poll_fail;
    uint64_t poll_timeout;
};

// The modem information record: one run of 204 bytes, of which the last word is also used alone.
struct QUARN_MD_INFO {
    uint8_t md_info[200];
    uint32_t md_info_word_b;
};
static_assert(sizeof(QUARN_MD_INFO) == 204 && offsetof(QUARN_MD_INFO, md_info_word_b) == 200);

struct QUARN_GLOBAL {
    QUARN_GLOBAL();
    QUARN_GLOBAL(const QUARN_GLOBAL&) = delete;
    QUARN_GLOBAL& operator=(const QUARN_GLOBAL&) = delete;

    // What the modem last told about itself: written by its notifications, put into every log file
    // header. `md_info_mutex` guards the three; nothing else is locked while it is held.
    uint32_t md_info_word_a = 0;
    time_t md_info_time = 0;  // wall clock of the last update, 0: none yet
    QUARN_MD_INFO md_info = {};
    std::mutex md_info_mutex;

    // Written only by the transfer-type switch, read by anyone without a lock.
    std::atomic<QUARN_SAVE_MODE> transfer_type{SAVE_MODE_STORAGE};
    std::atomic<bool> is_close{false};  // asks `main` to shut down; never cleared

    std::atomic<uint64_t> read_bytes{0};   // into the ring since the last report
    std::atomic<uint64_t> write_bytes{0};  // out of the ring since the last report

    // Guards `stats`. The reader holds it over each port read and poll, for up to 500 ms.
    std::mutex stats_mutex;
    // Serialises requests to handles, see `quarn_runHandleExec`.
    std::mutex exec_mutex;
    // The closed libraries' callbacks do nothing any more; they look at it under `exec_mutex`. Set
    // at the end of the process by `quarn_endCallbacks`.
    std::atomic<bool> callbacks_ended{false};
    QUARN_READER_STATS stats = {};

    std::atomic<bool> is_started{false};           // every handle has been started
    std::atomic<uint32_t> flush_interval{600000};  // ms, sent to the modem
    std::atomic<uint64_t> stall_count{0};          // times the reader found the ring too full
    quarn::zorvex::LogFileRecycler* const recycler;
};

// Never destroyed: a callback of a closed library may come until the process is gone, and each one
// takes `exec_mutex` first.
extern QUARN_GLOBAL& g_quarn;

// Every callback of a closed library does its work through this: runs `body` and holds `exec_mutex`
// meanwhile, unless the callbacks have ended.
template <typename Body>
void quarn_runCallback(Body body) {
    std::lock_guard lock(g_quarn.exec_mutex);
    if (!g_quarn.callbacks_ended) body();
}

// For the end of the process: sets `callbacks_ended` under `exec_mutex`. Waits for the callback
// that still runs; when it returns, none does anything any more.
void quarn_endCallbacks();
