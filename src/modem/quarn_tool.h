// Host tool port: serves a logging tool on a host computer that is connected to the phone, and
// recovers the port after an error.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include "core/quarn_handle.h"
#include "datapath/quarn_io.h"
#include "platform/tcl.h"

class QUARN_TOOL_HANDLE : public QUARN_HANDLE {
  public:
    QUARN_TOOL_HANDLE() : QUARN_HANDLE(HANDLE_TOOL) {}

    int32_t init() override;
    int32_t start() override;
    int32_t stop() override;
    int32_t exec(QUARN_EXEC_ID exec_id, void* arg) override;

  private:
    std::thread wait_connect_thread;     // socket channel only
    std::thread host_port_error_thread;  // recovers the port
    std::mutex tool_mutex;
    std::condition_variable tool_cond;
    QUARN_IO* tool_io = nullptr;  // the current output channel, not owned
    std::atomic<bool> running{false};
};

// The tool library's callback, on its own thread; holds `exec_mutex` throughout. Always 0.
int quarn_tclCallback(void* user, TCL_MSG msg);
