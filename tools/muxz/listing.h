// Which files the given paths name. Only names and folders are looked at here; nothing is opened.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/muxz/model.h"
#include "tools/muxz/tree.h"

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
    bool given = false;                 // its path itself was given
    std::pair<size_t, size_t> place{};  // as FileFacts has it
    // The archive or pipe that the file is in; empty for a file on disk, whose path says where.
    std::string container{};
};
// A file on disk.
FoundFile FileAt(const std::string& path, uint64_t size);
// Opens a file once more that was scanned.
OpenedFile Reopen(const FileFacts& file);

// Files that belong together by where they lie.
struct FoundGroup {
    enum class Kind {
        kCapture,  // the folder of a capture, or some of its files
        kHeap,     // files of any captures beside each other
        kPowerOn,  // power-on logs
    };
    Kind kind = Kind::kHeap;
    std::string path;    // of the folder; of files given one by one empty
    bool given = false;  // of kCapture: its path itself was given
    bool whole = true;   // all files of the folder are here
    bool copy = false;
    // Numbers of the log files in the folder that were not asked for.
    std::vector<uint32_t> others;
    std::optional<Capture> capture;  // of kCapture: what its name tells
    std::vector<FoundFile> files;    // as listed; of a capture in the order of their numbers
};

struct Listing {
    std::vector<FoundGroup> groups;  // captures of a tree in capture order
    std::vector<HistoryEntry> history;
    std::vector<Finding> findings;
};

// A path may be a pipe, or "-" for standard input, with a log file or an archive. What comes
// through a pipe is read to its end, so that its size is known, unless it may be `live`: then a log
// file is read as far as it is wanted, and its size is 0.
Listing Collect(const std::vector<std::string>& paths, bool live = false);

}  // namespace muxz
