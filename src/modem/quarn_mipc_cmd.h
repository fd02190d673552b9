// Requests to the modem over modem IPC. No other module uses the IPC library.
//
// Every function is one synchronous exchange with the modem, which takes up to 5 s. Thread-safe.
// The functions that return a number return 0 on success, 1 on failure, and 2 if the modem did not
// confirm the request. They log a failure and do not try again. While the channel is closed they
// return 1 without calling the library. Functions that query a value store it only on success.
#pragma once

#include <cstdint>
#include <string>

#include "platform/mipc.h"

// Opens the channel. Returns 0 on success. If the channel is already open, blocks until
// `quarn_mipcDeinit` has closed it.
int32_t quarn_mipcInit(const char* port);
// Closes the channel: refuses new exchanges, and waits for the running ones to end. Does nothing if
// the channel is not open.
void quarn_mipcDeinit();

// Sends a request. All functions below go through this one. `*cnf` gets the confirmation, or null
// if none came; the caller frees it.
int32_t quarn_mipcSendCmd(mipc_msg_t* req, mipc_msg_t** cnf);

// The log mode: 0 disable, 1 streaming, 2 wrapping. When the modem has accepted a mode,
// quarn_mipcSetLogMode notifies the subscribers. For "streaming" it then also sends the configured
// flush interval. This is a second exchange, which takes `flush_interval_mutex`.
int32_t quarn_mipcSetLogMode(int mode);
int32_t quarn_mipcGetLogMode(int* mode);
// The log level: 0 to 6.
int32_t quarn_mipcSetLogLevel(int level);
int32_t quarn_mipcGetLogLevel(int* level);
// The flush interval in milliseconds.
int32_t quarn_mipcSetFlushInterval(int interval);
int32_t quarn_mipcGetFlushInterval(int* interval);
int32_t quarn_mipcTriggerFlush(int* result);
int32_t quarn_mipcGetFlushStatus(int* status);
// Sets the modem's clock. `*t` is in seconds since the epoch. The modem gets the time in UTC, and
// the offset of the local time in minutes.
int32_t quarn_mipcSetTime(long* t);
// Sends the bytes of a filter file unchanged.
int32_t quarn_mipcSetCustomFilter(int length, char* data, int* result);

namespace quarn::zorvex {

// Sends an AT command. Returns true if the modem answered with a text, even with the text of an
// error. `result` gets the text.
bool SendAtCommandByMipc(const std::string& cmd, std::string& result);
// Returns true if the last line of the response is "OK".
bool GetAtCommandExecStatus(const std::string& response);

}  // namespace quarn::zorvex
