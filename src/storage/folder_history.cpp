#include "storage/folder_history.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <optional>

#include "core/replace_file.h"
#include "platform/quarn_log.h"
#include "storage/append_undo.h"

namespace quarn::zorvex {

namespace {

using android::base::unique_fd;

constexpr const char* kHistoryPath = "/data/vendor/radio/quarn/log_folder_history";
constexpr off_t kMaxHistorySize = 102400;  // bytes; a larger file is cut
constexpr mode_t kHistoryMode = 0644;
constexpr int kOpenFlags = O_CLOEXEC | O_NONBLOCK;  // does not block if the path is a pipe

// Held while the file is open.
std::mutex history_mutex;

// Reads the end of the file, as much as `n` paths of the largest length need. So the size of the
// file does not matter. Returns nothing if the file cannot be read.
std::optional<std::string> ReadHistoryTail(int fd, int n) {
    const off_t tail_size = static_cast<off_t>(n) * (PATH_MAX + 1);
    const off_t size = lseek(fd, 0, SEEK_END);
    if (size < 0) return std::nullopt;  // the path is a pipe
    const off_t start = std::max<off_t>(0, size - tail_size);
    lseek(fd, start, SEEK_SET);
    std::string tail(static_cast<size_t>(size - start), '\0');
    if (!android::base::ReadFully(fd, tail.data(), tail.size())) return std::nullopt;
    if (start > 0) tail.erase(0, std::min(tail.size(), tail.find('\n') + 1));
    return tail;
}

// Returns the last `n` records, or nothing if the file cannot be read.
// REQUIRES: history_mutex is held.
std::optional<std::deque<std::string>> ReadLatestRecords(int n) {
    const unique_fd fd(open(kHistoryPath, O_RDONLY | kOpenFlags));
    if (fd < 0) {
        QUARN_LOGE("%s: Error opening file: %s", "GetLatestHistoryRecord", strerror(errno));
        return std::nullopt;
    }
    const auto tail = ReadHistoryTail(fd, n);
    if (!tail) {
        QUARN_LOGE("%s: Error reading file: %s", "GetLatestHistoryRecord", strerror(errno));
        return std::nullopt;
    }
    std::deque<std::string> records;
    for (size_t start = 0; start < tail->size();) {
        const size_t end = std::min(tail->find('\n', start), tail->size());
        records.push_back(tail->substr(start, end - start));
        if (records.size() > static_cast<size_t>(n)) records.pop_front();
        start = end + 1;
    }
    return records;
}

// Replaces the file by one with its last records. On failure the file stays unchanged, and the next
// capture tries again.
void TruncateFolderHistory(off_t size) {
    QUARN_LOGD("CopyLogFile: truncate file due to size %ld over %ld", static_cast<long>(size),
               static_cast<long>(kMaxHistorySize));
    std::lock_guard lock(history_mutex);
    const auto records = ReadLatestRecords(kHistoryRecords);
    if (!records) return;
    std::string kept;
    for (const std::string& record : *records) kept += record + '\n';
    const Replaced result = ReplaceFile(kHistoryPath, kHistoryMode, [&](int fd) {
        return android::base::WriteStringToFd(kept, fd);
    });
    if (result == Replaced::kNotCreated) {
        QUARN_LOGE("%s: Error opening file: %s", "TruncateFolderHistory", strerror(errno));
    } else if (result != Replaced::kDone) {
        QUARN_LOGE("%s: Error writing file: %s", "TruncateFolderHistory", strerror(errno));
    } else {
        QUARN_LOGD("CopyLogFile: finish truncating file to keep last %d records", kHistoryRecords);
    }
}

}  // namespace

int32_t UpdateFolderHistory(const std::string& folder_path) {
    struct stat status;
    const bool existed = stat(kHistoryPath, &status) == 0;
    // The cut and the append lock the mutex separately. A reader that runs between them reads the
    // shorter file.
    if (existed && status.st_size > kMaxHistorySize) TruncateFolderHistory(status.st_size);

    std::lock_guard lock(history_mutex);
    const unique_fd fd(
        open(kHistoryPath, O_WRONLY | O_APPEND | O_CREAT | kOpenFlags, kHistoryMode));
    if (fd < 0) {
        QUARN_LOGE("%s: Error opening or creating file: %s", "UpdateFolderHistory",
                   strerror(errno));
        return -1;
    }
    const AppendUndo undo(fd);
    const bool recorded = android::base::WriteStringToFd(folder_path + '\n', fd);
    if (recorded) {
        QUARN_LOGD("CopyLogFile: record %s in the history file", folder_path.c_str());
    } else {
        QUARN_LOGE("%s: Error writing file: %s", "UpdateFolderHistory", strerror(errno));
        // The next record would be joined to a partly written one.
        if (!undo.Undo()) {
            QUARN_LOGE("CopyLogFile: cut the history file fail, errno=%s", strerror(errno));
        }
    }
    if (!existed && fchmod(fd, kHistoryMode) != 0) {
        QUARN_LOGE("%s: Error setting permission: %s\n", "UpdateFolderHistory", strerror(errno));
    }
    return recorded ? 0 : -1;
}

std::deque<std::string> GetLatestHistoryRecord(int n) {
    std::lock_guard lock(history_mutex);
    return ReadLatestRecords(n).value_or(std::deque<std::string>{});
}

}  // namespace quarn::zorvex
