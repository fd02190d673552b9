// Modem communication layer: the closed library that owns the modem's log port.
#pragma once

// What the library tells its registered callback. The payload's layout depends on the code.
enum MCL_NTFY_CODE : int {
    NTFY_MD_LOG_START = 1,        // modem logging started
    NTFY_MD_LOG_STOP = 2,         // modem logging stopped
    NTFY_MD_LOG_REOPEN = 3,       // log port reopened
    NTFY_MD_LOG_CLOSE = 4,        // log port closing
    NTFY_MD_LOG_FLUSH_CLOSE = 5,  // log port closing after a flush
    NTFY_MD_EXCEPTION = 6,        // modem exception
    NTFY_MD_LOG_END = 7,          // modem logging ended
    NTFY_QUERY_STORAGE_MODE = 8,  // asks whether logs go to storage; the answer goes to the payload
    NTFY_MD_INFO_UPDATE = 9,      // modem information changed
};

extern "C" {

// Called on the library's own thread; `payload` belongs to the library and is valid for the call.
typedef int (*mcl_ntfy_callback)(void* user, MCL_NTFY_CODE code, void* payload);

// 0 once the layer is up and the log port is open; anything else: try again later.
int mcl_init(void);
int mcl_deinit(void);

// The log port. `mcl_openLogPort` is negative on failure. `mcl_pollLogPort` gives -2 on time-out
// and -1 on failure. `mcl_readFromLogPort` gives the bytes read, 0, or a negative value with an
// errno number in `*err`. `mcl_writeToLogPort` is negative on failure.
int mcl_openLogPort(void);
int mcl_closeLogPort(void);
int mcl_pollLogPort(int timeout_ms);
int mcl_readFromLogPort(void* buf, unsigned int len, int* err);
int mcl_writeToLogPort(const void* buf, unsigned int len);

// One callback a process; may be registered before `mcl_init`. 0 on success.
int mcl_registerNotifyCallback(mcl_ntfy_callback callback, void* user);

}  // extern "C"
