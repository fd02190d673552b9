#include "modem/quarn_tool.h"

#include <cstring>

#include "core/quarn_global.h"
#include "datapath/quarn_socket_io.h"
#include "datapath/quarn_usb_io.h"
#include "platform/mcl.h"
#include "platform/quarn_log.h"

namespace {

// Returns the channel as a socket channel, or null if it is of another kind.
QUARN_SOCKET_IO* as_socket(QUARN_IO* channel) {
    return channel->io_type == IO_TYPE_SOCKET ? static_cast<QUARN_SOCKET_IO*>(channel) : nullptr;
}

void handle_message(TCL_MSG msg) {
    switch (msg) {
        case TCL_MSG_HOST_CONNECTED:
            quarn_runHandleExec(HANDLE_WRITER, EXEC_TOOL_CONNECTED, nullptr);
            quarn_runHandleExec(HANDLE_TOOL, EXEC_TOOL_CONNECTED, nullptr);
            break;
        case TCL_MSG_HOST_DISCONNECTED:
            quarn_runHandleExec(HANDLE_TOOL, EXEC_TOOL_DISCONNECTED, nullptr);
            quarn_runHandleExec(HANDLE_WRITER, EXEC_TOOL_DISCONNECTED, nullptr);
            break;
        case TCL_MSG_RESERVED_2:
            break;
        case TCL_MSG_HOST_PORT_ERROR:
            quarn_runHandleExec(HANDLE_TOOL, EXEC_TOOL_WAKEUP, nullptr);
            break;
        default:
            QUARN_LOGE("tool_handler: receive unknown tcl_msg = %d at tcl callback", msg);
            break;
    }
}

}  // namespace

QUARN_TOOL_HANDLE::~QUARN_TOOL_HANDLE() {
    if (started) shut_down();
}

int32_t QUARN_TOOL_HANDLE::init() {
    std::lock_guard lock(lifecycle_mutex);
    tcl_registerCallback(quarn_tclCallback, this);
    tool_io = quarn_getSaveModeIo(g_quarn.transfer_type);
    return 0;
}

int32_t QUARN_TOOL_HANDLE::start() {
    std::lock_guard lock(lifecycle_mutex);
    if (tool_io == nullptr) {
        QUARN_LOGE("tool_handler: start fail, tool_io is null");
        return 1;
    }
    if (tool_io->io_type == IO_TYPE_FILE) {
        QUARN_LOGI("tool_handler: not support when io is file");
        return 0;
    }
    if (is_at_work()) {
        QUARN_LOGI("tool_handler: already start");
        return 0;
    }
    if (started) shut_down();  // the threads have given up
    if (tool_io->io_open() != 0) {
        QUARN_LOGE("tool_handler: open io port fail");
        return 1;
    }
    {
        std::lock_guard tool_lock(tool_mutex);
        started = true;
        gave_up = false;
    }
    const bool working =
        as_socket(tool_io) != nullptr
            ? create_thread(wait_connect_thread, "quarn_tool_wait",
                            [](void* self) {
                                static_cast<QUARN_TOOL_HANDLE*>(self)->wait_socket_connect_thread();
                            })
            : begin_serving();
    if (!working) {
        shut_down();
        return 1;
    }
    QUARN_LOGI("tool_handler: start success");
    return 0;
}

int32_t QUARN_TOOL_HANDLE::stop() {
    std::lock_guard lock(lifecycle_mutex);
    stop_locked();
    return 0;
}

void QUARN_TOOL_HANDLE::stop_locked() {
    if (tool_io == nullptr) return;
    if (tool_io->io_type == IO_TYPE_FILE) {
        QUARN_LOGI("tool_handler: not support when io is file");
        return;
    }
    shut_down();
    QUARN_LOGI("tool_handler: stop success");
}

// Ends listening, then the threads, then closes the channel. Also works if only a part was started.
void QUARN_TOOL_HANDLE::shut_down() {
    {
        std::lock_guard lock(tool_mutex);
        started = false;
        running = false;
    }
    stop_listening();
    tool_cond.notify_all();
    end_threads();
    tool_io->io_close();
    if (as_socket(tool_io) == nullptr) static_cast<QUARN_USB_IO*>(tool_io)->io_delete();
}

void QUARN_TOOL_HANDLE::end_threads() {
    // In this order, because the first thread may create the second one.
    join_thread(wait_connect_thread);
    join_thread(host_port_error_thread);
}

void QUARN_TOOL_HANDLE::join_thread(Thread& thread) {
    if (!thread.Exists()) return;
    const auto end_wait = [this] {
        QUARN_SOCKET_IO* const host = as_socket(tool_io);
        if (host != nullptr && !host->is_connected()) host->stop_wait_connect();
    };
    end_wait();
    thread.Join(end_wait);
}

bool QUARN_TOOL_HANDLE::is_at_work() {
    std::lock_guard lock(tool_mutex);
    return started && !gave_up;
}

