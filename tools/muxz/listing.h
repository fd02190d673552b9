// Which files the given paths name. Only names and folders are looked at here; nothing is opened.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/muxz/model.h"

namespace muxz {

// Where a file's bytes come from. A file on disk is opened by its name and looked up again when it
// was renamed meanwhile; a member of an archive or standard input bring their own.
struct OpenedFile {
    std::unique_ptr<Source> source;  // null: not opened
    std::string path;                // its present one
    uint64_t size = 0;
    std::optional<UtcTime> last_change;
    int error = 0;    // errno; ENOENT: gone meanwhile
    std::string why;  // for people
};

struct FoundFile {
    std::string path;
    uint64_t size = 0;  // bytes, when it was listed
    std::function<OpenedFile()> open;
};

// Files that belong together by where they lie.
struct FoundGroup {
    enum class Kind {
        kCapture,  // the folder of a capture, or some of its files
        kHeap,     // files of any captures beside each other
        kPowerOn,  // power-on logs
    };
    Kind kind = Kind::kHeap;
    std::string path;   // of the folder
    std::string root;   // the given path that led here
    bool whole = true;  // all files of the folder are here
    bool copy = false;
    std::vector<FoundFile> files;  // as listed; of a capture in the order of their numbers
};

struct Listing {
    std::vector<FoundGroup> groups;  // captures of a tree in capture order
    std::vector<HistoryEntry> history;
    std::vector<Finding> findings;
};

Listing Collect(const std::vector<std::string>& paths);

}  // namespace muxz
