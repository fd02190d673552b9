#include "storage/log_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "platform/quarn_log.h"
#include "storage/append_undo.h"
#include "storage/log_file_header.h"
#include "storage/log_names.h"

namespace quarn::zorvex {

namespace {

constexpr mode_t kMode = 0775;
constexpr int kOpenAttempts = 3;
constexpr auto kOpenPause = std::chrono::seconds(1);

}  // namespace

bool LogFile::Open(const std::function<std::string()>& next_path) {
    for (int attempt = 1;; ++attempt) {
        file_path = next_path();
        // O_EXCL: if a pipe, a link or a file of that name exists, open() fails. It does not wait
        // for the pipe, follow the link or append to the file. The next attempt has another name,
        // since the name contains the time.
        channel.fd =
            open(file_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, kMode);
        if (is_open()) break;
        const int error = errno;
        if (error == EEXIST || attempt == kOpenAttempts) {
            QUARN_LOGE("file_io: open log_file=%s fail, errno=%s", file_path.c_str(),
                       strerror(error));
        }
        if (attempt == kOpenAttempts) return false;
        std::this_thread::sleep_for(kOpenPause);
    }
    QUARN_LOGI("file_io: open log_file=%s (fd=%d)", file_path.c_str(), channel.fd.load());
    return true;
}

bool LogFile::WriteHeader(time_t folder_time, uint32_t file_idx) {
    const LogFileHeader header(folder_time, file_idx);
    if (!header.has_modem_info()) QUARN_LOGE("file_io: no modem info");
    if (header.Write(channel.fd) != 0) {
        QUARN_LOGE("file_io: write log_file=%s header fail", file_path.c_str());
        return false;
    }
    header_length = lseek(channel.fd, 0, SEEK_END);
    return true;
}

LogFile::Appended LogFile::Append(std::string_view bytes) {
    const AppendUndo undo(channel.fd);
    const int taken = channel.common_write(bytes.data(), static_cast<int>(bytes.size()));
    sync.Written(channel.fd, file_path);  // also after a failure, which may leave whole blocks
    if (taken >= 0) {
        file_written += static_cast<uint32_t>(taken);
        return {.whole = true};
    }
    if (undo.Undo()) return {};
    QUARN_LOGE("file_io: cut log_file=%s fail, errno=%s", file_path.c_str(), strerror(errno));
    return {.partly_written = true, .stayed = undo.Stayed()};
}

bool LogFile::HasVanished() const {
    struct stat status;
    return is_open() && fstat(channel.fd, &status) == 0 && status.st_nlink == 0;
}

off_t LogFile::BytesCut() const {
    return header_length + off_t{file_written} - lseek(channel.fd, 0, SEEK_END);
}

void LogFile::FolderRenamed(const std::string& from, const std::string& to) {
    log_names::FollowRename(file_path, from, to);
}

bool LogFile::Close() {
    const bool vanished = HasVanished();
    if (vanished) {
        QUARN_LOGW("file_io: log_file=%s was deleted, %lld bytes went with it", file_path.c_str(),
                   static_cast<long long>(lseek(channel.fd, 0, SEEK_END)));
    } else if (const off_t lost = is_open() ? BytesCut() : 0; lost > 0) {
        QUARN_LOGW("file_io: log_file=%s was cut, %lld bytes went with it", file_path.c_str(),
                   static_cast<long long>(lost));
    }
    if (!is_open()) {
        QUARN_LOGE("file_io: log_file=%s is not open!",
                   file_path.empty() ? "null" : file_path.c_str());
    } else {
        if (close(channel.fd) == 0) {
            QUARN_LOGI("file_io: close log_file=%s (fd=%d)", file_path.c_str(), channel.fd.load());
        } else {
            QUARN_LOGE("file_io: close log_file=%s (fd=%d) failed, errno=%s", file_path.c_str(),
                       channel.fd.load(), strerror(errno));
        }
        channel.fd = -1;
        sync.Finished();
    }
    file_written = 0;
    header_length = 0;
    file_path.clear();
    return vanished;
}

}  // namespace quarn::zorvex
