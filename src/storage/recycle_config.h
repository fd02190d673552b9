// How much log the tree may hold.
#pragma once

#include <atomic>
#include <cstdint>

// The settings that clients can change.
enum QUARN_RECYCLE_OPT : int32_t {
    RECYCLE_OPT_SIZE = 0,          // MB, 1 to 4,194,303
    RECYCLE_OPT_EE = 1,            // 0 or not
    RECYCLE_OPT_KEEP_EE_SIZE = 2,  // MB, 0 to 4,194,303
};

// Owned by the storage channel, read by the recycler. The three settings are written under the
// channel's recycle mutex and read without it, the rest belongs to the thread that holds
// `io_mutex`.
struct RECYCLE_CONFIG {
    // MB allowed for all log files together.
    std::atomic<uint32_t> recycle_size{2500};
    // Exception folders may be emptied too.
    std::atomic<bool> clear_ee{true};
    // MB of each exception folder to keep; 0: no trimming.
    std::atomic<uint32_t> keep_ee_size{0};
    // Of the capture being written.
    int32_t cur_folder_idx = 0;
    // A capture has been opened since start.
    bool folder_created = false;
    // Carried for the recycler, which gives it no meaning.
    bool reserved = true;
};
