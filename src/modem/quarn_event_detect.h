// Modem event detection. It watches the kernel's device events for the modem's devices, and reads
// the modem's state file.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>

#include "core/listener_thread.h"
#include "core/quarn_handle.h"

enum QUARN_EVENT : int32_t {
    EVENT_NONE = 0,
    EVENT_MD_LOG_PORT_REMOVED = 1,
    EVENT_MIPC_PORT_ADDED = 2,  // is queued, but has no effect today
};

// The fields of a device event. The pointers point into the parsed message. A field that the
// message does not have is null.
struct event_info {
    const char* device_name = nullptr;
    const char* action = nullptr;
    const char* subsystem = nullptr;
};

// Owns two threads. The detect thread (`quarn_uevent`) receives the kernel's events and queues
// those that matter. The process thread (`quarn_event`) takes them from the queue and handles them:
// when the modem's log device is removed, it restarts the daemon.
class QUARN_EVENT_DETECT_HANDLE : public QUARN_HANDLE {
  public:
    QUARN_EVENT_DETECT_HANDLE() : QUARN_HANDLE(HANDLE_EVENT_DETECT) {}
    ~QUARN_EVENT_DETECT_HANDLE() override;

    // `init`, `start` and `stop` are called by one thread.
    int32_t init() override;
    // Returns 0, or 1 if the socket for device events could not be opened or a thread could not be
    // created. The parts that could be started run. Another `start` tries the other parts again.
    int32_t start() override;
    // Joins both threads. If a restart of the daemon is under way, blocks until it is finished. A
    // restart takes some seconds and locks `exec_mutex`. Events that still wait are dropped.
    // REQUIRES: the caller does not hold `exec_mutex`.
    int32_t stop() override;

    // Parses a device event of the kernel: NUL-terminated "KEY=value" texts, and an empty text at
    // the end. Sets the fields of `info` that the message has and leaves the other fields
    // unchanged. Any other content is safe. REQUIRES: the message ends in two NULs.
    static QUARN_EVENT parse_uevent(char const* message, event_info* info);

  private:
    bool start_processing();
    bool start_detecting();
    bool create_detect_thread();
    void ask_detecting_to_end();
    void end_detecting();
    void ask_processing_to_end();
    // Returns the descriptor, or -1.
    int open_uevent_socket();

    void quarn_event_detect_handle_thread();
    void detect_once();
    int wait_for_message();
    bool quarn_checkMdReady();
    void receive_message();
    void push_event(QUARN_EVENT event);

    void quarn_event_process_thread();
    bool wait_for_events();
    bool take_events();

    // -1: closed. Read by the detect thread. Written only while there is no detect thread.
    int uevent_fd = -1;
    std::atomic<bool> detect_running{false};
    quarn::zorvex::ListenerThread detect_thread;
    std::atomic<bool> md_ready_seen{false};

    std::atomic<bool> process_running{false};  // cleared under `queue_mutex`
    std::thread process_thread;
    std::deque<QUARN_EVENT> event_queue;
    // Events are being dropped, and this has been logged.
    bool queue_overflows = false;
    // Guards `event_queue`, `queue_overflows` and the change of `process_running`. No other lock is
    // taken while it is held.
    std::mutex queue_mutex;
    std::condition_variable queue_cond;
};

extern QUARN_EVENT_DETECT_HANDLE g_event_detect;
