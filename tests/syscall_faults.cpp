#include "syscall_faults.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
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
using test::FailCalls;
using test::Fault;

// Without a fault, a call checks only this counter.
std::atomic<int> armed_count{0};
std::mutex armed_mutex;
std::vector<FailCalls*> armed;
std::condition_variable disarmed;

// Returns the path of the file or the name of the socket that `fd` refers to.
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

// Returns the fault that applies to this call, if any.
template <typename Target>
std::optional<Fault> Meets(Call call, Target target) {
    if (armed_count == 0) return {};
    const std::string name = NameOf(target);
    std::lock_guard lock(armed_mutex);
    for (auto entry = armed.rbegin(); entry != armed.rend(); ++entry) {
        const Fault& fault = (*entry)->fault;
        if (fault.call != call || name.find(fault.where) == std::string::npos) continue;
        const int number = (*entry)->seen++;
        if (number < fault.after || number - fault.after >= fault.count) continue;
        if (fault.error == test::kEndsProcess) kill(getpid(), SIGKILL);
        return fault;
    }
    return {};
}

void WaitWhileItHangs(Call call) {
    std::unique_lock lock(armed_mutex);
    disarmed.wait(lock, [call] {
        return std::none_of(armed.begin(), armed.end(), [call](const FailCalls* entry) {
            return entry->fault.hang && entry->fault.call == call;
        });
    });
}

// Returns true and sets errno if the call must fail.
template <typename Target>
bool Fails(Call call, Target target) {
    const auto fault = Meets(call, target);
    if (fault && fault->hang) {
        WaitWhileItHangs(call);
        return false;
    }
    if (fault) errno = fault->error;
    return fault.has_value();
}

// Returns the function of that name that the function in this file replaces.
template <auto* kOwn>
decltype(kOwn) Real(const char* name) {
    static const auto real = reinterpret_cast<decltype(kOwn)>(dlsym(RTLD_NEXT, name));
    return real;
}

}  // namespace

namespace test {

FailCalls::FailCalls(Fault what) : fault(what) {
    std::lock_guard lock(armed_mutex);
    armed.push_back(this);
    ++armed_count;
}

FailCalls::~FailCalls() {
    std::lock_guard lock(armed_mutex);
    std::erase(armed, this);
    --armed_count;
    disarmed.notify_all();
}

int FailCalls::failed() const {
    std::lock_guard lock(armed_mutex);
    return std::clamp(seen - fault.after, 0, fault.count);
}

}  // namespace test

// These functions replace those of the C library, and those of a sanitizer.
extern "C" {

int open(const char* path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return Fails(Call::kOpen, path) ? -1 : Real<open>("open")(path, flags, mode);
}

FILE* fopen(const char* path, const char* mode) {
    return Fails(Call::kOpen, path) ? nullptr : Real<fopen>("fopen")(path, mode);
}

DIR* opendir(const char* path) {
    return Fails(Call::kOpenFolder, path) ? nullptr : Real<opendir>("opendir")(path);
}

ssize_t read(int fd, void* buf, size_t len) {
    if (const auto got = test::ReadShiftedTimer(fd, buf, len)) return *got;
    while (const auto fault = Meets(Call::kRead, fd)) {
        errno = fault->error;
        if (fault->error != EINTR || poll(nullptr, 0, 10) != 0) return -1;
    }
    return Real<read>("read")(fd, buf, len);
}

ssize_t write(int fd, const void* buf, size_t len) {
    auto fault = Meets(Call::kWrite, fd);
    if (fault && fault->hang) {
        WaitWhileItHangs(Call::kWrite);
        fault.reset();
    }
    if (!fault || fault->error == 0) {
        return Real<write>("write")(fd, buf, fault ? std::min(len, fault->limit) : len);
    }
    errno = fault->error;
    return -1;
}

off_t lseek(int fd, off_t offset, int whence) noexcept {
    return Fails(Call::kSeek, fd) ? -1 : Real<lseek>("lseek")(fd, offset, whence);
}

int ftruncate(int fd, off_t length) noexcept {
    return Fails(Call::kTruncate, fd) ? -1 : Real<ftruncate>("ftruncate")(fd, length);
}

int fsync(int fd) { return Fails(Call::kSync, fd) ? -1 : Real<fsync>("fsync")(fd); }

int close(int fd) {
    const bool fails = Fails(Call::kClose, fd);
    const int rc = Real<close>("close")(fd);
    return fails ? -1 : rc;
}

int fclose(FILE* file) {
    const bool fails = Fails(Call::kClose, fileno(file));
    const int rc = Real<fclose>("fclose")(file);
    return fails ? EOF : rc;
}

ssize_t sendfile(int out, int in, off_t* offset, size_t count) noexcept {
    return Fails(Call::kSendFile, out) ? -1 : Real<sendfile>("sendfile")(out, in, offset, count);
}

ssize_t copy_file_range(int in, off64_t* from, int out, off64_t* to, size_t len, unsigned flags) {
    const auto real = Real<copy_file_range>("copy_file_range");
    return Fails(Call::kCopyRange, out) ? -1 : real(in, from, out, to, len, flags);
}

int mkdir(const char* path, mode_t mode) noexcept {
    return Fails(Call::kMakeFolder, path) ? -1 : Real<mkdir>("mkdir")(path, mode);
}

int rename(const char* from, const char* to) noexcept {
    return Fails(Call::kRename, from) ? -1 : Real<rename>("rename")(from, to);
}

int unlink(const char* path) noexcept {
    return Fails(Call::kRemoveFile, path) ? -1 : Real<unlink>("unlink")(path);
}

int fdatasync(int fd) { return Fails(Call::kSync, fd) ? -1 : Real<fdatasync>("fdatasync")(fd); }

int syncfs(int fd) noexcept { return Fails(Call::kSyncAll, fd) ? -1 : Real<syncfs>("syncfs")(fd); }

int socket(int domain, int type, int protocol) noexcept {
    return Fails(Call::kSocket, "") ? -1 : Real<socket>("socket")(domain, type, protocol);
}

int listen(int fd, int backlog) noexcept {
    return Fails(Call::kListen, fd) ? -1 : Real<listen>("listen")(fd, backlog);
}

int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    return Fails(Call::kAccept, fd) ? -1 : Real<accept4>("accept4")(fd, address, length, flags);
}

int select(int count, fd_set* readable, fd_set* writable, fd_set* failed, timeval* limit) {
    if (writable != nullptr && Fails(Call::kSelect, "")) return -1;
    return Real<select>("select")(count, readable, writable, failed, limit);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* arg) noexcept {
    const auto fault = Meets(Call::kThread, "");
    if (fault) return fault->error;
    return Real<pthread_create>("pthread_create")(thread, attributes, body, arg);
}

}  // extern "C"
