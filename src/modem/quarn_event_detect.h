// Modem event detection: watches kernel device events for the modem's interface devices, and the
// modem's state file.
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
    EVENT_MIPC_PORT_ADDED = 2,
};

// What a device event says; the texts point into the message that was parsed, null when missing.
struct event_info {
    const char* device_name = nullptr;
    const char* action = nullptr;
    const char* subsystem = nullptr;
};

class QUARN_EVENT_DETECT_HANDLE : public QUARN_HANDLE {
  public:
    QUARN_EVENT_DETECT_HANDLE() : QUARN_HANDLE(HANDLE_EVENT_DETECT) {}
    ~QUARN_EVENT_DETECT_HANDLE() override;

    // These three are called by one thread.
    int32_t init() override;
    // 0, or 1 when the socket for device events could not be opened or a thread not be created;
    // what could be started runs, and another start tries the rest again.
    int32_t start() override;
    // Joins both threads. A restart that is under way is finished first, which takes some seconds
    // and `exec_mutex`: not to be called with that held. Removals that still wait are dropped.
    int32_t stop() override;

    // Reads a device event as the kernel sends it: NUL-terminated "KEY=value" texts, closed by an
    // empty one. A message of any other content is safe as long as two NULs end it. Sets the fields
    // of `info` that the message has, leaves the others.
    static QUARN_EVENT parse_uevent(char const* message, event_info* info);

  private:
    bool start_processing();
    bool start_detecting();
    bool create_detect_thread();
    void ask_detecting_to_end();
    void end_detecting();
    void ask_processing_to_end();
    // The descriptor, or -1.
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

    int uevent_fd = -1;  // -1: closed; set while there is no detect thread, which reads it
    std::atomic<bool> detect_running{false};
    quarn::zorvex::ListenerThread detect_thread;
    std::atomic<bool> md_ready_seen{false};

    std::atomic<bool> process_running{false};  // cleared under `queue_mutex`
    std::thread process_thread;
    std::deque<QUARN_EVENT> event_queue;
    bool queue_overflows = false;  // events are being dropped, which has been told
    std::mutex queue_mutex;        // guards the two above
    std::condition_variable queue_cond;
};

extern QUARN_EVENT_DETECT_HANDLE g_event_detect;
