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

int tcl_registerCallback(tcl_msg_callback callback, void* user);
int tcl_listenToHostStart(int fd, tcl_host_data_callback to_modem);
int tcl_listenToHostStop(void);

}  // extern "C"
