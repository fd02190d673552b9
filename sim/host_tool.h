// The logging tool of a host computer and the closed library that receives its data, in one class.
//
// tcl.cpp implements the library's functions with this class. Tests and the console call it
// directly. Thread-safe.
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
    // The object is never destroyed.
    static HostTool& Instance();
    HostTool(const HostTool&) = delete;
    HostTool& operator=(const HostTool&) = delete;

    // --- The functions of the library, see platform/tcl.h ---

    // Null removes the callback. `Reset` keeps it.
    void RegisterCallback(tcl_msg_callback callback, void* user);
    // Starts a thread that reads `fd` until the end of the stream or an error, and passes the bytes
    // of each read to `to_modem`. A second start replaces the first.
    int ListenStart(int fd, tcl_host_data_callback to_modem);
    int ListenStop();

    // --- The host ---

    // Queues a message for the daemon and returns at once. The library's own thread delivers the
    // messages in order, one at a time.
    void Deliver(TCL_MSG msg);
    // Waits until all queued messages have been handled.
    void WaitForMessages();
    // Passes bytes to the daemon as if they had been read from the descriptor. Returns false if the
    // daemon does not listen or the modem did not take the bytes.
    bool Send(std::string_view bytes);

    struct Status {
        bool listening;
        int fd;
        uint64_t handled;       // messages that the callback has handled
        size_t waiting;         // messages in the queue
        uint64_t sent;          // bytes that the modem took
        uint64_t listen_calls;  // calls of `ListenStart`
        uint64_t stop_calls;    // calls of `ListenStop`
        uint64_t misused;       // starts without a descriptor, or while already listening
    };
    Status status() const;

    // For tests: restores the state of a new process, except for the registered callback. Waits
    // like `WaitForMessages`.
    void Reset();

  private:
    HostTool() = default;
    ~HostTool() = delete;

    // REQUIRES: lifecycle_mutex_ is held.
    void EndListening();
    void MessageThread();
    void ListenThread(int fd, int end_fd);
    bool HandOver(std::string_view bytes);

    // Serialises starts and stops of listening. Locked before the other two mutexes.
    std::mutex lifecycle_mutex_;
    std::thread listener_;
    // An eventfd that ends the listener thread.
    int end_fd_ = -1;

    // Held while the data callback runs. Locked before `mutex_`.
    std::mutex data_mutex_;
    // Null if the daemon does not listen. Guarded by both mutexes.
    tcl_host_data_callback to_modem_ = nullptr;

    // Guards all members below. Never held while a callback runs.
    mutable std::mutex mutex_;
    std::condition_variable cond_;
    tcl_msg_callback callback_ = nullptr;
    void* callback_user_ = nullptr;
    bool has_message_thread_ = false;
    // The first message is the one that is being handled.
    std::deque<TCL_MSG> messages_;
    uint64_t handled_ = 0;
    uint64_t sent_ = 0;
    uint64_t listen_calls_ = 0;
    uint64_t stop_calls_ = 0;
    uint64_t misused_ = 0;
    int fd_ = -1;
};

}  // namespace sim
