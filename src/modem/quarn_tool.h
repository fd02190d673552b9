// The host tool port. It serves a logging tool on a host computer that is connected to the phone,
// and recovers the port after an error.
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
// waits for a host. Then the tool library passes the host's messages to the modem.
//
// `start` and `stop` may be called from any thread. `exec` runs on the thread of its caller. `stop`
// takes at most as long as opening the channel takes. On a socket channel it also ends a wait for a
// host, which takes up to 6 s.
class QUARN_TOOL_HANDLE : public QUARN_HANDLE {
  public:
    QUARN_TOOL_HANDLE() : QUARN_HANDLE(HANDLE_TOOL) {}
    ~QUARN_TOOL_HANDLE() override;

    // Selects the channel of the current transfer type.
    int32_t init() override;
    // Returns 0 if there is nothing to do, or if the port is served or waits for a host. Otherwise
    // returns 1. If the last recovery of the port failed, closes the port and opens it again.
    int32_t start() override;
    int32_t stop() override;
    int32_t exec(QUARN_EXEC_ID exec_id, void* arg) override;

  protected:
    // The current output channel. Not owned. Null after a switch to a mode without a channel.
    // Guarded by `lifecycle_mutex`. Does not change while one of the two threads below runs.
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

    // Held during the whole of `start` and `stop`, also while threads are joined. The threads never
    // take it.
    std::mutex lifecycle_mutex;
    // Waits for the first host. Exists on a socket channel only.
    Thread wait_connect_thread;
    // Recovers the port after an error. Created by `start` or by `wait_connect_thread`.
    Thread host_port_error_thread;

    // Held during each call that starts or stops listening. Also held from the creation of
    // `host_port_error_thread` until listening has begun, so that this thread cannot end listening
    // too early. Before listening begins, `running` is checked under this mutex, so that listening
    // cannot begin after `stop` has ended it.
    std::mutex listen_mutex;

    // Guards the fields below. Held for a moment only. A recovery does not hold it, because a
    // recovery may wait for a host without a limit, and the thread that reports a port error
    // meanwhile holds `exec_mutex`.
    std::mutex tool_mutex;
    // Notified when `port_error` is set or `running` is cleared.
    std::condition_variable tool_cond;
    // The channel is open and must be shut down.
    bool started = false;
    // A thread has ended by itself. The next `start` shuts everything down first.
    bool gave_up = false;
    // A port error has not been handled yet.
    bool port_error = false;
    // The host is served. Written under `tool_mutex`.
    std::atomic<bool> running{false};
};

extern QUARN_TOOL_HANDLE g_tool;

// The callback of the tool library. Runs on a thread of that library and holds `exec_mutex` until
// its end. Always returns 0.
int quarn_tclCallback(void* user, TCL_MSG msg);
