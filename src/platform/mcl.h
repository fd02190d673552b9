// The modem communication layer: the closed library that owns the modem's log port.
#pragma once

// The notifications that the library sends to its callback. The layout of the payload depends on
// the code.
enum MCL_NTFY_CODE : int {
    NTFY_MD_LOG_START = 1,        // modem logging started
    NTFY_MD_LOG_STOP = 2,         // modem logging stopped
    NTFY_MD_LOG_REOPEN = 3,       // log port reopened
    NTFY_MD_LOG_CLOSE = 4,        // log port closing
    NTFY_MD_LOG_FLUSH_CLOSE = 5,  // log port closing after a flush
    NTFY_MD_EXCEPTION = 6,        // modem exception
    NTFY_MD_LOG_END = 7,          // modem logging ended
    NTFY_QUERY_STORAGE_MODE = 8,  // do logs go to storage? the callback answers in the payload
    NTFY_MD_INFO_UPDATE = 9,      // modem information changed
};

extern "C" {

// Called on a thread of the library. `payload` belongs to the library and is valid during the call.
typedef int (*mcl_ntfy_callback)(void* user, MCL_NTFY_CODE code, void* payload);

// Returns 0 once the layer is up and the log port is open. After any other result the caller tries
// again later.
int mcl_init(void);
int mcl_deinit(void);

// The log port.
//
// Returns a negative value on failure.
int mcl_openLogPort(void);
int mcl_closeLogPort(void);
// Returns -2 on a time-out and -1 on failure.
int mcl_pollLogPort(int timeout_ms);
// Returns the number of bytes read, which may be 0. Returns a negative value on failure, with an
// errno number in `*err`.
int mcl_readFromLogPort(void* buf, unsigned int len, int* err);
// Returns a negative value on failure.
int mcl_writeToLogPort(const void* buf, unsigned int len);

// Registers the only callback of the process. May be called before `mcl_init`. Returns 0 on
// success.
int mcl_registerNotifyCallback(mcl_ntfy_callback callback, void* user);

}  // extern "C"
