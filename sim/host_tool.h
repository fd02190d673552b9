// A host computer's logging tool and the closed library that listens to it, in one object.
//
// tcl.cpp is a thin cover over this class; tests and the console steer it directly. Every operation
// may be called from any thread.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string_view>
#include <thread>

#include "platform/tcl.h"

namespace sim {

class HostTool {
  public:
    static HostTool& Instance();  // never destroyed
    HostTool(const HostTool&) = delete;
    HostTool& operator=(const HostTool&) = delete;

    // --- what the library offers, see platform/tcl.h ---
    void RegisterCallback(tcl_msg_callback callback, void* user);  // kept over `Reset`; null: none
    // A thread hands what comes in at `fd` to `to_modem`, read by read, up to the end of the stream
    // or an error. A second start takes the place of the first.
    int ListenStart(int fd, tcl_host_data_callback to_modem);
    int ListenStop();

    // --- the host ---
    // Tells the daemon a message: from the library's own thread, one at a time, in order. Returns
    // at once.
    void Deliver(TCL_MSG msg);
    // Waits until all that was told is handled.
    void WaitForMessages();
    // Hands bytes over as if they had come in at the descriptor; false when nobody listens, or the
    // modem did not take them.
    bool Send(std::string_view bytes);

    struct Status {
        bool listening;
        int fd;
        uint64_t handled;       // messages, by the callback
        size_t waiting;         // messages
        uint64_t sent;          // bytes that the modem took
        uint64_t listen_calls;  // to start
        uint64_t stop_calls;
    };
    Status status() const;

    // Back to how a fresh process has it, registered callback apart; for tests. Waits as
    // `WaitForMessages` does.
    void Reset();

  private:
    HostTool() = default;
    ~HostTool() = delete;

    void EndListening();  // under `lifecycle_mutex_`
    void MessageThread();
    void ListenThread(int fd, int end_fd);
    bool HandOver(std::string_view bytes);

    std::mutex lifecycle_mutex_;  // serialises starts and stops of listening; taken first
    std::thread listener_;
    int end_fd_ = -1;  // an eventfd, readable once the listener shall end

    std::mutex data_mutex_;  // held while the data callback runs; taken before `mutex_`
    tcl_host_data_callback to_modem_ = nullptr;  // null: nobody listens; guarded by both

    mutable std::mutex mutex_;  // guards everything below; never held while a callback runs
    std::condition_variable cond_;
    tcl_msg_callback callback_ = nullptr;
    void* callback_user_ = nullptr;
    bool has_message_thread_ = false;
    std::deque<TCL_MSG> messages_;  // the first one is being handled
    uint64_t handled_ = 0;
    uint64_t sent_ = 0;
    uint64_t listen_calls_ = 0;
    uint64_t stop_calls_ = 0;
    int fd_ = -1;
};

}  // namespace sim
