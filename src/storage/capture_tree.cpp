#include "storage/capture_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "core/path_utility.h"
#include "core/system_utility.h"
#include "platform/quarn_log.h"
#include "storage/folder_history.h"
#include "storage/log_names.h"

namespace quarn::zorvex {

namespace {

constexpr mode_t kMode = 0775;
// Clients cannot create another log folder if the top log folder has this many entries.
constexpr int kMaxLogFolders = 4096;

std::string FolderOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

// Returns the reason why `path`, a folder directly in the top log folder, must not become the log
// folder, or null if it may. Its name must not look like a capture, since the search for the latest
// capture and the readers of the tree would take it for one. It must not contain control
// characters: a newline would split a line of the folder history. It must not take the place of the
// power-on log.
const char* WhyNoLogFolder(std::string_view path) {
    if (HasControlCharacter(path)) return "control character";
    const std::string_view name = log_names::LastComponent(path);
    if (name.find(log_names::kPrefix) != std::string_view::npos) return "name of a capture";
    if (name == log_names::kPowerOnLog) return "name of the power-on log";
    return nullptr;
}

// Creates a folder. `who` is the prefix of the log message. Returns true on success.
bool CreateFolder(const char* who, const std::string& path) {
    if (mkdir(path.c_str(), kMode) != 0) {
        QUARN_LOGE("file_io: create folder %s fail, errno=%s", path.c_str(), strerror(errno));
        return false;
    }
    QUARN_LOGI("%s: create folder %s", who, path.c_str());
    return true;
}

// A folder that is open for reading. The destructor closes it, and logs an error if that fails.
class OpenFolder {
  public:
    explicit OpenFolder(const std::string& folder_path)
        : path(folder_path), dir(opendir(path.c_str())) {
        if (dir == nullptr) {
            QUARN_LOGE("file_io: open dir=%s fail, errno=%s", path.c_str(), strerror(errno));
        }
    }
    ~OpenFolder() {
        if (dir != nullptr && closedir(dir) != 0) {
            QUARN_LOGE("file_io: close dir=%s fail, errno=%s", path.c_str(), strerror(errno));
        }
    }
    OpenFolder(const OpenFolder&) = delete;
    OpenFolder& operator=(const OpenFolder&) = delete;

    // Returns the name of the next entry, or null after the last entry or if the folder could not
    // be opened.
    const char* next() {
        const dirent* const entry = dir != nullptr ? readdir(dir) : nullptr;
        return entry != nullptr ? entry->d_name : nullptr;
    }

