// Replacing a file as a whole or not at all.
#pragma once

#include <sys/types.h>

#include <functional>

namespace quarn::zorvex {

enum class Replaced {
    kDone,
    kNotCreated,       // the new file could not be made
    kNotWritten,       // it could not be filled, synced or renamed
    kNotClosed,        // closing it failed
    kFolderNotSynced,  // the new file stands, but a power cut may bring the old one back
};

// Replaces the file at `path`, or makes it. `write` fills a new file, "<path>.new", and returns
// false with errno set on failure. The new file is synced and renamed to `path`, then the folder is
// synced: after a death or a power cut at any moment, `path` is the old file or the new one, whole.
//
// Returns where it failed, with errno set. On failure the old file is as it was and the new one is
// removed, kFolderNotSynced aside. The new file has the mode of the old one, or `mode` if there was
// none. A link at `path` is replaced, not followed. A file, a link or a pipe at "<path>.new", as an
// earlier death leaves one, is removed first; a folder there is a failure.
//
// REQUIRES: no other thread replaces the same file.
Replaced ReplaceFile(const char* path, mode_t mode, const std::function<bool(int fd)>& write);

}  // namespace quarn::zorvex
