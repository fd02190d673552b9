// Requests to the modem over modem IPC: the only place that touches the IPC library.
//
// Every function is one synchronous exchange of up to 5 s, on any thread. They return 0 on success,
// 1 on failure and 2 when no confirmation came; a failure is logged and never retried. While
// the channel is closed they fail with 1 and leave the library alone. Getters store their answer
// only on success.
#pragma once

#include <cstdint>
#include <string>

#include "platform/mipc.h"

// Opens the channel: 0 on success. A second call without `quarn_mipcDeinit` in between waits for
// it.
int32_t quarn_mipcInit(const char* port);
// Closes the channel: refuses new exchanges from now on, and waits for those in flight to end. Does
// nothing after a failed or missing init.
void quarn_mipcDeinit();

// The one send; every function below goes through it. `*cnf` gets the confirmation, null when none
// came; the caller frees it.
int32_t quarn_mipcSendCmd(mipc_msg_t* req, mipc_msg_t** cnf);

// Modes: 0 disable, 1 streaming, 2 wrapping. A mode that was set is told to subscribers; streaming
// also sends the configured flush interval again, a second exchange under `flush_interval_mutex`.
int32_t quarn_mipcSetLogMode(int mode);
int32_t quarn_mipcGetLogMode(int* mode);
// Levels: 0 to 6.
int32_t quarn_mipcSetLogLevel(int level);
int32_t quarn_mipcGetLogLevel(int* level);
// Milliseconds.
int32_t quarn_mipcSetFlushInterval(int interval);
int32_t quarn_mipcGetFlushInterval(int* interval);
int32_t quarn_mipcTriggerFlush(int* result);
int32_t quarn_mipcGetFlushStatus(int* status);
// `t`: seconds since the epoch. The modem gets UTC and the local offset in minutes.
int32_t quarn_mipcSetTime(long* t);
// Sends the bytes of a filter file unchanged.
int32_t quarn_mipcSetCustomFilter(int length, char* data, int* result);

namespace quarn::zorvex {

// True when a response text came back, whatever it says.
bool SendAtCommandByMipc(const std::string& cmd, std::string& result);
// Whether the last line of a response is OK.
bool GetAtCommandExecStatus(const std::string& response);

}  // namespace quarn::zorvex