  private:
    const std::string path;
    DIR* const dir;
};

bool IsFull(const std::string& path) {
    OpenFolder folder(path);
    int entries = -2;  // "." and ".." do not count
    while (folder.next() != nullptr) ++entries;
    return entries < 0 || entries >= kMaxLogFolders;  // negative if the folder could not be read
}

}  // namespace

CaptureTree::CaptureTree(std::string base, FileSync& file_sync)
    : base_folder(std::move(base)),
      config_folder(base_folder + "config/"),
      top_log_folder(base_folder + "logs/"),
      folder_of_captures(top_log_folder),
      sync(file_sync) {}

bool CaptureTree::CreateTopFolders() {
    sync.FolderChanged(base_folder);
    if (!quarn_check_dir_exist(base_folder.c_str())) {
        if (mkdir(base_folder.c_str(), kMode) != 0) {
            QUARN_LOGE("file_io: create folder %s fail, errno=%s", base_folder.c_str(),
                       strerror(errno));
            return false;
        }
        for (const std::string& path : {config_folder, folder_of_captures}) {
            if (quarn_check_dir_exist(path.c_str())) continue;
            if (!CreateFolder("file_io", path)) return false;
        }
        QUARN_LOGI("file_io: create folder %s", base_folder.c_str());
        next_folder_idx = 0;
        latest_folder_path.clear();
        return true;
    }

    QUARN_LOGE("file_io: folder already created");
    for (const std::string& path : {config_folder, folder_of_captures}) {
        if (quarn_check_dir_exist(path.c_str())) {
            QUARN_LOGE("file_io: %s folder already created", path.c_str());
        } else if (!CreateFolder("file_io", path)) {
            return false;
        }
    }
    OpenFolder check(config_folder);  // logs an error if the folder cannot be opened
    return true;
}

bool CaptureTree::SetLogFolder(std::string path) {
    QUARN_LOGI("file_io: set log folder = %s", path.c_str());
    if (!IsUnderFirstLevelSubfolder(path, top_log_folder)) {
        QUARN_LOGE("file_io: set log folder %s fail, reason=not allowed path", path.c_str());
        return false;
    }
    if (const char* const reason = WhyNoLogFolder(path)) {
        QUARN_LOGE("file_io: set log folder %s fail, reason=%s", path.c_str(), reason);
        return false;
    }
    if (!quarn_check_dir_exist(path.c_str())) {
        if (IsFull(top_log_folder)) {
            QUARN_LOGE("file_io: set log folder %s fail, reason=too many folders", path.c_str());
            return false;
        }
        if (!CreateFolder("file_io io_open", path)) return false;
    }
    folder_of_captures = std::move(path);
    return true;
}

bool CaptureTree::Begin(const std::string& suffix) {
    if (quarn_check_dir_exist(base_folder.c_str())) {
        PickNextIndex();
    } else if (!CreateBaseFolders()) {
        return false;
    }
    if (!EnsureLogFolders()) return false;

    time_of_folder = time(nullptr);
    const std::string finished_path =
        folder_of_captures + "/" + log_names::IndexedName(next_folder_idx, time_of_folder);
    folder_path = finished_path + std::string(log_names::kUnfinished) + suffix;
    if (mkdir(folder_path.c_str(), kMode) != 0) {
        QUARN_LOGE("file_io: create cur_folder_path=%s fail, errno=%s", folder_path.c_str(),
                   strerror(errno));
        folder_path.clear();
        return false;
    }
    QUARN_LOGI("file_io: create cur_folder_path=%s", folder_path.c_str());
    folder_fd.reset(open(folder_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    UpdateFolderHistory(finished_path);
    FinishLatestFolder();

    // Each of these folders may have a new entry. On a phone, init creates the base folder.
    for (const std::string& path : {base_folder, top_log_folder, folder_of_captures}) {
        sync.FolderChanged(path);
    }
    latest_folder_path = folder_path;
    ++next_folder_idx;
    next_file_idx = 0;
    return true;
}

// The base folder was deleted while the daemon runs. Its files and folders no longer exist, so none
// of them gets a final name.
bool CaptureTree::CreateBaseFolders() {
    if (!CreateFolder("file_io", base_folder)) return false;
    if (!CreateFolder("file_io", config_folder)) return false;
    if (!EnsureLogFolders()) return false;
    latest_folder_path.clear();
    last_file_path.clear();
    return true;
}

bool CaptureTree::EnsureLogFolders() {
    const auto is_there = [](const std::string& folder) {
        return quarn_check_dir_exist(folder.c_str()) || CreateFolder("file_io io_open", folder);
    };
    return is_there(top_log_folder) && is_there(folder_of_captures);
}

void CaptureTree::PickNextIndex() {
    Found found = FindLatestFolder();
    next_folder_idx = found.path.empty() ? 0 : found.idx + 1;
    if (!latest_folder_path.empty()) {
        if (found.path.empty()) {
            QUARN_LOGI("file_io: latest folder idx not found");
        } else {
            QUARN_LOGI("file_io: find latest idx=%u", found.idx);
        }
        return;
    }
    latest_folder_path = std::move(found.path);
    if (latest_folder_path.empty()) {
        QUARN_LOGI("file_io: latest folder not found");
    } else {
        QUARN_LOGI("file_io: find latest folder=%s, idx=%u", latest_folder_path.c_str(), found.idx);
    }
}

CaptureTree::Found CaptureTree::FindLatestFolder() const {
    Found unfinished, any;
    OpenFolder entries(folder_of_captures);
    while (const char* const entry = entries.next()) {
        const std::string_view name = entry;
        if (name.find(log_names::kPrefix) == std::string_view::npos) continue;
        const std::optional<uint32_t> idx = log_names::IndexOf(name);
        if (!idx) {
            QUARN_LOGE("%s", name.find('_') == std::string_view::npos
                                 ? "file_io: not found first _"
                                 : "file_io: not found second _");
            continue;
        }
        if (any.path.empty() || *idx >= any.idx) any = {folder_of_captures + "/" + entry, *idx};
        if (log_names::IsUnfinished(name) && *idx >= unfinished.idx) {
            unfinished = {folder_of_captures + "/" + entry, *idx};
        }
    }
    return unfinished.path.empty() ? any : unfinished;
}

std::string CaptureTree::FindLatestFile(const std::string& in_folder) {
    QUARN_LOGI("file_io: latest foler path=%s", in_folder.c_str());
    OpenFolder entries(in_folder);
    while (const char* const entry = entries.next()) {
        if (std::string_view(entry).find(log_names::kOpenEnding) == std::string_view::npos)
            continue;
        std::string path = in_folder + "/" + entry;
        QUARN_LOGI("file_io: find latest file=%s", path.c_str());
        return path;
    }
    QUARN_LOGW("file_io: cannot find latest file");
    return {};
}

void CaptureTree::FinishLatestFolder() {
    // The paths are equal if the previous folder was deleted and the new one has got its name.
    if (latest_folder_path.empty() || latest_folder_path == folder_path) return;
    const std::string finished = log_names::FinishedFolder(latest_folder_path);
    if (RenameFolder(latest_folder_path, finished)) {
        QUARN_LOGI("file_io: rename log folder %s to %s", latest_folder_path.c_str(),
                   finished.c_str());
        latest_folder_path = finished;
    }
    std::string file = FindLatestFile(latest_folder_path);
    // Otherwise `last_file_path` may still be a file of an older capture without a final name.
    if (!file.empty()) last_file_path = std::move(file);
}

bool CaptureTree::RenameFolder(const std::string& from, const std::string& to) {
    LockFolderNames();
    const bool renamed = rename(from.c_str(), to.c_str()) == 0;
    if (renamed) {
        sync.FolderChanged(FolderOf(to));
        sync.FolderChanged(to);  // a sync that is still due knows only the old name
    }
    UnlockFolderNames();
    if (!renamed) {
        QUARN_LOGE("file_io: rename log folder %s to %s fail", from.c_str(), to.c_str());
    }
    return renamed;
}

void CaptureTree::LockFolderNames() {
    folder_name_mutex.lock();
    QUARN_LOGD("file_io: lock the change of folder name");
}

void CaptureTree::UnlockFolderNames() {
    QUARN_LOGD("file_io: unlock the change of folder name");
    folder_name_mutex.unlock();
}

bool CaptureTree::MarkException(const std::string& suffix) {
    if (!is_open() || suffix.find(log_names::kException) == std::string::npos ||
        log_names::HasException(folder_path)) {
        return false;
    }
    const std::string marked = folder_path + suffix;
    if (!RenameFolder(folder_path, marked)) return false;
    if (!latest_folder_path.empty()) latest_folder_path = marked;
    // `last_file_path` may still be a file of the previous capture; it does not change then.
    log_names::FollowRename(last_file_path, folder_path, marked);
    folder_path = marked;
    return true;
}

bool CaptureTree::HasItsFolder() const {
    struct stat named, made;
    if (stat(folder_path.c_str(), &named) != 0 || !S_ISDIR(named.st_mode)) return false;
    // While the folder is open, no other folder can get its inode number. If it could not be
    // opened, only the name is compared.
    return fstat(folder_fd.get(), &made) != 0 ||
           (named.st_dev == made.st_dev && named.st_ino == made.st_ino);
}

bool CaptureTree::IsReadyForFile() const {
    if (!is_open()) {
        QUARN_LOGE("file_io: open log_file fail, cur_folder_path is empty");
        return false;
    }
    if (!quarn_check_dir_exist(folder_path.c_str())) {
        QUARN_LOGE("file_io: open log_file fail, cur_folder_path=%s not exist",
                   folder_path.c_str());
        return false;
    }
    if (!HasItsFolder()) {
        QUARN_LOGE("file_io: open log_file fail, cur_folder_path=%s is another folder",
                   folder_path.c_str());
        return false;
    }
    return true;
}

std::string CaptureTree::NextFilePath(const std::string& suffix) const {
    return folder_path + "/" + log_names::OpenFileName(next_file_idx, time(nullptr), suffix);
}

void CaptureTree::FileOpened(const std::string& path) {
    FinishLastFile();
    last_file_path = path;
    ++next_file_idx;
    sync.FolderChanged(folder_path);
}

void CaptureTree::FinishLastFile() {
    if (last_file_path.empty()) return;
    const std::string finished = log_names::FinishedFile(last_file_path);
    if (rename(last_file_path.c_str(), finished.c_str()) == 0) {
        sync.FolderChanged(FolderOf(finished));
        QUARN_LOGI("file_io: rename log file %s to %s", last_file_path.c_str(), finished.c_str());
    } else {
        QUARN_LOGE("file_io: rename log file %s to %s fail", last_file_path.c_str(),
                   finished.c_str());
    }
}

void CaptureTree::FileVanished(const std::string& path) {
    if (last_file_path == path) last_file_path.clear();
}

void CaptureTree::End() {
    time_of_folder = 0;
    folder_path.clear();
    folder_fd.reset();
}

}  // namespace quarn::zorvex