void QUARN_TOOL_HANDLE::give_up() {
    std::lock_guard lock(tool_mutex);
    gave_up = true;
    running = false;
}

bool QUARN_TOOL_HANDLE::create_thread(Thread& thread, const char* name, Thread::Body body) {
    const int error = thread.Create(name, body, this);
    if (error == 0) return true;
    QUARN_LOGE("tool_handler: create thread fail, errno=%d(%s)", error, strerror(error));
    return false;
}

// Creates the thread that recovers the port, and begins to listen. Returns false if the thread
// could not be created. Does nothing after `stop`. Called when a USB port is open or a host has
// connected.
bool QUARN_TOOL_HANDLE::begin_serving() {
    {
        std::lock_guard lock(tool_mutex);
        if (!started) return true;
        running = true;
        port_error = false;  // an error from before does not count
    }
    // Held until the library listens. So a port error that comes at once is handled afterwards.
    std::lock_guard lock(listen_mutex);
    if (!create_thread(host_port_error_thread, "quarn_tool_port", [](void* self) {
            static_cast<QUARN_TOOL_HANDLE*>(self)->host_port_error_handle_thread();
        })) {
        give_up();
        return false;
    }
    start_listening();
    return true;
}

// REQUIRES: listen_mutex is held.
void QUARN_TOOL_HANDLE::start_listening() {
    if (running) tcl_listenToHostStart(tool_io->fd, mcl_writeToLogPort);
}

void QUARN_TOOL_HANDLE::stop_listening() {
    std::lock_guard lock(listen_mutex);
    tcl_listenToHostStop();
}

void QUARN_TOOL_HANDLE::wait_socket_connect_thread() {
    QUARN_LOGI("tool_handler: wait_socket_connect_thread start");
    QUARN_SOCKET_IO* const host = as_socket(tool_io);
    host->wait_connect();
    if (host->is_connected()) {
        begin_serving();
    } else {
        give_up();
        QUARN_LOGE("tool_handler: wait socket connect fail");
    }
    QUARN_LOGI("tool_handler: wait_socket_connect_thread terminate");
}

void QUARN_TOOL_HANDLE::host_port_error_handle_thread() {
    QUARN_LOGI("tool_handler: host_port_error_handle_thread start");
    while (wait_for_port_error() && recover()) {
    }
    QUARN_LOGI("tool_handler: host_port_error_handle_thread terminate");
}

// Returns false if the thread must end.
bool QUARN_TOOL_HANDLE::wait_for_port_error() {
    std::unique_lock lock(tool_mutex);
    tool_cond.wait(lock, [this] { return port_error || !running; });
    port_error = false;
    return running;
}

// Recovers the port. All errors that are reported during the recovery count as one more error after
// it. Returns false if the thread must end.
bool QUARN_TOOL_HANDLE::recover() {
    QUARN_LOGI("tool_handler: start handle host port error");
    stop_listening();
    if (!reach_host_again()) return false;
    std::lock_guard lock(listen_mutex);
    start_listening();
    return true;
}

bool QUARN_TOOL_HANDLE::reach_host_again() {
    QUARN_SOCKET_IO* const host = as_socket(tool_io);
    if (host == nullptr) {
        tool_io->io_close();
        if (tool_io->io_open() == 0) return true;
        give_up();
        QUARN_LOGE("tool_handler: open usb port fail");
        return false;
    }
    host->disconnect();
    host->wait_connect();
    if (host->is_connected()) return true;
    give_up();
    QUARN_LOGE("tool_handler: wait socket connect fail");
    return false;
}

int32_t QUARN_TOOL_HANDLE::exec(QUARN_EXEC_ID exec_id, void* arg) {
    QUARN_LOGI("tool_handler: handle exec_id=%d", exec_id);
    switch (exec_id) {
        case EXEC_SET_SAVE_MODE:
            set_save_mode(static_cast<const QUARN_SAVE_MODE*>(arg));
            break;
        case EXEC_START:
            start();
            break;
        case EXEC_TOOL_WAKEUP: {
            std::lock_guard lock(tool_mutex);
            port_error = true;
            tool_cond.notify_all();
            break;
        }
        default:
            break;
    }
    QUARN_LOGI("tool_handler: handle exec_id=%d done", exec_id);
    return 0;
}

void QUARN_TOOL_HANDLE::set_save_mode(const QUARN_SAVE_MODE* mode) {
    if (mode == nullptr) {
        QUARN_LOGE("tool_handler: arg is NULL");
        return;
    }
    std::lock_guard lock(lifecycle_mutex);
    stop_locked();
    tool_io = quarn_getSaveModeIo(*mode);
}

int quarn_tclCallback(void* /*user*/, TCL_MSG msg) {
    QUARN_LOGI("tool_handler: handle tcl_msg=%d", msg);
    quarn_runCallback([msg] { handle_message(msg); });
    QUARN_LOGI("tool_handler: handle tcl_msg=%d done", msg);
    return 0;
}
