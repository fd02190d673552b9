// The recycler deletes the oldest log files when the log tree is larger than its size limit.
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
    // The name of the folder that contains this one. Empty if this folder lies directly in the root
    // of the tree, is the target of a link, or lies directly in such a target.
    std::string parent;
    std::string time;  // from the name, as text
    bool is_ee;        // the name has an exception mark
    uint64_t index;    // position in the last 20 records of the history, 1 is the oldest; else 0
    std::string path;
};

// A log file of the folder being recycled.
struct LogFileInfo {
    std::string name;
    uint32_t index;   // serial number in its folder
    int64_t size_kb;  // KiB, rounded down
};

// The size of the tree is the sum of the log file sizes, each rounded down to whole KiB. The age of
// a folder is its position among the last 20 records of the folder history, not a file time.
// Folders without such a record count as older, in the order of the times in their names. Files of
// ordinary folders are deleted before files of exception folders. The newest file of the current
// capture is never deleted.
//
// Symbolic links in the tree:
// - The recycler follows links to folders. It visits and lists each folder once, under the folder's
//   own path, no matter how many links lead to it. Age and marks come from the folder's own name.
//   If that is not the name of a capture, they come from the link's name.
// - A folder is "listed" if its name, or that of the link, is the name of a capture. Only the files
//   of listed folders are ever deleted. So outside the tree, log files in other folders do not
//   count.
// - A link to a file does not count and is not deleted.
// - The recycler deletes no links. It deletes the target folder of a link only if that folder is
//   listed as a capture.
//
// Not thread-safe. The storage channel calls it while holding `io_mutex` and `recycle_mutex`.
class LogFileRecycler {
  public:
    static LogFileRecycler* GetInstance();

    // Returns 0 if the tree is within `config.recycle_size` MB afterwards. Returns -1 if the tree
    // is still larger or could not be read. `current_folder` is the path of the current or else the
    // last capture folder; it may be empty. The folder history is read again if `current_folder`
    // differs from that of the previous call.
    int32_t CheckAndRecycle(const RECYCLE_CONFIG& config, const std::string& current_folder = {});

  private:
    LogFileRecycler() = default;

    void BuildLogFolderHistoryIndex(const std::string& current_folder = {});
    // The position of a folder during the traversal.
    struct Place {
        int depth;     // levels below the root, or below the target of a link
        bool in_tree;  // reached without a link
        int64_t* kb;   // the sum to which the sizes of its log files are added
    };
    // Adds up the sizes of the log files in `path` and traverses the folders in it. Links to
    // folders are only put into `links`, so that all folders of the tree are known before the first
    // link is followed. Returns false if the folder cannot be opened.
    bool TraverseAndBuildFolderList(const std::string& path, const Place& place);
    // Puts the folder into `folder_list` if `name` is that of a capture and the folder is not in
    // the list yet. Traverses the folder if it was not visited before.
    void TakeFolder(const std::string& path, const std::string& name, const struct stat& status,
                    int depth, bool in_tree);
    void FollowLinks();
    static bool IsLogFolderName(const std::string& name);
    static bool IsLogFileName(const std::string& name);
    bool GetLogFolderInfo(const std::string& parent_path, const std::string& name,
                          LogFolderInfo& info) const;
    void OrderFolderList();
    void RecycleByFolderList();
    // Deletes the folder's files, oldest first, until the tree is within its size limit or the
    // folder holds at most `keep_kb` KiB. If `is_current`, the newest file is kept.
    void RecycleFolder(const LogFolderInfo& folder, bool is_current, int64_t keep_kb);
    void RemoveFolder(const LogFolderInfo& folder) const;
    bool IsWithinSizeLimit() const { return total_kb <= recycle_kb; }
    // Returns true if this is the folder of the current or last capture. The sort order does not
    // show this: a folder that could not be recorded in the history sorts as the oldest.
    bool IsBeingWritten(const LogFolderInfo& folder) const;
    static bool BuildLogFileList(const std::string& folder_path, std::vector<LogFileInfo>& files);
    static bool GetLogFileIndex(const std::string& name, uint32_t& index);
    static void OrderFileListByIndex(std::vector<LogFileInfo>& files);

    // Files that are expected in the tree although they are no log files of a capture.
    const std::vector<std::string> known_files{std::string(log_names::kPowerOnLog)};
    const std::string root{"/data/vendor/radio/quarn/logs/"};
    int64_t total_kb = 0;
    std::vector<LogFolderInfo> folder_list;
    struct EnteredFolder {
        bool is_listed = false;
        int64_t uncounted_kb = 0;  // size of its log files if they do not count in `total_kb` yet
    };
    std::map<std::pair<dev_t, ino_t>, EnteredFolder> entered;  // by device and inode
    std::deque<std::string> links;                             // links to folders, not yet followed
    int64_t recycle_kb = 0;
    int64_t keep_ee_kb = 0;
    int32_t clear_ee = 0;  // 1: exception folders may be deleted, too
    std::string latest_folder;
    std::unordered_map<std::string, uint64_t> history_index;
};

}  // namespace quarn::zorvex
