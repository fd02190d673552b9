// The folders of the captures, and the names of what is in them: one folder a capture, below the
// log folder. log_names.h tells what the names mean.
//
// Opens no log files: it names the next one and, when that is open, gives the one before its final
// name. The folder history and the file sync hear of each change.
//
// Runs under the storage channel's `io_mutex`, but for the lock of the folder names.
#pragma once

#include <android-base/unique_fd.h>

#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>

#include "storage/file_sync.h"

namespace quarn::zorvex {

class CaptureTree {
  public:
    // `base` ends in "/". `file_sync` is not owned.
    CaptureTree(std::string base, FileSync& file_sync);
    CaptureTree(const CaptureTree&) = delete;
    CaptureTree& operator=(const CaptureTree&) = delete;

    // Creates base, config and log folder as far as they are missing. Returns true if all are
    // there.
    bool CreateTopFolders();
    // Has later captures go to `path`: the log folder or one folder directly in it, which is
    // created if missing, unless the log folder is full. Returns true on success.
    bool SetLogFolder(std::string path);
    const std::string& log_folder() const { return folder_of_captures; }

    // --- a capture, from `Begin` to `End` ---

    // Creates the folder of the next capture and gives the folder before its final name. `suffix`
    // is "" or the exception mark. Returns true on success. REQUIRES: !is_open().
    bool Begin(const std::string& suffix);
    bool is_open() const { return !folder_path.empty(); }
    // Adds the mark `suffix` to the name of the folder, unless that has it already or `suffix` is
    // none. Returns true if the folder was renamed.
    bool MarkException(const std::string& suffix);
    // Returns true if the folder is still there: that one, and not another of its name.
    bool HasItsFolder() const;
    // Returns true if a file can be made in the folder. Logs the reason if not.
    bool IsReadyForFile() const;
    // The name is of the present second.
    std::string NextFilePath(const std::string& suffix) const;
    // The file of `NextFilePath` has been opened and has its header: the file before gets its final
    // name.
    void FileOpened(const std::string& path);
    // A file was deleted while it was open: it needs no final name.
    void FileVanished(const std::string& path);
    void End();

    // Of the open capture; empty and 0: none.
    const std::string& folder() const { return folder_path; }
    time_t folder_time() const { return time_of_folder; }
    // Of the last capture that was begun.
    uint32_t folder_idx() const { return next_folder_idx - 1; }
    // Of the next file.
    uint32_t file_idx() const { return next_file_idx; }
    // The folder of the open capture, or else of the one before; empty: none known.
    const std::string& latest_folder() const { return latest_folder_path; }

    // --- Thread-safe ---

    // While it is held no capture folder is renamed.
    void LockFolderNames();
    void UnlockFolderNames();

  private:
    struct Found {
        std::string path;  // empty: none
        uint32_t idx = 0;
    };
    // The unfinished folder with the highest index, or else any with the highest.
    Found FindLatestFolder() const;
    // The first file of the folder that has no final name; empty: none.
    static std::string FindLatestFile(const std::string& in_folder);

    bool CreateBaseFolders();
    bool EnsureLogFolders();
    void PickNextIndex();
    void FinishLatestFolder();
    bool RenameFolder(const std::string& from, const std::string& to);
    void FinishLastFile();

    const std::string base_folder;
    const std::string config_folder;
    const std::string top_log_folder;
    // The top one or one directly in it.
    std::string folder_of_captures;
    FileSync& sync;

    // Empty: no capture.
    std::string folder_path;
    // That folder as it was made; -1: could not be opened.
    android::base::unique_fd folder_fd;
    time_t time_of_folder = 0;
    std::string latest_folder_path;
    // Loses its ".tmp" when the next file opens.
    std::string last_file_path;
    uint32_t next_folder_idx = 0;
    uint32_t next_file_idx = 0;

    std::mutex folder_name_mutex;
};

}  // namespace quarn::zorvex
