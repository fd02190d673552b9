#include "storage/log_file_recycler.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <utility>

#include "platform/quarn_log.h"
#include "storage/folder_history.h"
#include "storage/log_names.h"
#include "storage/recycle_config.h"

namespace quarn::zorvex {

namespace {

constexpr int kKbShift = 10;  // shift right: bytes to KiB, KiB to MB; shift left: MB to KiB
// Captures are one or two levels deep. The limit bounds the open descriptors, one for each level.
constexpr int kMaxDepth = 16;

struct Entry {
    std::string name;
    struct stat status;  // of the target if the entry is a link
    bool is_link;
};

// Calls `visit` for each entry of the folder except "." and "..". Entries that cannot be examined
// are logged and skipped. `function` is the name in the messages. Returns false if the folder
// cannot be opened.
bool ForEachEntry(const std::string& path, const char* function,
                  const std::function<void(const Entry&)>& visit) {
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(path.c_str()), closedir);
    if (!dir) {
        QUARN_LOGE("%s: Error opening directory %s: %s", function, path.c_str(), strerror(errno));
        return false;
    }
    while (const dirent* entry = readdir(dir.get())) {
        Entry found = {entry->d_name, {}, false};
        if (found.name == "." || found.name == "..") continue;
        const std::string entry_path = path + "/" + found.name;
        int result = lstat(entry_path.c_str(), &found.status);
        found.is_link = result == 0 && S_ISLNK(found.status.st_mode);
        if (found.is_link) result = stat(entry_path.c_str(), &found.status);
        if (result != 0) {
            QUARN_LOGE("%s: Error stating entry %s: %s", function, entry_path.c_str(),
                       strerror(errno));
            continue;
        }
        visit(found);
    }
    return true;
}

}  // namespace

LogFileRecycler* LogFileRecycler::GetInstance() {
    static LogFileRecycler recycler;
    return &recycler;
}

int32_t LogFileRecycler::CheckAndRecycle(const RECYCLE_CONFIG& config,
                                         const std::string& current_folder) {
    QUARN_LOGI("LogFileRecycler: start to check and recycle");
    recycle_kb = int64_t{config.recycle_size} << kKbShift;
    keep_ee_kb = int64_t{config.keep_ee_size} << kKbShift;
    clear_ee = config.clear_ee ? 1 : 0;
    BuildLogFolderHistoryIndex(current_folder);

    folder_list.clear();
    total_kb = 0;
    entered.clear();
    links.clear();
    if (struct stat status; stat(root.c_str(), &status) == 0) {
        entered.try_emplace({status.st_dev, status.st_ino});
    }
    if (!TraverseAndBuildFolderList(root, {0, true, &total_kb})) {
        QUARN_LOGE("LogFileRecycler: failed to traverse, skip recycle");
        return -1;
    }
    FollowLinks();
    const auto mb = [](int64_t kb) { return static_cast<long>(kb >> kKbShift); };
    if (IsWithinSizeLimit()) {
        QUARN_LOGI("LogFileRecycler: total log file size=%ldMB, skip recycle (recycle=%ldMB)",
                   mb(total_kb), mb(recycle_kb));
    } else {
        QUARN_LOGI(
            "LogFileRecycler: total log file size=%ldMB, do recycle (recycle=%ldMB, keep_ee=%ldMB, "
            "clear_ee=%d)",
            mb(total_kb), mb(recycle_kb), mb(keep_ee_kb), clear_ee);
        OrderFolderList();
        RecycleByFolderList();
        if (!IsWithinSizeLimit()) {
            QUARN_LOGE("LogFileRecycler: still remain %ldKB not cleared",
                       static_cast<long>(total_kb - recycle_kb));
            return -1;
        }
    }
    QUARN_LOGI("LogFileRecycler: success to check and recycle");
    return 0;
}

void LogFileRecycler::BuildLogFolderHistoryIndex(const std::string& current_folder) {
    if (current_folder == latest_folder) {
        QUARN_LOGI("LogFileRecycler: the latest folder is same, skip reading history file");
        return;
    }
    latest_folder = current_folder;
    history_index.clear();
    uint64_t position = 0;
    for (const std::string& record : GetLatestHistoryRecord(kHistoryRecords)) {
        history_index.emplace(log_names::LastComponent(record), ++position);
    }
}

