// The tool communication layer: the closed library that listens to a logging tool on a host
// computer.
#pragma once

enum TCL_MSG : int {
    TCL_MSG_HOST_CONNECTED = 0,
    TCL_MSG_HOST_DISCONNECTED = 1,
    TCL_MSG_RESERVED_2 = 2,
    TCL_MSG_HOST_PORT_ERROR = 3,
};

extern "C" {

// Called on a thread of the library.
typedef int (*tcl_msg_callback)(void* user, TCL_MSG msg);
// Gets every message from the host. `mcl_writeToLogPort` has this signature.
typedef int (*tcl_host_data_callback)(const void* buf, unsigned int len);

// The daemon calls these three functions from any thread, but never two of them at the same time.
// They must neither run a `tcl_msg_callback` nor wait for one that runs: that callback waits for a
// lock that the caller may hold.
int tcl_registerCallback(tcl_msg_callback callback, void* user);
// `fd` is not owned.
int tcl_listenToHostStart(int fd, tcl_host_data_callback to_modem);
// After this function has returned, the library neither uses the descriptor nor calls the data
// callback. Does nothing if listening was not started.
int tcl_listenToHostStop(void);

}  // extern "C"
