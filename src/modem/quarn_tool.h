// Host tool port: serves a logging tool on a host computer that is connected to the phone, and
// recovers the port after an error.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "core/quarn_handle.h"
#include "core/woken_thread.h"
#include "datapath/quarn_io.h"
#include "platform/tcl.h"

// Does nothing while the output channel is the storage channel. Otherwise it opens the channel and
// lets the tool library hand to the modem what the host sends, as soon as there is a host.
//
// `start` and `stop` may be called from any thread; `exec` runs on the caller's thread. `stop` is
// bounded: by the channel's own open, and on a socket channel by a wait for a host, which it ends
// within 5 s.
class QUARN_TOOL_HANDLE : public QUARN_HANDLE {
  public:
    QUARN_TOOL_HANDLE() : QUARN_HANDLE(HANDLE_TOOL) {}
    ~QUARN_TOOL_HANDLE() override;

    // Takes the channel of the current transfer type.
    int32_t init() override;
    // 0 when there is nothing to do, or the port is served or waits for its host; else 1. A port
    // whose recovery failed is closed and opened afresh.
    int32_t start() override;
    int32_t stop() override;
    int32_t exec(QUARN_EXEC_ID exec_id, void* arg) override;

  protected:
    // The current output channel, not owned; null after the switch to a mode that has none. Guarded
    // by `lifecycle_mutex`; does not change while a thread of ours runs.
    QUARN_IO* tool_io = nullptr;

  private:
    using Thread = quarn::zorvex::WokenThread;

    void stop_locked();
    void set_save_mode(const QUARN_SAVE_MODE* mode);
    void shut_down();
    void end_threads();
    bool is_at_work();
    void give_up();
    bool create_thread(Thread& thread, const char* name, Thread::Body body);
    void join_thread(Thread& thread);

    bool begin_serving();
    void start_listening();
    void stop_listening();
    void wait_socket_connect_thread();
    void host_port_error_handle_thread();
    bool wait_for_port_error();
    bool recover();
    bool reach_host_again();

    // Held for the whole of `start` and `stop`, joining included; the threads never take it.
    std::mutex lifecycle_mutex;
    Thread wait_connect_thread;     // socket channel only
    Thread host_port_error_thread;  // recovers the port; made by `start` or by the other

    // Held for one call of the tool library, the first time also while the thread is made that ends
    // listening after a port error: it must not come before. A start of listening looks at
    // `running` under it, so that none comes behind the end of listening in `stop`.
    std::mutex listen_mutex;

    // Guards what follows, for an instant only: a recovery does not hold it, for it may wait for a
    // host for ever, and who brings a wake-up meanwhile holds `exec_mutex`.
    std::mutex tool_mutex;
    std::condition_variable tool_cond;  // `port_error` was set or `running` cleared
    bool started = false;               // the channel is open: there is something to shut down
    bool gave_up = false;               // a thread ended by itself: the next start begins afresh
    bool port_error = false;            // one is still to be handled
    // The host is served. Changes under `tool_mutex`.
    std::atomic<bool> running{false};
};

extern QUARN_TOOL_HANDLE g_tool;

// The tool library's callback, on its own thread; holds `exec_mutex` throughout. Always 0.
int quarn_tclCallback(void* user, TCL_MSG msg);
