#include "storage/file_sync.h"

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "core/named_thread.h"
#include "platform/quarn_log.h"

namespace quarn::zorvex {

namespace {

using android::base::unique_fd;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kDelay(5);     // from a change to its sync
constexpr std::chrono::seconds kEndLimit(5);  // the destructor waits for the last sync
constexpr size_t kMaxFolders = 16;            // more changed folders lead to one syncfs

// What is to be synced. The thread takes all of it at once.
struct Work {
    unique_fd file;
    std::string path;     // of the file, for messages
    uint64_t number = 0;  // of the file
    bool finished = false;
    bool whole_file_system = false;
    std::vector<std::string> folders;  // each path once
};

// Calls `sync(fd)` until it is not interrupted. Returns 0 or the error number.
int Repeat(int (*sync)(int), int fd) {
    while (sync(fd) != 0) {
        if (errno != EINTR) return errno;
    }
    return 0;
}

}  // namespace

struct FileSync::Shared {
    // Guards all members. While it is held, no thread locks another mutex or waits for the disk.
    std::mutex mutex;
    std::condition_variable changed;
    Work waiting;
    std::optional<Clock::time_point> due;  // when to sync `waiting`; none if there is nothing
    uint64_t file_number = 1;              // the number of the current file
    uint64_t failed_number = 0;            // the number of the last file with a logged failure
    bool ending = false;
    bool ended = false;

    // --- REQUIRES: mutex is held ---

    // Makes `waiting` due at `time`, unless it is due earlier.
    void SetDue(Clock::time_point time) {
        if (due && *due <= time) return;
        due = time;
        changed.notify_all();
    }

    // Waits until `waiting` is due or the owner ends the thread. Returns false if the thread is to
    // end and nothing is left to sync.
    bool AwaitDue(std::unique_lock<std::mutex>& lock) {
        while (!ending) {
            if (!due) {
                changed.wait(lock);
                continue;
            }
            const Clock::time_point until = *due;
            if (until <= Clock::now()) break;
            changed.wait_until(lock, until);
        }
        return due.has_value();
    }

    // --- REQUIRES: mutex is not held ---

    // Logs a failure, at most one for each file.
    void LogFailure(uint64_t number, const char* what, const std::string& path, int error) {
        {
            std::lock_guard lock(mutex);
            if (std::exchange(failed_number, number) == number) return;
        }
        QUARN_LOGE("file_sync: %s=%s fail, errno=%s", what, path.c_str(), strerror(error));
    }

    // The body of the thread.
    void Run() {
        std::unique_lock lock(mutex);
        while (AwaitDue(lock)) {
            Work work = std::exchange(waiting, {});
            due.reset();
            if (!work.file.ok()) work.number = file_number;
            lock.unlock();
            const bool folder_gone = SyncAll(work);
            lock.lock();
            // A folder that does not exist was probably renamed. Its new path is in `waiting` then.
            // Sync it now, since the 5 s after the change are over.
            if (folder_gone && !waiting.folders.empty()) SetDue(Clock::now());
        }
        ended = true;
        changed.notify_all();
    }

    // Syncs the file before the folders, so that a name on the disk does not belong to an empty
    // file. Returns true if a folder did not exist.
    bool SyncAll(Work& work) {
        if (work.file.ok()) {
            const int error = Repeat(work.whole_file_system ? syncfs : fdatasync, work.file);
            if (error != 0) LogFailure(work.number, "sync log_file", work.path, error);
            work.file.reset();
            if (work.whole_file_system) return false;
        }
        bool folder_gone = false;
        for (const std::string& path : work.folders) {
            const unique_fd folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            if (!folder.ok()) {
                if (errno == ENOENT) {
                    folder_gone = true;
                } else {
                    LogFailure(work.number, "open folder", path, errno);
                }
                continue;
            }
            const int error = Repeat(work.whole_file_system ? syncfs : fsync, folder);
            if (error != 0) LogFailure(work.number, "sync folder", path, error);
            if (work.whole_file_system) return false;
        }
        return folder_gone;
    }
};

FileSync::FileSync() : shared(std::make_shared<Shared>()) {}

FileSync::~FileSync() {
    if (!thread.joinable()) return;
    bool ended;
    {
        std::unique_lock lock(shared->mutex);
        shared->ending = true;
        shared->changed.notify_all();
        ended = shared->changed.wait_for(lock, kEndLimit, [this] { return shared->ended; });
    }
    if (ended) {
        thread.join();
        return;
    }
    QUARN_LOGW("file_sync: the last sync does not end, leave it alone");
    thread.detach();
}

void FileSync::FolderChanged(const std::string& folder) {
    if (!thread.joinable() &&
        !quarn_startThread(thread, "quarn_sync", "file_sync", [kept = shared] { kept->Run(); })) {
        return;
    }
    std::lock_guard lock(shared->mutex);
    Work& waiting = shared->waiting;
    std::vector<std::string>& folders = waiting.folders;
    if (std::find(folders.begin(), folders.end(), folder) == folders.end()) {
        if (folders.size() < kMaxFolders) {
            folders.push_back(folder);
        } else {
            waiting.whole_file_system = true;
        }
    }
    shared->SetDue(Clock::now() + kDelay);
}

void FileSync::Written(int fd, const std::string& path) {
    if (!thread.joinable()) return;
    std::unique_lock lock(shared->mutex);
    Work& waiting = shared->waiting;
    if (waiting.file.ok()) {
        // If that is the descriptor of an earlier, finished file, there is none left for this one.
        if (waiting.finished) waiting.whole_file_system = true;
        return;
    }
    waiting.file.reset(fcntl(fd, F_DUPFD_CLOEXEC, 0));
    if (!waiting.file.ok()) {
        const int error = errno;
        const uint64_t number = shared->file_number;
        lock.unlock();
        shared->LogFailure(number, "keep log_file", path, error);
        return;
    }
    waiting.path = path;
    waiting.number = shared->file_number;
    shared->SetDue(Clock::now() + kDelay);
}

void FileSync::Finished() {
    if (!thread.joinable()) return;
    std::lock_guard lock(shared->mutex);
    ++shared->file_number;
    if (!shared->waiting.file.ok()) return;
    shared->waiting.finished = true;
    shared->SetDue(Clock::now());
}

}  // namespace quarn::zorvex
