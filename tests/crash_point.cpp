// Loaded into the daemon's process: ends it, as kill -9 would, at the N-th call that changes what
// is below the daemon's folder. CRASH_POINT=N says which; an odd N ends it before the call, an even
// one behind it, and a long write is cut at a page in any case.
#include <dlfcn.h>
#include <fcntl.h>
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

constexpr const char* kFolder = "/data/vendor/radio/quarn";
constexpr size_t kPage = 4096;

std::atomic<int> calls{0};

template <typename Function>
Function* Real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void Die() { kill(getpid(), SIGKILL); }

int Wanted() {
    static const char* const text = getenv("CRASH_POINT");
    return text != nullptr ? atoi(text) : 0;
}

// Whether this call is the one.
bool IsPoint(const char* path) {
    return strncmp(path, kFolder, strlen(kFolder)) == 0 && ++calls == Wanted();
}
bool IsPoint(int fd) {
    char link[32];
    char path[PATH_MAX] = "";
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    return readlink(link, path, sizeof(path) - 1) > 0 && IsPoint(path);
}

template <typename Call>
auto Around(bool is_point, Call call) {
    if (is_point && Wanted() % 2 != 0) Die();
    const auto result = call();
    if (is_point) Die();
    return result;
}

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
    static const auto real = Real<int(const char*, int, ...)>("open");
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    const bool changes = (flags & (O_CREAT | O_TRUNC)) != 0;
    return Around(changes && IsPoint(path), [&] { return real(path, flags, mode); });
}

ssize_t write(int fd, const void* buf, size_t len) {
    static const auto real = Real<ssize_t(int, const void*, size_t)>("write");
    const bool is_point = Wanted() != 0 && IsPoint(fd);
    const size_t cut = len > kPage ? len / 2 / kPage * kPage : len;
    return Around(is_point, [&] { return real(fd, buf, is_point ? cut : len); });
}

int mkdir(const char* path, mode_t mode) noexcept {
    static const auto real = Real<int(const char*, mode_t)>("mkdir");
    return Around(IsPoint(path), [&] { return real(path, mode); });
}

int rename(const char* from, const char* to) noexcept {
    static const auto real = Real<int(const char*, const char*)>("rename");
    return Around(IsPoint(from), [&] { return real(from, to); });
}

int unlink(const char* path) noexcept {
    static const auto real = Real<int(const char*)>("unlink");
    return Around(IsPoint(path), [&] { return real(path); });
}

int rmdir(const char* path) noexcept {
    static const auto real = Real<int(const char*)>("rmdir");
    return Around(IsPoint(path), [&] { return real(path); });
}

}  // extern "C"