bool LogFileRecycler::TraverseAndBuildFolderList(const std::string& path, const Place& place) {
    return ForEachEntry(path, "TraverseAndBuildFolderList", [&](const Entry& entry) {
        const std::string entry_path = path + "/" + entry.name;
        if (S_ISREG(entry.status.st_mode)) {
            if (!entry.is_link && IsLogFileName(entry.name)) {
                *place.kb += entry.status.st_size >> kKbShift;
            } else if (std::find(known_files.begin(), known_files.end(), entry.name) ==
                       known_files.end()) {
                QUARN_LOGW("%s: Unexpected file in log folder %s", "TraverseAndBuildFolderList",
                           entry_path.c_str());
            }
        } else if (S_ISDIR(entry.status.st_mode) && entry.is_link) {
            links.push_back(entry_path);
        } else if (S_ISDIR(entry.status.st_mode) && place.depth < kMaxDepth) {
            TakeFolder(entry_path, entry.name, entry.status, place.depth + 1, place.in_tree);
        }
    });
}

void LogFileRecycler::TakeFolder(const std::string& path, const std::string& name,
                                 const struct stat& status, int depth, bool in_tree) {
    const auto [found, is_new] = entered.try_emplace({status.st_dev, status.st_ino});
    EnteredFolder& folder = found->second;
    LogFolderInfo info;
    if (!folder.is_listed && IsLogFolderName(name) &&
        GetLogFolderInfo(path.substr(0, path.rfind('/')), name, info)) {
        info.path = path;
        if (depth <= 1) info.parent.clear();
        folder_list.push_back(std::move(info));
        folder.is_listed = true;
        total_kb += std::exchange(folder.uncounted_kb, 0);
    }
    if (!is_new) return;
    const bool counts = in_tree || folder.is_listed;
    TraverseAndBuildFolderList(path, {depth, in_tree, counts ? &total_kb : &folder.uncounted_kb});
}

void LogFileRecycler::FollowLinks() {
    // The folder that a link leads to may add more links.
    for (; !links.empty(); links.pop_front()) {
        const std::string& link = links.front();
        const std::unique_ptr<char, void (*)(void*)> target(realpath(link.c_str(), nullptr), free);
        struct stat status;
        if (!target || stat(target.get(), &status) != 0) continue;  // deleted meanwhile
        std::string name(log_names::LastComponent(target.get()));
        if (!IsLogFolderName(name)) name = log_names::LastComponent(link);
        TakeFolder(target.get(), name, status, 0, false);
    }
}

bool LogFileRecycler::IsLogFolderName(const std::string& name) {
    return log_names::ParseFolder(name).has_value();
}

bool LogFileRecycler::IsLogFileName(const std::string& name) {
    return log_names::ParseFile(name).has_value();
}

bool LogFileRecycler::GetLogFolderInfo(const std::string& parent_path, const std::string& name,
                                       LogFolderInfo& info) const {
    const auto parsed = log_names::ParseFolder(name);
    if (!parsed) {
        QUARN_LOGE("LogFileRecycler: Could not parse folder name %s", name.c_str());
        return false;
    }
    info.name = name;
    info.parent = parent_path == root ? "" : log_names::LastComponent(parent_path);
    info.time = parsed->time;
    info.is_ee = parsed->suffix.ends_with(log_names::kException);
    // The history has the names without a suffix.
    const auto record = history_index.find(name.substr(0, name.size() - parsed->suffix.size()));
    info.index = record == history_index.end() ? 0 : record->second;
    info.path = parent_path + "/" + name;
    return true;
}

void LogFileRecycler::OrderFolderList() {
    std::sort(folder_list.begin(), folder_list.end(),
              [](const LogFolderInfo& a, const LogFolderInfo& b) {
                  if (a.is_ee != b.is_ee) return b.is_ee;
                  if (a.index == 0 && b.index == 0) return a.time < b.time;
                  return a.index < b.index;
              });
}

void LogFileRecycler::RecycleByFolderList() {
    const auto begin = folder_list.begin();
    const auto end = folder_list.end();
    const auto first_ee =
        std::find_if(begin, end, [](const LogFolderInfo& folder) { return folder.is_ee; });
    const auto recycle = [&](auto first, auto last, std::string_view current_suffix, int64_t keep) {
        for (auto folder = first; folder != last && !IsWithinSizeLimit(); ++folder) {
            const bool is_current = IsBeingWritten(*folder) ||
                                    (folder + 1 == last && folder->name.ends_with(current_suffix));
            RecycleFolder(*folder, is_current, keep);
        }
    };
    recycle(begin, first_ee, log_names::kUnfinished, 0);
    if (keep_ee_kb >= 1) recycle(first_ee, end, log_names::kUnfinishedException, keep_ee_kb);
    if (clear_ee == 1) recycle(first_ee, end, log_names::kUnfinishedException, 0);
}

