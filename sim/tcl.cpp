// The tool communication layer of the simulated phone.
#include "platform/tcl.h"

#include "sim/host_tool.h"

extern "C" {

int tcl_registerCallback(tcl_msg_callback callback, void* user) {
    if (callback == nullptr) return -1;
    sim::HostTool::Instance().RegisterCallback(callback, user);
    return 0;
}

int tcl_listenToHostStart(int fd, tcl_host_data_callback to_modem) {
    return sim::HostTool::Instance().ListenStart(fd, to_modem);
}

int tcl_listenToHostStop(void) { return sim::HostTool::Instance().ListenStop(); }

}  // extern "C"
