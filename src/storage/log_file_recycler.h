// The recycler: keeps the log tree within its size, oldest captures first.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "storage/log_names.h"

struct RECYCLE_CONFIG;

namespace quarn::zorvex {

// A capture folder of the tree.
struct LogFolderInfo {
    std::string name;
    // Name of the folder directly around it; empty when that is the root, or what a link leads to.
    std::string parent;
    std::string time;
    bool is_ee;      // holds an exception capture
    uint64_t index;  // place in the folder history, 1 the oldest; 0: not in it
    std::string path;
};

// A log file of the folder being recycled.
struct LogFileInfo {
    std::string name;
    uint32_t index;   // serial number in its folder
    int64_t size_kb;  // whole KiB
};

// Sizes are counted in whole KiB. Age is the place in the folder history, not a file time. Ordinary
// folders go before exception folders, and the newest file of the capture being written never goes.
//
// Links in the tree:
// - A link to a folder is a way to that folder. The folder is entered once and listed once, under
//   its own path, whatever leads to it and in whatever order the names are read. Its own name tells
//   its age and its marks; the link's name does only if the folder's own is not that of a capture.
// - Behind a link that leads out of the tree, log files count only in listed folders, since others
//   are never deleted.
// - A link to a file is no log file: it counts nothing, and is not deleted.
// - The recycler deletes no links. Outside the tree it deletes the folder that a link leads to only
//   if that is itself a capture folder.
//
// Runs on the thread that holds the storage channel's `io_mutex`; takes no lock of its own.
class LogFileRecycler {
  public:
    static LogFileRecycler* GetInstance();

    // 0 when the tree is within `config.recycle_size` MB afterwards, -1 when it could not be read
    // or still holds more. `current_folder` is the path of the capture being written, or else of
    // the one before; empty: none. The folder history is read again when it has changed.
    int32_t CheckAndRecycle(const RECYCLE_CONFIG& config, const std::string& current_folder = {});

  private:
    LogFileRecycler() = default;

    void BuildLogFolderHistoryIndex(const std::string& current_folder = {});
    // Where a folder lies that is traversed.
    struct Place {
        int depth;     // below the root, or below the folder that a link leads to
        bool in_tree;  // reached without a link
        int64_t* kb;   // takes the size of its log files
    };
    // Adds up the log files of `path` and takes the folders below it. Links to folders are put into
    // `links`, so that every real folder of the tree is known before the first link is followed.
    bool TraverseAndBuildFolderList(const std::string& path, const Place& place);
    // Lists the folder if `name` is a capture's and the folder is not listed yet; traverses it if
    // the traversal comes to it for the first time.
    void TakeFolder(const std::string& path, const std::string& name, const struct stat& status,
                    int depth, bool in_tree);
    void FollowLinks();
    static bool IsLogFolderName(const std::string& name);
    static bool IsLogFileName(const std::string& name);
    bool GetLogFolderInfo(const std::string& parent_path, const std::string& name,
                          LogFolderInfo& info) const;
    void OrderFolderList();
    void RecycleByFolderList();
    // Deletes the folder's files, oldest first, until the tree is within its budget or only
    // `keep_kb` remain; of the current folder the newest file stays.
    void RecycleFolder(const LogFolderInfo& folder, bool is_current, int64_t keep_kb);
    void RemoveFolder(const LogFolderInfo& folder) const;
    bool IsWithinBudget() const { return total_kb <= recycle_kb; }
    // Whether it is the capture of the moment, wherever the sort put it: one that the history could
    // not record sorts as the oldest.
    bool IsBeingWritten(const LogFolderInfo& folder) const;
    static bool BuildLogFileList(const std::string& folder_path, std::vector<LogFileInfo>& files);
    static bool GetLogFileIndex(const std::string& name, uint32_t& index);
    static void OrderFileListByIndex(std::vector<LogFileInfo>& files);

    // May lie in the tree without being log files of a capture.
    const std::vector<std::string> known_files{std::string(log_names::kPowerOnLog)};
    const std::string root{"/data/vendor/radio/quarn/logs/"};
    int64_t total_kb = 0;
    std::vector<LogFolderInfo> folder_list;
    struct EnteredFolder {
        bool is_listed = false;
        int64_t uncounted_kb = 0;  // of its log files, until it is listed
    };
    std::map<std::pair<dev_t, ino_t>, EnteredFolder> entered;  // by device and inode
    std::deque<std::string> links;                             // to folders; not yet followed
    int64_t recycle_kb = 0;
    int64_t keep_ee_kb = 0;
    int32_t clear_ee = 0;
    std::string latest_folder;
    std::unordered_map<std::string, uint64_t> history_index;
};

}  // namespace quarn::zorvex
