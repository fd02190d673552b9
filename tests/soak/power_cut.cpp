// A library that is preloaded into the daemon. Records which bytes of the files below the daemon's
// folder would survive a power cut.
//
// Environment:
//   SYNC_NOTES     the file for the notes
//   SYNC_DELAY_MS  how long each sync of a file takes
//
// A note is one line: kind, steady clock in ns, inode, length. The kinds:
//   w  the file had this length after a write
//   s  this length of the file is on the disk
//   e  a name of this inode is on the disk
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <map>
#include <mutex>
#include <string>

namespace {

const std::string kFolder = "/data/vendor/radio/quarn";

// Returns the C library's function, which the function of the same name in this file replaces.
#define REAL(call) reinterpret_cast<decltype(&(call))>(dlsym(RTLD_NEXT, #call))

std::string PathOf(int fd) {
    char path[PATH_MAX] = "";
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    return readlink(link.c_str(), path, sizeof(path) - 1) > 0 ? path : "";
}

bool IsBelow(const std::string& path) { return path.starts_with(kFolder); }

std::mutex notes_mutex;
std::map<ino_t, off_t> written;  // lengths after the last write

std::string Line(char kind, ino_t inode, off_t length) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::string{kind, ' '} + std::to_string(now.tv_sec * 1'000'000'000 + now.tv_nsec) + " " +
           std::to_string(inode) + " " + std::to_string(length) + "\n";
}

void Note(const std::string& lines) {
    static const int fd =
        open(getenv("SYNC_NOTES"), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (REAL(write)(fd, lines.data(), lines.size()) < 0) abort();
}

void NoteWrite(int fd) {
    struct stat status;
    if (!IsBelow(PathOf(fd)) || fstat(fd, &status) != 0) return;
    std::lock_guard lock(notes_mutex);
    written[status.st_ino] = status.st_size;
    Note(Line('w', status.st_ino, status.st_size));
}

std::string Entries(const std::string& folder, bool all_below) {
    std::string lines;
    DIR* const dir = opendir(folder.c_str());
    while (const dirent* const entry = dir != nullptr ? readdir(dir) : nullptr) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        lines += Line('e', entry->d_ino, 0);
        if (all_below && entry->d_type == DT_DIR) lines += Entries(folder + "/" + name, true);
    }
    if (dir != nullptr) closedir(dir);
    return lines;
}

// What was written before a sync starts is on the disk when the sync ends, and not earlier.
int Sync(int (*real)(int), int fd, bool everything) {
    if (!IsBelow(PathOf(fd))) return real(fd);
    struct stat status;
    fstat(fd, &status);
    std::string lines;
    if (everything || S_ISDIR(status.st_mode)) {
        lines = Entries(everything ? kFolder : PathOf(fd), everything);
    }
    {
        std::lock_guard lock(notes_mutex);
        for (const auto& [inode, length] : written) {
            if (everything || inode == status.st_ino) lines += Line('s', inode, length);
        }
    }
    const char* const delay = getenv("SYNC_DELAY_MS");
    if (delay != nullptr && !S_ISDIR(status.st_mode)) {
        usleep(static_cast<useconds_t>(atoi(delay)) * 1000);
    }
    const int rc = real(fd);
    if (rc == 0) Note(lines);
    return rc;
}

}  // namespace

extern "C" {

ssize_t write(int fd, const void* buf, size_t len) {
    const ssize_t rc = REAL(write)(fd, buf, len);
    if (rc > 0) NoteWrite(fd);
    return rc;
}

int fdatasync(int fd) { return Sync(REAL(fdatasync), fd, false); }

int fsync(int fd) { return Sync(REAL(fsync), fd, false); }

int syncfs(int fd) noexcept { return Sync(REAL(syncfs), fd, true); }

}  // extern "C"
