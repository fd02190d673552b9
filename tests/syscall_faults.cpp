#include "syscall_faults.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/path_utility.h"
#include "shifted_clock.h"

namespace {

using test::Call;
using test::Fault;

struct Armed {
    const Fault* fault;
    int seen = 0;  // calls that fit
};

// Nothing but this is looked at while no fault lives.
std::atomic<int> armed_count{0};
std::mutex armed_mutex;
std::vector<Armed> armed;

// What a descriptor stands for: a path, or the name of a socket.
std::string NameOf(int fd) {
    sockaddr_un address = {};
    socklen_t length = sizeof(address);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        const size_t used = length - std::min<size_t>(length, sizeof(address.sun_family));
        return {address.sun_path, used};
    }
    std::array<char, PATH_MAX> path;
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t got = readlink(link.c_str(), path.data(), path.size());
    return got < 0 ? "" : std::string(path.data(), static_cast<size_t>(got));
}
std::string NameOf(const char* path) { return quarn::zorvex::NormalizePathSlash(path); }

// The fault that this call meets.
template <typename Target>
std::optional<Fault> Meets(Call call, Target target) {
    if (armed_count == 0) return {};
    const std::string name = NameOf(target);
    std::lock_guard lock(armed_mutex);
    for (auto entry = armed.rbegin(); entry != armed.rend(); ++entry) {
        const Fault& fault = *entry->fault;
        if (fault.call != call || name.find(fault.where) == std::string::npos) continue;
        const int number = entry->seen++;
        if (number >= fault.after && number - fault.after < fault.count) return fault;
    }
    return {};
}

// Sets errno when the call is to fail.
template <typename Target>
bool Fails(Call call, Target target) {
    const auto fault = Meets(call, target);
    if (fault) errno = fault->error;
    return fault.has_value();
}

template <typename Function>
Function* Real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

namespace test {

FailCalls::FailCalls(Fault what) : fault(what) {
    std::lock_guard lock(armed_mutex);
    armed.push_back({&fault});
    ++armed_count;
}

FailCalls::~FailCalls() {
    std::lock_guard lock(armed_mutex);
    std::erase_if(armed, [&](const Armed& entry) { return entry.fault == &fault; });
    --armed_count;
}

int FailCalls::failed() const {
    std::lock_guard lock(armed_mutex);
    const auto entry =
        std::find_if(armed.begin(), armed.end(), [&](const Armed& a) { return a.fault == &fault; });
    return std::clamp(entry->seen - fault.after, 0, fault.count);
}

}  // namespace test

// These stand before the C library's own, and before those that a sanitizer puts there.
extern "C" {

int open(const char* path, int flags, ...) {
    static const auto real = Real<int(const char*, int, ...)>("open");
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return Fails(Call::kOpen, path) ? -1 : real(path, flags, mode);
}

FILE* fopen(const char* path, const char* mode) {
    static const auto real = Real<FILE*(const char*, const char*)>("fopen");
    return Fails(Call::kOpen, path) ? nullptr : real(path, mode);
}

DIR* opendir(const char* path) {
    static const auto real = Real<DIR*(const char*)>("opendir");
    return Fails(Call::kOpenFolder, path) ? nullptr : real(path);
}

ssize_t read(int fd, void* buf, size_t len) {
    static const auto real = Real<ssize_t(int, void*, size_t)>("read");
    if (const auto got = test::ReadShiftedTimer(fd, buf, len)) return *got;
    return Fails(Call::kRead, fd) ? -1 : real(fd, buf, len);
}

ssize_t write(int fd, const void* buf, size_t len) {
    static const auto real = Real<ssize_t(int, const void*, size_t)>("write");
    const auto fault = Meets(Call::kWrite, fd);
    if (!fault) return real(fd, buf, len);
    if (fault->error == 0) return real(fd, buf, std::min(len, fault->limit));
    errno = fault->error;
    return -1;
}

off_t lseek(int fd, off_t offset, int whence) noexcept {
    static const auto real = Real<off_t(int, off_t, int)>("lseek");
    return Fails(Call::kSeek, fd) ? -1 : real(fd, offset, whence);
}

int ftruncate(int fd, off_t length) noexcept {
    static const auto real = Real<int(int, off_t)>("ftruncate");
    return Fails(Call::kTruncate, fd) ? -1 : real(fd, length);
}

int close(int fd) {
    static const auto real = Real<int(int)>("close");
    const auto fault = Meets(Call::kClose, fd);
    const int rc = real(fd);
    if (!fault) return rc;
    errno = fault->error;
    return -1;
}

int fclose(FILE* file) {
    static const auto real = Real<int(FILE*)>("fclose");
    const auto fault = Meets(Call::kClose, fileno(file));
    const int rc = real(file);
    if (!fault) return rc;
    errno = fault->error;
    return EOF;
}

ssize_t sendfile(int out, int in, off_t* offset, size_t count) noexcept {
    static const auto real = Real<ssize_t(int, int, off_t*, size_t)>("sendfile");
    return Fails(Call::kSendFile, out) ? -1 : real(out, in, offset, count);
}

ssize_t copy_file_range(int in, off64_t* from, int out, off64_t* to, size_t len, unsigned flags) {
    static const auto real =
        Real<ssize_t(int, off64_t*, int, off64_t*, size_t, unsigned)>("copy_file_range");
    return Fails(Call::kCopyRange, out) ? -1 : real(in, from, out, to, len, flags);
}

int mkdir(const char* path, mode_t mode) noexcept {
    static const auto real = Real<int(const char*, mode_t)>("mkdir");
    return Fails(Call::kMakeFolder, path) ? -1 : real(path, mode);
}

int rename(const char* from, const char* to) noexcept {
    static const auto real = Real<int(const char*, const char*)>("rename");
    return Fails(Call::kRename, from) ? -1 : real(from, to);
}

int unlink(const char* path) noexcept {
    static const auto real = Real<int(const char*)>("unlink");
    return Fails(Call::kRemoveFile, path) ? -1 : real(path);
}

int rmdir(const char* path) noexcept {
    static const auto real = Real<int(const char*)>("rmdir");
    return Fails(Call::kRemoveFolder, path) ? -1 : real(path);
}

int socket(int domain, int type, int protocol) noexcept {
    static const auto real = Real<int(int, int, int)>("socket");
    return Fails(Call::kSocket, "") ? -1 : real(domain, type, protocol);
}

int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
    static const auto real = Real<int(int, const sockaddr*, socklen_t)>("bind");
    return Fails(Call::kBind, "") ? -1 : real(fd, address, length);
}

int listen(int fd, int backlog) noexcept {
    static const auto real = Real<int(int, int)>("listen");
    return Fails(Call::kListen, fd) ? -1 : real(fd, backlog);
}

int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    static const auto real = Real<int(int, sockaddr*, socklen_t*, int)>("accept4");
    return Fails(Call::kAccept, fd) ? -1 : real(fd, address, length, flags);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* arg) noexcept {
    static const auto real =
        Real<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
    const auto fault = Meets(Call::kThread, "");
    return fault ? fault->error : real(thread, attributes, body, arg);
}

}  // extern "C"
