#include "modem/log_filter_manager.h"

#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "core/quarn_global.h"
#include "modem/quarn_mipc_cmd.h"
#include "platform/quarn_log.h"

namespace quarn::zorvex {

namespace {

constexpr int32_t kLoggingMask = 0x0F;
constexpr int32_t kLoggingStarted = 0x01;
constexpr int32_t kPhaseMask = 0xF0;
constexpr int32_t kPowerOnPhase = 0x10;
constexpr int32_t kNormalPhase = 0x00;
constexpr int32_t kSendingState = kNormalPhase | kLoggingStarted;

constexpr int kDefaultLevel = 2;
constexpr unsigned int kMaxLevel = 6;
constexpr int kSendAttempts = 3;
constexpr std::chrono::milliseconds kSendPause(200);
// Bytes. Far above the size of any filter: limits the memory that a wrong path can cost.
constexpr off_t kMaxFilterSize = 16 << 20;

bool IsUsableFilter(const struct stat& status, const char* function, const char* path) {
    if (S_ISREG(status.st_mode) && status.st_size <= kMaxFilterSize) return true;
    QUARN_LOGE("%s: Error using log filter %s: not a regular file of at most %ld bytes", function,
               path, static_cast<long>(kMaxFilterSize));
    return false;
}

// Fills `bytes` from the file. Returns 0, or an error number.
int ReadWhole(int fd, std::vector<char>& bytes) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = read(fd, bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n == 0) {
            return EIO;  // the file has become shorter
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

// Returns the bytes of a filter file, or none if it cannot be used. The path may have become a pipe
// or a device since the client chose it, so the file is opened without blocking.
std::optional<std::vector<char>> ReadFilter(const char* path) {
    constexpr const char* kFunction = "SendMipcSetCommand";
    const android::base::unique_fd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (fd < 0) {
        QUARN_LOGE("%s: Error opening log filter %s: %s", kFunction, path, strerror(errno));
        return std::nullopt;
    }
    struct stat status;
    if (fstat(fd, &status) != 0 || status.st_size < 0) {
        QUARN_LOGE("%s: Error getting size of log filter %s", kFunction, path);
        return std::nullopt;
    }
    if (!IsUsableFilter(status, kFunction, path)) return std::nullopt;
    std::vector<char> bytes(static_cast<size_t>(status.st_size));
    if (const int error = ReadWhole(fd, bytes); error != 0) {
        QUARN_LOGE("%s: Error reading log filter %s: %s", kFunction, path, strerror(error));
        return std::nullopt;
    }
    return bytes;
}

}  // namespace

// --- the settings ---

std::string LogLevel::GetMipcSetCommand() { return "log_level=" + std::to_string(level); }

bool LogLevel::SendMipcSetCommand() {
    const std::string command = GetMipcSetCommand();
    QUARN_LOGD("Log Filter Manager: send MIPC command %s to MD", command.c_str());
    if (const int32_t rc = quarn_mipcSetLogLevel(level); rc != 0) {
        QUARN_LOGE("%s: Error setting %s, mipc_rc=%d", "SendMipcSetCommand", command.c_str(), rc);
        return false;
    }
    QUARN_LOGI("Log Filter Manager: set %s successfully", command.c_str());
    return true;
}

std::string LogFilter::GetMipcSetCommand() { return "log_filter=" + path; }

bool LogFilter::SendMipcSetCommand() {
    const std::string command = GetMipcSetCommand();
    QUARN_LOGD("Log Filter Manager: send MIPC command %s to MD", command.c_str());
    std::optional<std::vector<char>> bytes = ReadFilter(path.c_str());
    if (!bytes) return false;
    int result = 0;
    const int32_t rc =
        quarn_mipcSetCustomFilter(static_cast<int>(bytes->size()), bytes->data(), &result);
    if (rc != 0 || result != 0) {
        QUARN_LOGE("%s: Error setting %s, mipc_rc=%d, result=%d", "SendMipcSetCommand",
                   command.c_str(), rc, result);
        return false;
    }
    QUARN_LOGI("Log Filter Manager: set %s successfully", command.c_str());
    return true;
}

// --- the handle ---

int32_t LogFilterManagerHandle::init() {
    {
        std::lock_guard lock(state_mutex);
        ChangeState(kPowerOnPhase);
    }
    ReplacePending(std::make_unique<LogLevel>(kDefaultLevel));
    return 0;
}

int32_t LogFilterManagerHandle::exec(QUARN_EXEC_ID exec_id, void* arg) {
    QUARN_LOGI("Log Filter Manager: handle exec_id=%d", exec_id);
    bool done = false;
    try {
        switch (exec_id) {
            case EXEC_MD_LOG_START:
                done = SetModemLogging(true);
                break;
            case EXEC_MD_LOG_STOP:
                done = SetModemLogging(false);
                break;
            case EXEC_SET_LOG_LEVEL:
                done = HandleSetLogLevel(static_cast<const int32_t*>(arg));
                break;
            case EXEC_SET_LOG_FILTER:
                done = HandleSetLogFilter(static_cast<const char*>(arg));
                break;
            case EXEC_LOGGING_STATE_NORMAL:
                done = LeavePowerOnPhase();
                break;
            default:
                QUARN_LOGE("%s: Error getting unknown exec_id", "exec");
                return 1;
        }
    } catch (const std::bad_alloc&) {
        QUARN_LOGE("%s: Error getting memory", "exec");
    }
    QUARN_LOGI("Log Filter Manager: handle exec_id=%d done", exec_id);
    // cppcheck-suppress knownConditionTrueFalse; it forgets what happened inside `try`.
    return done ? 0 : 1;
}

bool LogFilterManagerHandle::SetModemLogging(bool started) {
    std::lock_guard lock(state_mutex);
    const int32_t state = logging_state;
    const int32_t next = (state & kPhaseMask) | (started ? kLoggingStarted : 0);
    if (next == state) {
        QUARN_LOGE("%s: Error changing state LM = %s", "exec", started ? "start" : "stop");
        return false;
    }
    ChangeState(next);
    return true;
}

bool LogFilterManagerHandle::HandleSetLogLevel(const int32_t* level) {
    if (!IsModemLogging()) {
        QUARN_LOGE("%s: Error setting log level in logging state 0x%x", "exec",
                   static_cast<unsigned int>(logging_state));
        return false;
    }
    if (level == nullptr) {
        QUARN_LOGE("%s: Error getting null log level", "exec");
        return false;
    }
    return SetLogLevel(*level) && SendIfAllowed();
}

bool LogFilterManagerHandle::HandleSetLogFilter(const char* filter_path) {
    if (!IsModemLogging()) {
        QUARN_LOGE("%s: Error setting log filter in logging state 0x%x", "exec",
                   static_cast<unsigned int>(logging_state));
        return false;
    }
    if (!SetLogFilter(filter_path)) return false;
    EnterNormal();  // a log filter ends the power-on phase
    return SendIfAllowed();
}

bool LogFilterManagerHandle::LeavePowerOnPhase() {
    if ((logging_state & kPhaseMask) == kNormalPhase) {
        QUARN_LOGD("Log Filter Manager: LS is already in Normal");
        return true;
    }
    EnterNormal();
    return SendIfAllowed();
}

bool LogFilterManagerHandle::IsModemLogging() const {
    return (logging_state & kLoggingMask) == kLoggingStarted;
}

bool LogFilterManagerHandle::SendIfAllowed() {
    return logging_state != kSendingState || SendSetCommand();
}

void LogFilterManagerHandle::ChangeState(int32_t state) {
    logging_state = state;
    QUARN_LOGD("Log Filter Manager: logging state changes to 0x%x",
               static_cast<unsigned int>(state));
}

void LogFilterManagerHandle::EnterNormal() {
    std::lock_guard lock(state_mutex);
    ChangeState(logging_state & kLoggingMask);
}

void LogFilterManagerHandle::ReplacePending(std::unique_ptr<LogSetCommand> command) {
    std::lock_guard lock(command_mutex);
    pending_command = std::move(command);
}

bool LogFilterManagerHandle::SetLogLevel(int level) {
    QUARN_LOGD("Log Filter Manager: get input command %s=%d", "log_level", level);
    if (static_cast<unsigned int>(level) > kMaxLevel) {
        QUARN_LOGE("%s: Error inputting invalid log level", "SetLogLevel");
        return false;
    }
    ReplacePending(std::make_unique<LogLevel>(level));
    return true;
}

bool LogFilterManagerHandle::SetLogFilter(const char* path) {
    constexpr const char* kFunction = "SetLogFilter";
    if (path == nullptr) {
        QUARN_LOGE("%s: Error getting null log filter", kFunction);
        return false;
    }
    QUARN_LOGD("Log Filter Manager: get input command %s=%s", "log_filter", path);
    // The file is not opened here: opening a device may already have an effect.
    struct stat status;
    if (access(path, R_OK) != 0 || stat(path, &status) != 0) {
        QUARN_LOGE("%s: Error accessing log filter %s: %s", kFunction, path, strerror(errno));
        return false;
    }
    if (!IsUsableFilter(status, kFunction, path)) return false;
    ReplacePending(std::make_unique<LogFilter>(path));
    return true;
}

bool LogFilterManagerHandle::SendSetCommand() {
    constexpr const char* kFunction = "SendSetCommand";
    std::lock_guard lock(command_mutex);
    if (!pending_command) {
        QUARN_LOGE("%s: Error getting uninitialized log filter", kFunction);
        return false;
    }
    for (int attempt = 1; attempt <= kSendAttempts; ++attempt) {
        const bool is_last = attempt == kSendAttempts;
        int mode = 0;
        if (quarn_mipcGetLogMode(&mode) == 0 && mode != 0) {
            QUARN_LOGD("Log Filter Manager: check logging is on successfully");
            const bool sent = pending_command->SendMipcSetCommand();
            if (sent && !is_last) return true;  // the last attempt always counts as failed
        } else {
            QUARN_LOGE("%s: Error unexpected logging mode", kFunction);
            if (!is_last) std::this_thread::sleep_for(kSendPause);
        }
        if (g_quarn.is_close) break;  // the exit of the daemon waits for this function
    }
    QUARN_LOGE("%s: Error setting log filter by MIPC command", kFunction);
    return false;
}

}  // namespace quarn::zorvex
