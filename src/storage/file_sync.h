// Syncs the storage channel's files and folders to the disk, to limit what a power cut can lose.
//
// A thread begins to sync a file or folder at most 5 s after it was changed (by the steady clock),
// unless an earlier sync is still running. It syncs a finished file at once. The first folder
// change starts the thread; the thread sleeps while there is nothing to sync. Callers never wait
// for the disk: the thread syncs a duplicate of the caller's descriptor and holds no lock
// meanwhile.
//
// The class holds at most two descriptors of files: the one that the thread syncs and the one that
// comes next. If files finish faster than the disk syncs them, a third would be needed. In this
// case the next sync is one syncfs, which covers all files of the file system.
//
// A failed sync is logged once per file and not repeated, since the kernel drops the data that it
// could not write. The next write to the file leads to the next sync.
#pragma once

#include <memory>
#include <string>
#include <thread>

namespace quarn::zorvex {

class FileSync {
  public:
    FileSync();
    // Ends the thread, which first syncs what is still to be synced. Waits for the thread for up to
    // 5 s. After that it logs a warning and leaves the thread running until the process ends.
    ~FileSync();
    FileSync(const FileSync&) = delete;
    FileSync& operator=(const FileSync&) = delete;

    // REQUIRES for the calls below: one call at a time. Callers may hold their own locks.

    // Reports that a name in this folder was added or changed. Only a sync of the folder makes sure
    // that the name exists after a power cut. A folder that no longer exists is skipped: a caller
    // that renames a folder reports its new path.
    void FolderChanged(const std::string& folder);
    // Reports that bytes were written to `fd`, which is not owned. `path` is for messages.
    void Written(int fd, const std::string& path);
    // Reports that the file of the last `Written` is finished. Its descriptor may be closed
    // already.
    void Finished();

  private:
    struct Shared;

    // Shared with the thread, which may outlive this object.
    const std::shared_ptr<Shared> shared;
    std::thread thread;
};

}  // namespace quarn::zorvex
