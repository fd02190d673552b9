#include "storage/power_on_log.h"

#include <android-base/file.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "core/named_thread.h"
#include "core/quarn_global.h"
#include "core/quarn_handle.h"
#include "modem/log_flush.h"
#include "platform/quarn_log.h"
#include "storage/append_undo.h"
#include "storage/log_file_header.h"
#include "storage/log_names.h"

namespace quarn::zorvex {

namespace {

static_assert(std::string_view(kPowerOnLogPath).ends_with(log_names::kPowerOnLog));

constexpr std::chrono::seconds kDuration(60);
constexpr int kSizeUnitShift = 21;        // a unit is 2 MiB
constexpr uint32_t kMaxSizeInUnits = 25;  // 50 MiB
constexpr mode_t kMode = 0644;
constexpr char kEnd = 0;  // the file's last byte

constexpr const char* kThreadEntry = "PowerOnEventDetectThreadEntry";

enum class State { kNotInitialised, kInitialised, kWriting, kStopped };

// A mutex that PowerOnLogStop may hold while it joins the event thread, although that thread locks
// the same mutex: while a stop holds it or waits for it, all other callers fail to lock it.
class PowerOnMutex {
  public:
    // For a stop: waits until no thread holds the mutex.
    void lock() {
        std::unique_lock guard(mutex);
        ++stops;
        changed.notify_all();
        changed.wait(guard, [this] { return holder == Holder::kNobody; });
        holder = Holder::kStop;
    }
    // For all other callers: waits until no thread holds the mutex, or until a stop begins. Returns
    // true if the mutex was locked, false if a stop has begun.
    bool lock_unless_stopping() {
        std::unique_lock guard(mutex);
        changed.wait(guard, [this] { return stops != 0 || holder == Holder::kNobody; });
        if (stops != 0) return false;
        holder = Holder::kOther;
        return true;
    }
    void unlock() {
        std::lock_guard guard(mutex);
        if (holder == Holder::kStop) --stops;
        holder = Holder::kNobody;
        changed.notify_all();
    }

  private:
    enum class Holder { kNobody, kStop, kOther };

    std::mutex mutex;
    std::condition_variable changed;
    Holder holder = Holder::kNobody;
    int stops = 0;  // calls of `lock` that hold the mutex or wait for it
};

using StopLock = std::lock_guard<PowerOnMutex>;

// Locks the mutex unless a stop has begun. Converts to true if it holds the mutex.
class UseLock {
  public:
    explicit UseLock(PowerOnMutex& power_on_mutex)
        : mutex(power_on_mutex), owned(mutex.lock_unless_stopping()) {}
    ~UseLock() {
        if (owned) mutex.unlock();
    }
    UseLock(const UseLock&) = delete;
    UseLock& operator=(const UseLock&) = delete;

    explicit operator bool() const { return owned; }

  private:
    PowerOnMutex& mutex;
    const bool owned;
};

struct PowerOnLog {
    PowerOnMutex mutex;  // guards the next four
    State state = State::kNotInitialised;
    int32_t fd = -1;
    uint32_t bytes_written = 0;  // without the header and the last byte
    std::thread event_thread;

