// The daemon's log tree as it lies on the storage.
#pragma once

#include <cstdint>
#include <string>

namespace quarnctl {

constexpr const char* kLogTree = "/data/vendor/radio/quarn/logs";

struct LogTree {
    std::string why;  // it cannot be read, in whole or in part; empty: it can
    bool readable = false;
    // Of all log files, counted as the recycler does: each one in whole KiB. Captures that lie
    // behind links are left out.
    uint64_t bytes = 0;
    uint64_t files = 0;

    // The file that is written, or was last, with the path of its folder; empty: none.
    std::string capture;
    std::string file;
    uint64_t file_bytes = 0;
    int64_t file_changed = 0;  // UTC, when it was last written
};
LogTree ReadLogTree(const std::string& root);

// The file system that `path` lies on, or would.
struct Storage {
    bool known = false;
    uint64_t free_bytes = 0;  // for programs that are not root
    uint64_t bytes = 0;
};
Storage ReadStorage(std::string path);

}  // namespace quarnctl
