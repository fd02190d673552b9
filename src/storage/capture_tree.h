// The capture folders in the log folder, and the names of the log files in them. Each capture has
// one folder. log_names.h describes the names.
//
// This class creates and renames folders and renames log files, but opens no log file. The caller
// opens the file of `NextFilePath` and then calls `FileOpened`, which gives the previous file its
// final name. Each new capture is recorded in the folder history, and each changed folder is passed
// to the file sync.
//
// REQUIRES: the storage channel's `io_mutex` is held, except where a comment says "Thread-safe".
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
    // The top log folder is "logs/" in `base`. Captures go there until SetLogFolder selects another
    // folder. `file_sync` is not owned. REQUIRES: `base` ends in "/".
    CaptureTree(std::string base, FileSync& file_sync);
    CaptureTree(const CaptureTree&) = delete;
    CaptureTree& operator=(const CaptureTree&) = delete;

    // Creates the base, config and log folder if they do not exist. Returns true if all of them
    // exist.
    bool CreateTopFolders();
    // Selects the folder for later captures: the top log folder or a folder directly in it. Creates
    // the folder if it does not exist. Returns false if the path or its name is not allowed, if the
    // top log folder has too many entries for another folder, or if the folder cannot be created.
    bool SetLogFolder(std::string path);
    const std::string& log_folder() const { return folder_of_captures; }

    // --- A capture, from `Begin` to `End` ---

    // Creates the folder of the next capture and gives the previous folder its final name. `suffix`
    // is "" or the exception mark. Returns true on success. REQUIRES: !is_open().
    bool Begin(const std::string& suffix);
    bool is_open() const { return !folder_path.empty(); }
    // Appends `suffix` to the name of the folder if `suffix` contains the exception mark and the
    // name does not. Returns true if the folder was renamed.
    bool MarkException(const std::string& suffix);
    // Returns true if the folder of the capture still exists. If it was deleted and another folder
    // has its path now, returns false.
    bool HasItsFolder() const;
    // Returns true if a file can be created in the folder, else logs the reason.
    bool IsReadyForFile() const;
    // Returns the path for the next file, with the current time in its name. `suffix` is "" or the
    // exception mark.
    std::string NextFilePath(const std::string& suffix) const;
    // Gives the previous file its final name. The caller calls it after it has opened the file
    // `path`, which came from `NextFilePath`, and has written the file's header.
    void FileOpened(const std::string& path);
    // Forgets the file `path`, which was deleted while it was open: it needs no final name.
    void FileVanished(const std::string& path);
    void End();

    // The folder of the open capture and its creation time; empty and 0 if no capture is open.
    const std::string& folder() const { return folder_path; }
    time_t folder_time() const { return time_of_folder; }
    // Returns the index of the last capture. REQUIRES: the last `Begin` returned true.
    uint32_t folder_idx() const { return next_folder_idx - 1; }
    // Returns the index of the next file.
    uint32_t file_idx() const { return next_file_idx; }
    // Returns the folder of the open capture. If none is open, returns the folder of the last one,
    // or an empty string if no capture is known.
    const std::string& latest_folder() const { return latest_folder_path; }

    // Thread-safe. While the folder names are locked, no capture folder is renamed.
    void LockFolderNames();
    void UnlockFolderNames();

  private:
    struct Found {
        std::string path;  // empty if there is none
        uint32_t idx = 0;
    };
    // Returns the unfinished folder with the highest index. If there is none, returns the folder
    // with the highest index.
    Found FindLatestFolder() const;
    // Returns the path of the first file in the folder with ".tmp" in its name, or an empty string.
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
    // The top log folder or a folder directly in it.
    std::string folder_of_captures;
    FileSync& sync;

    // Empty if no capture is open.
    std::string folder_path;
    // The open folder `folder_path`; -1 if it could not be opened.
    android::base::unique_fd folder_fd;
    time_t time_of_folder = 0;
    std::string latest_folder_path;
    // The file that gets its final name when the next file opens.
    std::string last_file_path;
    uint32_t next_folder_idx = 0;
    uint32_t next_file_idx = 0;

    std::mutex folder_name_mutex;
};

}  // namespace quarn::zorvex
