// Modem event detection: watches kernel device events for the modem's interface devices, and the
// modem's state file.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>

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
    const char* device_path = nullptr;
    int32_t major = 0;
    int32_t minor = 0;
};

class QUARN_EVENT_DETECT_HANDLE : public QUARN_HANDLE {
  public:
    QUARN_EVENT_DETECT_HANDLE() : QUARN_HANDLE(HANDLE_EVENT_DETECT) {}

    int32_t init() override;
    // 0, or 1 when the socket for device events could not be opened.
    int32_t start() override;
    int32_t stop() override;

    // Reads a device event as the kernel sends it: NUL-terminated "KEY=value" texts, closed by an
    // empty one.
    static QUARN_EVENT parse_uevent(char const* message, event_info* info);

  private:
    // The descriptor, or -1.
    int open_uevent_socket();
    void quarn_event_detect_handle_thread();
    void quarn_event_process_thread();

    int uevent_fd = -1;  // -1: closed
    std::atomic<bool> detect_running{false};
    std::thread detect_thread;
    std::atomic<bool> md_ready_seen{false};
    std::atomic<bool> process_running{false};
    std::thread process_thread;
    std::deque<QUARN_EVENT> event_queue;
    std::mutex queue_mutex;
    std::condition_variable queue_cond;
};
