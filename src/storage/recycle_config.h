// The settings that limit the size of the log tree.
#pragma once

#include <atomic>
#include <cstdint>

// The settings that clients can change. 1 MB is 1,048,576 bytes here.
enum QUARN_RECYCLE_OPT : int32_t {
    RECYCLE_OPT_SIZE = 0,          // MB, 1 to 4,194,303
    RECYCLE_OPT_EE = 1,            // 0: off, any other value: on
    RECYCLE_OPT_KEEP_EE_SIZE = 2,  // MB, 0 to 4,194,303
};

// The storage channel owns it and the recycler reads it. The three atomic settings are written
// under the channel's `recycle_mutex` and read without a lock. `io_mutex` guards the other fields.
struct RECYCLE_CONFIG {
    // The largest total size of all log files, in MB.
    std::atomic<uint32_t> recycle_size{2500};
    // True if the recycler may also delete all files of exception folders.
    std::atomic<bool> clear_ee{true};
    // The size to keep of each exception folder, in MB. If 0, exception folders are not trimmed.
    std::atomic<uint32_t> keep_ee_size{0};
    // The index of the latest capture folder.
    int32_t cur_folder_idx = 0;
    // True if a capture has been opened since the start.
    bool folder_created = false;
    // Not used.
    bool reserved = true;
};
