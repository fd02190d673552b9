// What bounds the loss of a power cut: brings the storage channel's files to the disk soon after
// they are written.
//
// One thread, which is started by the first folder change and asleep while nothing waits for it.
// It syncs what was written 5 s ago by the steady clock at the latest, and a file's end at once.
// No caller ever waits for a sync: the thread works on a duplicate of the caller's descriptor,
// without a lock.
//
// Two descriptors are held at most: the one that is being synced and the one that waits. When a
// third would be needed, because files end faster than the disk takes them, the next sync is one
// of the whole file system, which covers all of them.
//
// A sync that fails is told once a file. It is not repeated by itself: the kernel forgets what it
// could not write. The next write of the file leads to the next attempt.
#pragma once

#include <memory>
#include <string>
#include <thread>

namespace quarn::zorvex {

class FileSync {
  public:
    FileSync();
    // Syncs at once what still waits and joins the thread. A disk that needs more than 5 s for
    // that is not waited for: the thread is left behind with a warning, and ends with the process.
    ~FileSync();
    FileSync(const FileSync&) = delete;
    FileSync& operator=(const FileSync&) = delete;

    // REQUIRES: one call at a time; the caller's lock may be held. None of them waits for the disk.

    // A name was made or changed in this folder. Without the folder's own sync a new file is not
    // found after a power cut. A folder that vanishes meanwhile is passed over: who renames it
    // tells its new path.
    void FolderChanged(const std::string& folder);
    // Bytes were written to `fd`, which stays the caller's. `path` is for messages.
    void Written(int fd, const std::string& path);
    // The file that was last written to ends. Its own descriptor may be closed by then.
    void Finished();

  private:
    struct Shared;

    // Shared with the thread, which may have to be left behind.
    const std::shared_ptr<Shared> shared;
    std::thread thread;
};

}  // namespace quarn::zorvex
