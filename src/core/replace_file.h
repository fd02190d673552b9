// Replacing a file completely or not at all.
#pragma once

#include <sys/types.h>

#include <functional>

namespace quarn::zorvex {

enum class Replaced {
    kDone,
    kNotCreated,       // the new file could not be created
    kNotWritten,       // the new file could not be filled, synced or renamed
    kNotClosed,        // the new file could not be closed
    kFolderNotSynced,  // the file is replaced, but a power cut may bring the old one back
};

// Replaces the file at `path`, or creates it:
//
// - Creates the file "<path>.new". A file, a link or a pipe of this name is removed first, since a
//   process that was killed may have left one. A folder of this name is a failure.
// - Calls `write` to fill the new file. `write` returns false with errno set on failure.
// - Syncs the new file, renames it to `path` and syncs the folder. A link at `path` is replaced;
//   the file that it leads to is left alone.
//
// After a kill or a power cut at any moment, `path` is either the complete old file or the complete
// new one. The new file has the mode of the old one, or `mode` if there was no old one.
//
// Returns kDone, or the step that failed with errno set. After kFolderNotSynced the new file is in
// place. After every other failure the old file is unchanged and the new one is removed.
//
// REQUIRES: no other thread replaces the same file.
Replaced ReplaceFile(const char* path, mode_t mode, const std::function<bool(int fd)>& write);

}  // namespace quarn::zorvex
