// The log filter manager. It decides when a log level or a log filter is sent to the modem.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "core/quarn_handle.h"

namespace quarn::zorvex {

// A log level or a log filter that is to be sent to the modem.
class LogSetCommand {
  public:
    virtual ~LogSetCommand() = default;
    // Returns "key=value", for messages.
    virtual std::string GetMipcSetCommand() = 0;
    // Makes one attempt to send the setting. Returns true on success.
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

// Keeps the last requested level or filter as the pending command. Sends it only while the modem is
// logging and the daemon has left its power-on phase. The handle has no thread of its own: `exec`
// runs on the thread of its caller, which holds `exec_mutex`.
class LogFilterManagerHandle : public QUARN_HANDLE {
  public:
    LogFilterManagerHandle() : QUARN_HANDLE(HANDLE_LOG_FILTER_MANAGER) {}

    int32_t init() override;
    // Returns 0 on success, 1 on failure. Callers use this result, unlike the results of other
    // handles.
    int32_t exec(QUARN_EXEC_ID exec_id, void* arg) override;

    // Replace the pending command. Return false and keep the old one if the value is refused.
    bool SetLogLevel(int level);
    bool SetLogFilter(const char* path);
    // Sends the pending command, with up to three attempts. Returns true if the first or the second
    // attempt succeeds. The third attempt counts as failed even if it succeeds.
    bool SendSetCommand();

  private:
    // One function for each request. They return true on success.
    bool SetModemLogging(bool started);
    bool HandleSetLogLevel(const int32_t* level);
    bool HandleSetLogFilter(const char* filter_path);
    bool LeavePowerOnPhase();

    bool IsModemLogging() const;
    // Sends the pending command if the state allows it. Returns false only if sending failed.
    bool SendIfAllowed();
    // REQUIRES: state_mutex is held.
    void ChangeState(int32_t state);
    void EnterNormal();
    void ReplacePending(std::unique_ptr<LogSetCommand> command);

    // Bits 0 to 3: the modem's logging, 0x00 stopped, 0x01 started. Bits 4 to 7: 0x10 power-on
    // phase (the daemon's first minute), 0x00 normal phase. -1 before `init`.
    std::atomic<int32_t> logging_state{-1};
    // Held during each change of the state. Never held together with `command_mutex`.
    std::mutex state_mutex;
    std::unique_ptr<LogSetCommand> pending_command;
    // Guards `pending_command`. Held while the command is sent, over all attempts.
    std::mutex command_mutex;
};

}  // namespace quarn::zorvex

extern quarn::zorvex::LogFilterManagerHandle g_log_filter_manager;