bool LogFileRecycler::IsBeingWritten(const LogFolderInfo& folder) const {
    // The path may differ from `latest_folder` if a link led to the folder.
    struct stat listed, current;
    return stat(folder.path.c_str(), &listed) == 0 && stat(latest_folder.c_str(), &current) == 0 &&
           listed.st_dev == current.st_dev && listed.st_ino == current.st_ino;
}

void LogFileRecycler::RecycleFolder(const LogFolderInfo& folder, bool is_current, int64_t keep_kb) {
    std::vector<LogFileInfo> files;
    if (!BuildLogFileList(folder.path, files)) {
        QUARN_LOGE("LogFileRecycler: failed to build file list, skip recycle");
        return;
    }
    OrderFileListByIndex(files);

    int64_t folder_kb = 0;
    for (const LogFileInfo& file : files) folder_kb += file.size_kb;
    size_t removed = 0;
    for (const LogFileInfo& file : files) {
        if (IsWithinSizeLimit()) break;
        if (keep_kb >= 1 && folder_kb <= keep_kb) break;
        if (is_current && &file == &files.back()) {
            QUARN_LOGD("LogFileRecycler: skip current file %s", file.name.c_str());
            continue;
        }
        const std::string path = folder.path + "/" + file.name;
        if (unlink(path.c_str()) != 0) {
            QUARN_LOGW("%s: Error removing file %s: %s", "RecycleFolder", path.c_str(),
                       strerror(errno));
            continue;
        }
        QUARN_LOGI("LogFileRecycler: remove file %s", path.c_str());
        total_kb -= file.size_kb;
        folder_kb -= file.size_kb;
        ++removed;
    }
    if (!is_current && keep_kb < 1 && removed == files.size()) RemoveFolder(folder);
}

void LogFileRecycler::RemoveFolder(const LogFolderInfo& folder) const {
    constexpr const char* kFunction = "RecycleFolder";
    constexpr const char* kFailure = "%s: Error removing folder %s: %s";
    constexpr const char* kSuccess = "LogFileRecycler: remove folder %s";
    if (rmdir(folder.path.c_str()) != 0) {
        QUARN_LOGE(kFailure, kFunction, folder.path.c_str(), strerror(errno));
        return;
    }
    QUARN_LOGI(kSuccess, folder.path.c_str());
    if (folder.parent.empty()) return;

    // The parent folder is removed with its last capture. While it holds others rmdir() fails,
    // which is expected.
    const std::string parent_path = folder.path.substr(0, folder.path.rfind('/'));
    if (rmdir(parent_path.c_str()) != 0) {
        QUARN_LOGW(kFailure, kFunction, parent_path.c_str(), strerror(errno));
    } else {
        QUARN_LOGI(kSuccess, parent_path.c_str());
    }
}

bool LogFileRecycler::BuildLogFileList(const std::string& folder_path,
                                       std::vector<LogFileInfo>& files) {
    return ForEachEntry(folder_path, "BuildLogFileList", [&](const Entry& entry) {
        uint32_t index;
        const bool is_file = S_ISREG(entry.status.st_mode) && !entry.is_link;
        if (is_file && GetLogFileIndex(entry.name, index)) {
            files.push_back({entry.name, index, entry.status.st_size >> kKbShift});
        } else {
            QUARN_LOGW("%s: Unexpected entry in log folder %s", "BuildLogFileList",
                       (folder_path + "/" + entry.name).c_str());
        }
    });
}

bool LogFileRecycler::GetLogFileIndex(const std::string& name, uint32_t& index) {
    const auto parsed = log_names::ParseFile(name);
    const auto number = parsed ? log_names::ParseIndex(parsed->index) : std::nullopt;
    if (!number) return false;
    index = *number;
    return true;
}

void LogFileRecycler::OrderFileListByIndex(std::vector<LogFileInfo>& files) {
    if (files.size() < 2) return;
    std::sort(files.begin(), files.end(),
              [](const LogFileInfo& a, const LogFileInfo& b) { return a.index < b.index; });
    if (files.front().index != 0 || files.back().index != UINT32_MAX) return;
    // The index has wrapped around: the files of the consecutive indexes from 0 are the newest.
    const auto run_end = std::adjacent_find(
        files.begin(), files.end(),
        [](const LogFileInfo& a, const LogFileInfo& b) { return a.index + 1 != b.index; });
    if (run_end != files.end()) std::rotate(files.begin(), run_end + 1, files.end());
}

}  // namespace quarn::zorvex