    // The event thread holds it when it reads `running`, and a stop holds it when it clears
    // `running`. Locked after `mutex`.
    std::mutex wait_mutex;
    std::condition_variable wait_cond;
    std::atomic<bool> running{false};
};

// Never destroyed: while the process exits, a capture may still be closed and the event thread may
// still wait.
PowerOnLog& Module() {
    static PowerOnLog& module = *new PowerOnLog;
    return module;
}

// --- The file. REQUIRES: the power-on mutex is held. ---

// Appends all bytes. On failure cuts the file back to its previous end, if possible, and returns
// false with errno set.
bool Append(int fd, const char* buf, size_t size) {
    const AppendUndo undo(fd);
    if (android::base::WriteFully(fd, buf, size)) return true;
    const int error = errno;
    undo.Undo();
    errno = error;
    return false;
}

void CloseFile(PowerOnLog& log, const char* who) {
    if (close(log.fd) != 0) {
        QUARN_LOGE("%s: Error closing log file %s: %s", who, kPowerOnLogPath, strerror(errno));
    }
    log.fd = -1;
}

void EndFile(PowerOnLog& log, const char* who) {
    if (log.fd < 0) return;
    if (!Append(log.fd, &kEnd, sizeof(kEnd))) {
        QUARN_LOGE("%s: Error writing log file: %s", who, strerror(errno));
    }
    CloseFile(log, who);
}

void RemovePreviousFile(const char* who) {
    if (remove(kPowerOnLogPath) == 0) {
        QUARN_LOGD("Power-on log: previous log file: %s is removed", kPowerOnLogPath);
    } else {
        QUARN_LOGD("%s: Failed to remove %s: %s", who, kPowerOnLogPath, strerror(errno));
    }
}

// Returns false, and leaves no file open, on failure.
bool OpenFile(PowerOnLog& log, const char* who, time_t folder_time) {
    RemovePreviousFile(who);
    const LogFileHeader header(folder_time, 0);
    if (!header.has_modem_info()) QUARN_LOGE("%s: Error missing modem info", who);
    // O_EXCL: open() fails if a pipe or a link of that name was created after the removal. It does
    // not wait for the pipe or follow the link.
    log.fd = open(kPowerOnLogPath, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode);
    if (log.fd < 0) {
        QUARN_LOGE("%s: Error opening log file %s: %s", who, kPowerOnLogPath, strerror(errno));
        return false;
    }
    if (header.Write(log.fd) != 0) {
        QUARN_LOGE("%s: Error writing log file %s header", who, kPowerOnLogPath);
        CloseFile(log, who);
        return false;
    }
    return true;
}

void CountWritten(PowerOnLog& log, const char* who, uint32_t size) {
    if (size > std::numeric_limits<uint32_t>::max() - log.bytes_written) {
        QUARN_LOGE("%s: Error adding variables: overflow", who);
        log.state = State::kStopped;
        return;
    }
    log.bytes_written += size;
    if (log.bytes_written >> kSizeUnitShift < kMaxSizeInUnits) return;
    QUARN_LOGI("Power-on log: stop writing log, file size=%d bytes",
               static_cast<int>(log.bytes_written));
    log.state = State::kStopped;
}

// --- The event thread ---

// Waits for the end of the first minute. Returns false if a stop came before.
bool WaitForEnd(PowerOnLog& log) {
    const auto deadline = std::chrono::steady_clock::now() + kDuration;
    std::unique_lock lock(log.wait_mutex);
    return !log.wait_cond.wait_until(lock, deadline, [&log] { return !log.running; });
}

// The log filter manager now sends the log level or filter that it has held back.
void EndPowerOnPhase() {
    quarn_request(HANDLE_LOG_FILTER_MANAGER, EXEC_LOGGING_STATE_NORMAL, nullptr);
}

void HandleEnd(PowerOnLog& log) {
    QUARN_LOGI("Power-on Log: detect power-on end event");
    EndPowerOnPhase();
    FlushLogBuffers();
    if (const UseLock lock(log.mutex); lock) log.state = State::kStopped;
}

// Enters state 1 and starts the event thread. Returns false, in state 3, if the thread cannot be
// created: then no thread will end the minute.
bool BeginMinute(PowerOnLog& log) {
    const UseLock lock(log.mutex);
    if (!lock) return true;  // a stop has ended the minute
    log.bytes_written = 0;
    log.state = State::kInitialised;
    log.running = true;
    if (!quarn_startThread(log.event_thread, "quarn_power_on", "Power-on Log",
                           PowerOnEventDetectThreadEntry)) {
        log.running = false;
        log.state = State::kStopped;
        return false;
    }
    QUARN_LOGI("Power-on Log: init successfully");
    return true;
}

}  // namespace

void PowerOnLogInit() {
    if (!BeginMinute(Module())) EndPowerOnPhase();
}

void PowerOnEventDetectThreadEntry() {
    QUARN_LOGI("Power-on Log: thread %s starts", kThreadEntry);
    PowerOnLog& log = Module();
    if (WaitForEnd(log)) HandleEnd(log);
    QUARN_LOGI("Power-on Log: thread %s terminate", kThreadEntry);
}

void PowerOnLogStart(time_t folder_time) {
    constexpr const char* kWho = "PowerOnLogStart";
    PowerOnLog& log = Module();
    const UseLock lock(log.mutex);
    switch (lock ? log.state : State::kStopped) {
        case State::kNotInitialised:
            QUARN_LOGE("%s: Error starting power-on log: init function should be called first",
                       kWho);
            return;
        case State::kWriting:
            QUARN_LOGI("Power-on log: already started");
            return;
        case State::kStopped:
            QUARN_LOGW("Power-on log: already stopped");
            return;
        case State::kInitialised:
            break;
    }
    // Read without `command_mutex`, since a thread that holds it may wait for `io_mutex`.
    if (const QUARN_SAVE_MODE type = g_quarn.transfer_type; type != SAVE_MODE_STORAGE) {
        QUARN_LOGE("%s: Error starting power-on log: transfer type %d should be storage", kWho,
                   type);
        return;
    }
    if (!OpenFile(log, kWho, folder_time)) return;  // the next capture folder tries again
    QUARN_LOGI("Power-on log: start writing log to %s", kPowerOnLogPath);
    log.state = State::kWriting;
}

void PowerOnLogWrite(char const* buf, unsigned int len, bool last) {
    constexpr const char* kWho = "PowerOnLogWrite";
    PowerOnLog& log = Module();
    const UseLock lock(log.mutex);
    if (!lock) return;  // the next write or the de-initialisation ends the file
    if (log.state != State::kWriting) {
        EndFile(log, kWho);
        return;
    }
    if (len == 0) return;
    struct stat status;
    const bool known = fstat(log.fd, &status) == 0;
    const bool deleted = known && status.st_nlink == 0;
    // In a file that was cut, the next block might follow a part of a block or a missing header.
    if (deleted || (known && status.st_size < lseek(log.fd, 0, SEEK_CUR))) {
        QUARN_LOGW("Power-on log: stop writing log, %s was %s", kPowerOnLogPath,
                   deleted ? "deleted" : "cut");
        CloseFile(log, kWho);
        log.state = State::kStopped;
        return;
    }
    const uint32_t size = last ? len - 1 : len;
    if (!Append(log.fd, buf, size)) {
        QUARN_LOGE("%s: Error writing log file: %s", kWho, strerror(errno));
        log.state = State::kStopped;
        return;
    }
    QUARN_LOGD("Power-on log: write log, size=%zd KB", static_cast<ssize_t>(size / 1024));
    CountWritten(log, kWho, size);
}

void PowerOnLogStop() {
    PowerOnLog& log = Module();
    const StopLock lock(log.mutex);
    {
        std::lock_guard wait_lock(log.wait_mutex);
        log.running = false;
    }
    log.wait_cond.notify_one();
    if (log.event_thread.joinable()) {
        log.event_thread.join();
    } else {
        QUARN_LOGD("Power-on Log: thread is not joinable");
    }
    QUARN_LOGI("Power-on log: stop event detect thread and stop writing log");
    log.state = State::kStopped;
}

void PowerOnLogDeInit() {
    PowerOnLogStop();
    PowerOnLog& log = Module();
    const StopLock lock(log.mutex);
    EndFile(log, "PowerOnLogDeInit");
    QUARN_LOGI("Power-on Log: de-init successfully");
}

}  // namespace quarn::zorvex
