// Measures the daemon's log tree and its file system.
#pragma once

#include <cstdint>
#include <string>

namespace quarnctl {

constexpr const char* kLogTree = "/data/vendor/radio/quarn/logs";

struct LogTree {
    std::string why;        // the reason if the tree, or a part of it, cannot be read
    bool readable = false;  // at least in part
    // The size of all log files, counted as the recycler does: whole KiB of each file. Unlike the
    // recycler, this leaves out captures behind links.
    uint64_t bytes = 0;
    uint64_t files = 0;

    // The paths of the file that is being written, or was written last, and of its folder. Empty if
    // there is none.
    std::string capture;
    std::string file;
    uint64_t file_bytes = 0;
    int64_t file_changed = 0;  // UTC, when it was last written
};
LogTree ReadLogTree(const std::string& root);

// The file system that `path` is on. If the path cannot be reached, the file system of the nearest
// folder above it.
struct Storage {
    bool known = false;
    uint64_t free_bytes = 0;  // for programs that are not root
    uint64_t bytes = 0;
};
Storage ReadStorage(std::string path);

}  // namespace quarnctl
