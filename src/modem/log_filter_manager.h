// The log filter manager: decides when a log level or a custom filter may go to the modem.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "core/quarn_handle.h"

namespace quarn::zorvex {

// A setting that waits to be sent, or is sent again.
class LogSetCommand {
  public:
    virtual ~LogSetCommand() = default;
    // "key=value", for messages.
    virtual std::string GetMipcSetCommand() = 0;
    virtual bool SendMipcSetCommand() = 0;
};

class LogLevel : public LogSetCommand {
  public:
    explicit LogLevel(int32_t log_level) : level(log_level) {}
    std::string GetMipcSetCommand() override;
    bool SendMipcSetCommand() override;

  private:
    const int32_t level;
};

class LogFilter : public LogSetCommand {
  public:
    explicit LogFilter(std::string filter_path) : path(std::move(filter_path)) {}
    std::string GetMipcSetCommand() override;
    bool SendMipcSetCommand() override;

  private:
    const std::string path;
};

// Keeps the last request as the one pending command. It is sent only while the modem is logging and
// the daemon has left its power-on phase. Runs on the callers' threads, who hold `exec_mutex`.
class LogFilterManagerHandle : public QUARN_HANDLE {
  public:
    LogFilterManagerHandle() : QUARN_HANDLE(HANDLE_LOG_FILTER_MANAGER) {}

    int32_t init() override;
    // 0 on success, 1 on failure: the one handle whose result callers look at.
    int32_t exec(QUARN_EXEC_ID exec_id, void* arg) override;

    // Replace the pending command; false, with the one before kept, when the value is refused.
    bool SetLogLevel(int level);
    bool SetLogFilter(const char* path);
    // Sends the pending command: up to three attempts.
    bool SendSetCommand();

  private:
    // The requests; true on success.
    bool SetModemLogging(bool started);
    bool HandleSetLogLevel(const int32_t* level);
    bool HandleSetLogFilter(const char* filter_path);
    bool LeavePowerOnPhase();

    bool IsModemLogging() const;
    // Sends the pending command when its time has come; true as well when it has to wait.
    bool SendIfAllowed();
    void ChangeState(int32_t state);  // under `state_mutex`
    void EnterNormal();
    void ReplacePending(std::unique_ptr<LogSetCommand> command);

    // Low half: modem logging, 0 stopped, 1 started. High half: 0x10 power-on phase, 0x00 Normal.
    std::atomic<int32_t> logging_state{-1};
    std::mutex state_mutex;  // around changes of the state; never held while the next is taken
    std::unique_ptr<LogSetCommand> pending_command;
    std::mutex command_mutex;  // guards `pending_command` and a whole sending of it
};

}  // namespace quarn::zorvex

extern quarn::zorvex::LogFilterManagerHandle g_log_filter_manager;
