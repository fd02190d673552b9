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
constexpr off_t kMaxHistorySize = 102400;  // bytes; above it the file is cut
constexpr mode_t kHistoryMode = 0644;
constexpr int kOpenFlags = O_CLOEXEC | O_NONBLOCK;  // waits for nobody, should it be a pipe

std::mutex history_mutex;  // around every open of the file

// Reads what may hold the last `n` records: a record is a path, so no more than that much of the
// file's end is ever looked at, however large the file is. Returns nothing when it cannot be read.
std::optional<std::string> ReadHistoryTail(int fd, int n) {
    const off_t tail_size = static_cast<off_t>(n) * (PATH_MAX + 1);
    const off_t size = lseek(fd, 0, SEEK_END);
    if (size < 0) return std::nullopt;  // a pipe
    const off_t start = std::max<off_t>(0, size - tail_size);
    lseek(fd, start, SEEK_SET);
    std::string tail(static_cast<size_t>(size - start), '\0');
    if (!android::base::ReadFully(fd, tail.data(), tail.size())) return std::nullopt;
    if (start > 0) tail.erase(0, std::min(tail.size(), tail.find('\n') + 1));
    return tail;
}

// The last `n` records; nothing when the file cannot be read. REQUIRES: history_mutex is held.
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

// On failure the file stays as it is, and the next capture tries again.
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
    // Cut and append take the mutex one after the other; a reader in between finds the shorter
    // file.
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
        // A piece of a record would run into the next one.
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
