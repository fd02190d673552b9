// Tool communication layer: the closed library that listens to a logging tool on a host computer.
#pragma once

enum TCL_MSG : int {
    TCL_MSG_HOST_CONNECTED = 0,
    TCL_MSG_HOST_DISCONNECTED = 1,
    TCL_MSG_RESERVED_2 = 2,
    TCL_MSG_HOST_PORT_ERROR = 3,
};

extern "C" {

// Called on the library's own thread.
typedef int (*tcl_msg_callback)(void* user, TCL_MSG msg);
// Gets every message from the host; `mcl_writeToLogPort` has this shape.
typedef int (*tcl_host_data_callback)(const void* buf, unsigned int len);

// The three may be called from any thread; the daemon never calls two of them at a time. None of
// them may wait for a `tcl_msg_callback` that runs, nor run one itself: that callback waits for a
// lock that the caller may hold.
int tcl_registerCallback(tcl_msg_callback callback, void* user);
// The descriptor stays the caller's.
int tcl_listenToHostStart(int fd, tcl_host_data_callback to_modem);
// Once this returns, the descriptor is not used any more, and nothing is handed to the data
// callback. Without a start before it does nothing.
int tcl_listenToHostStop(void);

}  // extern "C"
