#include "control/copy_log_file.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <limits>
#include <sstream>
#include <string_view>
#include <vector>

#include "control/protocol.h"
#include "core/quarn_global.h"
#include "core/system_utility.h"
#include "datapath/quarn_io.h"
#include "modem/log_flush.h"
#include "platform/quarn_log.h"
#include "storage/folder_history.h"
#include "storage/log_names.h"
#include "storage/power_on_log.h"
#include "storage/quarn_file_io.h"

namespace quarn::zorvex {

namespace {

using android::base::unique_fd;

constexpr const char* kLogFolder = "/data/vendor/radio/quarn/logs";
constexpr const char* kListName = "copied_folder_list";
constexpr const char* kListHeader = "List from oldest to newest";

// A client may have put a pipe or a link in place of a file. O_NONBLOCK keeps `open` from waiting
// for the other end of a pipe. O_NOFOLLOW refuses a link, which may lead to a file that the client
// itself may not write to.
constexpr int kOpenFlags = O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW;
constexpr mode_t kFolderMode = 0777;
constexpr mode_t kFileMode = 0644;
constexpr long kMaxLimitMb = 2047;
constexpr int kBytesPerMb = 1024 * 1024;

// The results of `CopyFile`.
constexpr int kNotOpened = 0;
constexpr int kNotCopied = 1;
constexpr int kCopied = 2;

// --- one file ---

// Owns a descriptor. The destructor closes it, and logs an error if that fails.
class OpenFile {
  public:
    // `opened` is the result of `open`. If `open` failed, logs the error with errno.
    OpenFile(const std::string& file_path, int opened) : path(file_path), fd(opened) {
        if (fd < 0) {
            QUARN_LOGE("%s: Error opening file %s: %s", "CopyFile", path.c_str(), strerror(errno));
        }
    }
    ~OpenFile() {
        if (fd >= 0 && close(fd) != 0) {
            QUARN_LOGE("%s: Error closing file %s: %s", "CopyFile", path.c_str(), strerror(errno));
        }
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    bool is_open() const { return fd >= 0; }
    int get() const { return fd; }

  private:
    const std::string path;
    const int fd;
};

// Returns true if the kernel cannot copy between these two file systems.
bool IsUnsupported(int error) {
    return error == EXDEV || error == EINVAL || error == ENOSYS || error == EOPNOTSUPP;
}

bool IsSame(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Makes one attempt to copy the first `size` bytes. Returns the number of bytes copied, or -1 with
// errno set.
ssize_t CopyRange(int source, int destination, size_t size) {
    off64_t from = 0;
    off64_t to = 0;
    const ssize_t copied = copy_file_range(source, &from, destination, &to, size, 0);
    if (copied >= 0 || !IsUnsupported(errno)) return copied;
    off64_t start = 0;
    return sendfile64(destination, source, &start, size);
}

// Does the work of `CopyFile`. The destination is the file `name` in the open folder `folder`;
// `destination` is its path for messages.
int CopyFileInto(int folder, const std::string& name, const std::string& source,
                 const std::string& destination, int& copied) {
    copied = 0;
    const OpenFile from(source, open(source.c_str(), O_RDONLY | kOpenFlags));
    if (!from.is_open()) return kNotOpened;
    const OpenFile to(destination,
                      openat(folder, name.c_str(), O_WRONLY | O_CREAT | kOpenFlags, kFileMode));
    if (!to.is_open()) return kNotOpened;
    struct stat status;
    if (fstat(from.get(), &status) != 0) {
        QUARN_LOGD("%s: Error getting state %s: %s", "CopyFile", source.c_str(), strerror(errno));
        return kNotCopied;
    }
    // The destination may be the log file itself, under another name. So it is emptied only after
    // this check.
    struct stat target;
    if (fstat(to.get(), &target) == 0 && IsSame(target, status)) {
        QUARN_LOGE("%s: Error copying file %s: %s", "CopyFile", source.c_str(),
                   "it is the destination itself");
        return kNotCopied;
    }
    if (ftruncate(to.get(), 0) != 0) {
        QUARN_LOGE("%s: Error copying file %s: %s", "CopyFile", source.c_str(), strerror(errno));
        return kNotCopied;
    }
    // The kernel copies less than 2 GiB in one call, so an int holds the result.
    const ssize_t moved = CopyRange(from.get(), to.get(), static_cast<size_t>(status.st_size));
    copied = static_cast<int>(moved);
    if (moved < 0) {
        QUARN_LOGE("%s: Error copying file %s: %s", "CopyFile", source.c_str(), strerror(errno));
        return kNotCopied;
    }
    if (moved < status.st_size) {
        QUARN_LOGW("CopyLogFile: copy log file with less bytes than expected");
    }
    QUARN_LOGI("CopyLogFile: copy log file from %s to %s", source.c_str(), destination.c_str());
    return kCopied;
}

// --- one folder ---

// The log files of a folder. Owns the entries that `scandir` allocates.
class ScannedFolder {
  public:
    explicit ScannedFolder(const std::string& path)
        : count(scandir(path.c_str(), &entries, FilterByMDMCULogPrefix, SortBySerialNumber)) {
        if (count < 0) {
            QUARN_LOGD("CopyLogFile: cannot scan files in %s", path.c_str());
        } else if (count == 0) {
            QUARN_LOGD("CopyLogFile: no files in %s", path.c_str());
        }
    }
    ~ScannedFolder() {
        if (count < 0) return;
        for (int i = 0; i < count; ++i) free(entries[i]);
        free(entries);
    }
    ScannedFolder(const ScannedFolder&) = delete;
    ScannedFolder& operator=(const ScannedFolder&) = delete;

    bool empty() const { return count <= 0; }
    std::vector<std::string> names() const {
        std::vector<std::string> found;
        if (!empty()) found.reserve(static_cast<size_t>(count));
        for (int i = 0; i < count; ++i) found.emplace_back(entries[i]->d_name);
        return found;
    }

  private:
    dirent** entries = nullptr;
    const int count;  // negative: the folder could not be read
};

// While this lock is held, no capture folder is renamed.
class FolderNameLock {
  public:
    explicit FolderNameLock(QUARN_FILE_IO& storage) : file_io(storage) {
        file_io.acquire_folder_name_lock();
    }
    ~FolderNameLock() { file_io.release_folder_name_lock(); }
    FolderNameLock(const FolderNameLock&) = delete;
    FolderNameLock& operator=(const FolderNameLock&) = delete;

  private:
    QUARN_FILE_IO& file_io;
};

// Returns the path that the folder of this record has now. A record holds the name of a finished
// capture without an exception; other captures have a suffix. REQUIRES: folder_name_mutex is held.
std::string FindFolder(const std::string& record) {
    for (const std::string_view suffix : {std::string_view(), log_names::kUnfinished,
                                          log_names::kUnfinishedException, log_names::kException}) {
        std::string path = record + std::string(suffix);
        if (quarn_check_dir_exist(path.c_str())) return path;
    }
    return record;
}

enum class Walk { kGoesOn, kEnded };

// Copies the files `names`, newest first, until one does not fit into the remaining `room` bytes.
// `copied` gets the number of bytes copied. `destination` is the path of the open folder `folder`.
Walk CopyFiles(const std::vector<std::string>& names, const std::string& source, int folder,
               const std::string& destination, int64_t room, int64_t& copied) {
    for (const std::string& name : names) {
        const std::string path = source + "/" + name;
        struct stat status;
        if (stat(path.c_str(), &status) != 0) {
            QUARN_LOGD("CopyLogFile: the log file %s is removed or renamed", path.c_str());
            continue;
        }
        if (status.st_size + copied > room) return Walk::kEnded;
        // The copy of the file that is still being written keeps its suffix ".tmp": the suffix
        // shows that the copy is not complete.
        int file_copied = 0;
        if (CopyFileInto(folder, name, path, destination + "/" + name, file_copied) == kCopied) {
            copied += file_copied;
        }
    }
    return Walk::kGoesOn;
}

// What has been copied so far.
struct Copies {
    int64_t total = 0;  // bytes
    int64_t limit;
    std::deque<std::string> records;  // of the copied folders, oldest first
};

Walk CopyLogFileFromFolder(const std::string& record, const std::string& directory,
                           Copies& copies) {
    const std::string source = FindFolder(record);
    const ScannedFolder scanned(source);
    if (scanned.empty()) return Walk::kGoesOn;
    const std::string destination = directory + "/" + std::string(log_names::LastComponent(source));
    if (mkdir(destination.c_str(), kFolderMode) != 0) {
        QUARN_LOGE("%s: Error creating folder %s: %s", "CopyLogFileFromFolder", destination.c_str(),
                   strerror(errno));
    }
    // A program that may write to the directory may have put a link in place of the folder.
    const unique_fd folder(
        open(destination.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (folder < 0) {
        QUARN_LOGE("%s: Error opening folder %s: %s", "CopyLogFileFromFolder", destination.c_str(),
                   strerror(errno));
        return Walk::kGoesOn;
    }
    int64_t copied = 0;
    const Walk walk = CopyFiles(scanned.names(), source, folder, destination,
                                copies.limit - copies.total, copied);
    copies.total += copied;
    copies.records.push_front(record);
    return walk;
}

bool DumpCopiedFolderHistory(const std::string& path, const std::deque<std::string>& records) {
    std::string text = std::string(kListHeader) + "\n";
    for (const std::string& record : records) text += record + "\n";
    const unique_fd fd(open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | kOpenFlags, kFileMode));
    if (fd < 0) {
        QUARN_LOGE("%s: Error opening file: %s", "DumpCopiedFolderHistory", strerror(errno));
        return false;
    }
    if (!android::base::WriteStringToFd(text, fd)) {
        QUARN_LOGE("%s: Error writing file: %s", "DumpCopiedFolderHistory", strerror(errno));
        return false;
    }
    return true;
}

// --- the request ---

std::vector<std::string> SplitWords(const char* text) {
    std::istringstream stream(text != nullptr ? text : "");
    std::vector<std::string> words;
    for (std::string word; stream >> word;) words.push_back(word);
    return words;
}

// Returns true if the directory is a log folder or lies in one, also through links. Both the top
// log folder and the current one count. Also returns true if the directory's path cannot be
// resolved.
bool LiesInLogFolder(const std::string& directory) {
    std::string path;
    if (!android::base::Realpath(directory, &path)) return true;
    for (const std::string& folder : {std::string(kLogFolder), g_file_io.get_log_folder()}) {
        std::string log_path;
        if (android::base::Realpath(folder, &log_path) &&
            (path + "/").starts_with(log_path + "/")) {
            return true;
        }
    }
    return false;
}

bool IsUsableDirectory(const std::string& directory) {
    struct stat status;
    if (stat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        QUARN_LOGE("CopyLogFile: invalid directory %s", directory.c_str());
        return false;
    }
    if (LiesInLogFolder(directory)) {
        QUARN_LOGE("CopyLogFile: directory %s lies in the log folder", directory.c_str());
        return false;
    }
    if (access(directory.c_str(), W_OK) != 0) {
        QUARN_LOGE("CopyLogFile: no write permission to %s", directory.c_str());
        return false;
    }
    return true;
}

// Reads a number of MB. `limit` gets the number of bytes.
bool ParseLimit(const std::string& word, int& limit) {
    char* end = nullptr;
    errno = 0;
    const long mb = strtol(word.c_str(), &end, 10);
    if (errno != 0 || end == word.c_str() || *end != '\0' || mb < 1 || mb > kMaxLimitMb) {
        QUARN_LOGE("CopyLogFile: invalid parameter %s", word.c_str());
        return false;
    }
    limit = static_cast<int>(mb) * kBytesPerMb;
    return true;
}

int ReplyError(char* ack) {
    if (ack == nullptr) {
        QUARN_LOGE("CopyLogFile: invalid ack pointer");
    } else if (snprintf(ack, protocol::kReplySize, "error") < 0) {
        QUARN_LOGE("CopyLogFile: snprintf failed");
    }
    return -1;
}

}  // namespace

int HandleCommandCopyLogFile(const char* arg, char* ack) {
    const std::vector<std::string> words = SplitWords(arg);
    if (words.size() != 3) {
        QUARN_LOGE("CopyLogFile: invalid parameter counts");
        return ReplyError(ack);
    }
    const std::string& directory = words[0];
    const std::string& flag = words[2];
    // All three words are checked even if one is wrong, so that the log shows every mistake.
    bool valid = IsUsableDirectory(directory);
    int limit = 0;
    valid = ParseLimit(words[1], limit) && valid;
    if (flag != "0" && flag != "1") {
        QUARN_LOGE("CopyLogFile: invalid parameter %s", flag.c_str());
        return ReplyError(ack);
    }
    if (!valid || ack == nullptr) return ReplyError(ack);

    const int copied = CopyLatestLogFile(directory, limit, flag == "1");
    if (snprintf(ack, protocol::kReplySize, "%s,%d", "ok", copied) < 0) {
        QUARN_LOGE("CopyLogFile: snprintf failed");
    }
    return 0;
}

int CopyLatestLogFile(const std::string& directory, int limit, bool flush_first) {
    if (flush_first) FlushLogBuffers();

    Copies copies{.limit = limit, .records = {}};
    int power_on_copied = 0;
    const std::string power_on_copy = directory + "/" + std::string(log_names::kPowerOnLog);
    if (CopyFile(kPowerOnLogPath, power_on_copy, power_on_copied) == kCopied) {
        copies.total = power_on_copied;
    }

    const std::deque<std::string> records = GetLatestHistoryRecord(kHistoryRecords);
    auto& storage = static_cast<QUARN_FILE_IO&>(*quarn_getSaveModeIo(SAVE_MODE_STORAGE));
    Walk walk = Walk::kGoesOn;
    for (auto record = records.rbegin(); record != records.rend() && walk == Walk::kGoesOn;
         ++record) {
        const FolderNameLock lock(storage);
        walk = CopyLogFileFromFolder(*record, directory, copies);
    }

    const std::string list = directory + "/" + kListName;
    if (DumpCopiedFolderHistory(list, copies.records)) {
        QUARN_LOGI("CopyLogFile: dump copied folder list to %s", list.c_str());
    } else {
        QUARN_LOGW("CopyLogFile: failed to dump copied folder list");
    }
    QUARN_LOGI("CopyLogFile: copied %d MB log files to %s",
               static_cast<int>(copies.total / kBytesPerMb), directory.c_str());
    return static_cast<int>(std::min<int64_t>(copies.total, std::numeric_limits<int>::max()));
}

int CopyFile(const std::string& source, const std::string& destination, int& copied) {
    return CopyFileInto(AT_FDCWD, destination, source, destination, copied);
}

int FilterByMDMCULogPrefix(const dirent* entry) {
    return std::string_view(entry->d_name).starts_with(log_names::kPrefix) ? 1 : 0;
}

namespace {

// Returns the first number that is directly followed by "_", or 0 if there is none.
int SerialNumber(std::string_view name) {
    const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
    const char* const end = name.data() + name.size();
    for (const char* at = name.data(); at != end;) {
        const char* const first = std::find_if(at, end, is_digit);
        at = std::find_if_not(first, end, is_digit);
        if (first == at || at == end || *at != '_') continue;
        int serial = 0;
        std::from_chars(first, at, serial);  // stays 0 if the number is too large
        return serial;
    }
    return 0;
}

}  // namespace

int SortBySerialNumber(const dirent** a, const dirent** b) {
    return SerialNumber((*b)->d_name) - SerialNumber((*a)->d_name);
}

}  // namespace quarn::zorvex
