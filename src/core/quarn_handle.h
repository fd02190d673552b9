// Handles: the eight long-lived components of the daemon, and how to send them requests.
#pragma once

#include <cstdint>

enum QUARN_HANDLE_ID : int32_t {
    HANDLE_WRITER = 0,
    HANDLE_READER = 1,
    HANDLE_COMMAND = 2,
    HANDLE_TOOL = 3,
    HANDLE_NOTIFY = 4,
    HANDLE_EVENT_DETECT = 5,
    HANDLE_MD_TIME_SYNC = 6,
    HANDLE_LOG_FILTER_MANAGER = 7,
    HANDLE_MAX = 8,
};

// Requests. Requests 1 to 7 pass on the modem notification of the same number; their argument is
// the payload of the notification. "Drains" means: waits 1.5 s, and then up to 2 s more until the
// ring is empty (`wait_buffer_clean`).
enum QUARN_EXEC_ID : int32_t {
    // The modem has begun to log. The writer opens a capture if the payload asks for a new file.
    EXEC_MD_LOG_START = 1,
    // The modem has ended its log. The writer drains and closes the capture.
    EXEC_MD_LOG_STOP = 2,
    // The writer opens a capture if none is open.
    EXEC_MD_LOG_REOPEN = 3,
    // The writer does the same as for EXEC_MD_LOG_STOP.
    EXEC_MD_LOG_CLOSE = 4,
    // The writer drains and closes the log file. The capture stays open.
    EXEC_MD_LOG_FLUSH_CLOSE = 5,
    // The modem had an exception (a crash). The writer marks the capture, or opens a marked one if
    // none is open.
    EXEC_MD_EXCEPTION = 6,
    // The writer does the same as for EXEC_MD_LOG_STOP.
    EXEC_MD_LOG_END = 7,
    EXEC_RESERVED_8 = 8,
    // A tool on a host computer has connected or disconnected. The writer stops, or starts again.
    EXEC_TOOL_CONNECTED = 9,
    EXEC_TOOL_DISCONNECTED = 10,
    EXEC_SET_SAVE_MODE = 11,  // arg: QUARN_SAVE_MODE*, the new transfer type
    EXEC_START = 12,          // the handle calls its `start`
    EXEC_TOOL_WAKEUP = 13,    // the host's port had an error
    EXEC_RESERVED_14 = 14,
    EXEC_SET_LOG_LEVEL = 15,   // arg: int32_t*, level index
    EXEC_SET_LOG_FILTER = 16,  // arg: char*, filter name
    // The power-on phase of the log filter manager is over.
    EXEC_LOGGING_STATE_NORMAL = 17,
    // The writer drains and writes the storage channel's buffer to the log file.
    EXEC_FLUSH_RING = 18,
};

// The base class of every handle. All operations return 0 on success. The operations of the base
// class do nothing. After `stop`, a handle can be started again.
class QUARN_HANDLE {
  public:
    explicit QUARN_HANDLE(QUARN_HANDLE_ID handle_id) : id(handle_id) {}
    virtual ~QUARN_HANDLE() = default;
    QUARN_HANDLE(const QUARN_HANDLE&) = delete;
    QUARN_HANDLE& operator=(const QUARN_HANDLE&) = delete;

    virtual int32_t init() { return 0; }
    virtual int32_t start() { return 0; }
    virtual int32_t stop() { return 0; }
    // Serves a request. Ignores a request that the handle does not know.
    virtual int32_t exec(QUARN_EXEC_ID /*exec_id*/, void* /*arg*/) { return 0; }

    const QUARN_HANDLE_ID id;
};

// Passes a request to a handle and returns the handle's result, or 1 if there is no such handle. A
// negative handle id aborts the process.
//
// REQUIRES: the caller holds `QUARN_GLOBAL::exec_mutex`. If several requests belong together, the
// caller holds it over all of them, so that no other request comes between. Only the request to
// exit is sent without it.
int32_t quarn_runHandleExec(QUARN_HANDLE_ID handle, QUARN_EXEC_ID exec, void* arg);

// Does the same for a single request: takes `exec_mutex` and holds it while the handle serves the
// request. REQUIRES: the caller does not hold `exec_mutex`.
int32_t quarn_request(QUARN_HANDLE_ID handle, QUARN_EXEC_ID exec, void* arg);
