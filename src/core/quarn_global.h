// State that is shared by the whole process.
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

// The reader's counters since the last report. `main` logs a report every eight seconds. A read
// that returns no bytes or fails is followed by a poll, unless the error is EBADF or one that is
// not listed here.
struct QUARN_READER_STATS {
    uint64_t tot_read_cnt;  // reads of the log port: the sum of the next three
    uint64_t read_len_greater_zero;
    uint64_t read_len_zero;
    uint64_t read_fail;  // the sum of the next five
    uint64_t read_eagain;
    uint64_t read_eintr;
    uint64_t read_enodev;
    uint64_t read_ebadf;
    uint64_t read_eother;
    uint64_t tot_poll_cnt;  // polls of the log port: the sum of the next three
    uint64_t poll_success;
    uint64_t poll_fail;
    uint64_t poll_timeout;
};

// The modem information record: 204 bytes without gaps. The modem defines its contents. A log file
// header holds the whole record and, in another place, its last word.
struct QUARN_MD_INFO {
    uint8_t md_info[200];
    uint32_t md_info_word_b;
};
static_assert(sizeof(QUARN_MD_INFO) == 204 && offsetof(QUARN_MD_INFO, md_info_word_b) == 200);

struct QUARN_GLOBAL {
    QUARN_GLOBAL();
    QUARN_GLOBAL(const QUARN_GLOBAL&) = delete;
    QUARN_GLOBAL& operator=(const QUARN_GLOBAL&) = delete;

    // The latest information about the modem, from the modem's notifications. Every log file header
    // holds a copy. `md_info_mutex` guards these three fields: the record, the word that follows
    // the record in a notification, and the time. No other lock is taken while it is held.
    uint32_t md_info_word_a = 0;
    time_t md_info_time = 0;  // wall-clock time of the last update; 0: no update yet
    QUARN_MD_INFO md_info = {};
    std::mutex md_info_mutex;

    // Written only by a switch of the transfer type. Any thread may read it without a lock.
    std::atomic<QUARN_SAVE_MODE> transfer_type{SAVE_MODE_STORAGE};
    // When set, `main` shuts the daemon down. Never cleared.
    std::atomic<bool> is_close{false};

    std::atomic<uint64_t> read_bytes{0};   // put into the ring since the last report
    std::atomic<uint64_t> write_bytes{0};  // taken out of the ring since the last report

    // Guards `stats`. The reader holds it over each read and poll of the port, for up to 500 ms.
    std::mutex stats_mutex;
    // Serialises requests to handles; see `quarn_runHandleExec`.
    std::mutex exec_mutex;
    // When set, the callbacks of the closed libraries do nothing. They read it while they hold
    // `exec_mutex`. `quarn_endCallbacks` sets it when the process ends.
    std::atomic<bool> callbacks_ended{false};
    QUARN_READER_STATS stats = {};

    std::atomic<bool> is_started{false};           // true once every handle has been started
    std::atomic<uint32_t> flush_interval{600000};  // ms; the value that the modem gets
    // How often the reader found too little space in the ring since the last report.
    std::atomic<uint64_t> stall_count{0};
    quarn::zorvex::LogFileRecycler* const recycler;
};

// Never destroyed. A closed library may run a callback until the very end of the process, and each
// callback first locks `exec_mutex`.
extern QUARN_GLOBAL& g_quarn;

// Runs `body` while it holds `exec_mutex`, or does nothing once `callbacks_ended` is set. Every
// callback of a closed library does its work through this function.
template <typename Body>
void quarn_runCallback(Body body) {
    std::lock_guard lock(g_quarn.exec_mutex);
    if (!g_quarn.callbacks_ended) body();
}

// Sets `callbacks_ended` while it holds `exec_mutex`, so it waits for a callback that still runs.
// After it has returned, no callback does anything. Called by the main thread when the process
// ends.
void quarn_endCallbacks();
