#include "core/replace_file.h"

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

namespace quarn::zorvex {

namespace {

using android::base::unique_fd;

constexpr mode_t kModeBits = 07777;

mode_t ModeOf(const char* path, mode_t otherwise) {
    struct stat status;
    const bool is_file = stat(path, &status) == 0 && S_ISREG(status.st_mode);
    return is_file ? status.st_mode & kModeBits : otherwise;
}

bool SyncFolderOf(const std::string& path) {
    const std::string folder = path.substr(0, path.rfind('/') + 1) + ".";
    const unique_fd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd >= 0 && fsync(fd) == 0;
}

// Creates the file at `path`, fills it with `write` and syncs it.
Replaced WriteNewFile(const std::string& path, mode_t mode,
                      const std::function<bool(int fd)>& write) {
    unlink(path.c_str());  // a process that was killed may have left one
    unique_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (fd < 0) return Replaced::kNotCreated;
    fchmod(fd, mode);  // `open` leaves out the bits of the umask
    if (!write(fd) || fsync(fd) != 0) return Replaced::kNotWritten;
    return close(fd.release()) == 0 ? Replaced::kDone : Replaced::kNotClosed;
}

}  // namespace

Replaced ReplaceFile(const char* path, mode_t mode, const std::function<bool(int fd)>& write) {
    const std::string new_path = std::string(path) + ".new";
    Replaced result = WriteNewFile(new_path, ModeOf(path, mode), write);
    if (result == Replaced::kDone && rename(new_path.c_str(), path) != 0) {
        result = Replaced::kNotWritten;
    }
    if (result == Replaced::kDone) {
        return SyncFolderOf(path) ? Replaced::kDone : Replaced::kFolderNotSynced;
    }
    const int error = errno;
    if (result != Replaced::kNotCreated) unlink(new_path.c_str());
    errno = error;
    return result;
}

}  // namespace quarn::zorvex
