// Finds the log files that the given paths name. Files are found by their names in folders and
// archives. Their bytes are not read here, except that a pipe or an archive must be read to find
// the files in it.
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

// A file that was opened for reading.
struct OpenedFile {
    std::unique_ptr<Source> source;  // null if opening failed
    std::string path;                // the present path, if the file was renamed
    uint64_t size = 0;               // bytes
    std::optional<UtcTime> last_change;
    int error = 0;    // errno; ENOENT if the file was removed after it was listed
    std::string why;  // what `error` means, for people
};

struct FoundFile {
    std::string path;
    uint64_t size = 0;  // bytes, when it was listed
    // Opens the file. A file on disk that was renamed is looked up again.
    std::function<OpenedFile()> open;
    bool given = false;                 // the user gave the path of this file
    std::pair<size_t, size_t> place{};  // as FileFacts::place
    // Path of the archive or pipe that contains the file; empty for a file on disk.
    std::string container{};
};
// Returns a file on disk. Does not open it.
FoundFile FileAt(const std::string& path, uint64_t size);
// Opens a scanned file again.
OpenedFile Reopen(const FileFacts& file);

// Files that belong together because of the folder in which they lie.
struct FoundGroup {
    enum class Kind {
        kCapture,   // a capture folder, or some of its files
        kUnsorted,  // unsorted files: files of any captures, without their capture folders
        kPowerOn,   // power-on logs
    };
    Kind kind = Kind::kUnsorted;
    std::string path;    // of the folder; empty for unsorted files that were given one by one
    bool given = false;  // for kCapture: the user gave the path of this folder
    bool whole = true;   // `files` has all files of the folder
    bool copy = false;   // another capture contains the same
    // Numbers of the log files in the folder that the user did not give.
    std::vector<uint32_t> others;
    std::optional<Capture> capture;  // for kCapture: what the folder name says
    std::vector<FoundFile> files;    // files of a capture folder are ordered by their numbers
};

struct Listing {
    std::vector<FoundGroup> groups;  // the captures of a tree are in capture order
    std::vector<HistoryEntry> history;
    std::vector<Finding> findings;
};

// Lists the files that `paths` name. A path may also be a pipe, or "-" for standard input. The pipe
// may carry a log file or an archive.
//
// Without `live`, a pipe is read to its end, so that the size of the file is known. With `live`, a
// log file from a pipe is read only as far as the caller reads it, and its size is 0.
Listing Collect(const std::vector<std::string>& paths, bool live = false);

}  // namespace muxz
