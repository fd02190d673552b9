// A library that is preloaded into the daemon. Kills the process with SIGKILL at the N-th call that
// changes something below a folder.
//
// Environment:
//   CRASH_POINT   N. An odd N kills the process before the call, an even N after it. If the call is
//   a
//                 long write, only the first half of its pages is written.
//   CRASH_FOLDER  the folder; by default the daemon's folder
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kPage = 4096;

std::atomic<int> calls{0};

// Returns the C library's function, which the function of the same name in this file replaces.
#define REAL(call) reinterpret_cast<decltype(&(call))>(dlsym(RTLD_NEXT, #call))

void Die() { kill(getpid(), SIGKILL); }

int Wanted() {
    static const char* const text = getenv("CRASH_POINT");
    return text != nullptr ? atoi(text) : 0;
}

// Returns true if this call is the N-th one.
bool IsPoint(const char* path) {
    static const char* const wanted = getenv("CRASH_FOLDER");
    const char* const folder = wanted != nullptr ? wanted : "/data/vendor/radio/quarn";
    return strncmp(path, folder, strlen(folder)) == 0 && ++calls == Wanted();
}
bool IsPoint(int fd) {
    char link[32];
    char path[PATH_MAX] = "";
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    return readlink(link, path, sizeof(path) - 1) > 0 && IsPoint(path);
}

template <typename Function, typename... Arguments>
auto Around(bool is_point, Function* real, Arguments... arguments) {
    if (is_point && Wanted() % 2 != 0) Die();
    const auto result = real(arguments...);
    if (is_point) Die();
    return result;
}

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
    const bool is_point = (flags & (O_CREAT | O_TRUNC)) != 0 && IsPoint(path);
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return Around(is_point, REAL(open), path, flags, mode);
}

ssize_t write(int fd, const void* buf, size_t len) {
    const bool is_point = Wanted() != 0 && IsPoint(fd);
    if (is_point && len > kPage) len = len / 2 / kPage * kPage;
    return Around(is_point, REAL(write), fd, buf, len);
}

ssize_t sendfile(int out, int in, off_t* offset, size_t count) noexcept {
    const bool is_point = Wanted() != 0 && IsPoint(out);
    return Around(is_point, REAL(sendfile), out, in, offset, count);
}

int fsync(int fd) { return Around(Wanted() != 0 && IsPoint(fd), REAL(fsync), fd); }

int mkdir(const char* path, mode_t mode) noexcept {
    return Around(IsPoint(path), REAL(mkdir), path, mode);
}

int rename(const char* from, const char* to) noexcept {
    return Around(IsPoint(from), REAL(rename), from, to);
}

int unlink(const char* path) noexcept { return Around(IsPoint(path), REAL(unlink), path); }

int rmdir(const char* path) noexcept { return Around(IsPoint(path), REAL(rmdir), path); }

}  // extern "C"
