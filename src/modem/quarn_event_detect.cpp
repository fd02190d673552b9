#include "modem/quarn_event_detect.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>

#include "control/quarn_state_notify.h"
#include "core/named_thread.h"
#include "core/system_utility.h"
#include "modem/ctrl_port.h"
#include "platform/quarn_log.h"

namespace {

constexpr std::string_view kSubsystem = "vqmi";
constexpr const char* kLogDevice = "wwanD0MDLog";
constexpr const char* kMipcDevice = "wwanD0MIPC0";

constexpr const char* kStateFile = "/dev/wwan_fsm_state";
constexpr size_t kStateSize = 63;
constexpr std::string_view kStateReady = "state=6";

// Bytes. A message of this size may have been cut, so it is dropped.
constexpr size_t kMaxMessage = 2048;
// Bytes. The device manager of a phone requests the same size. A process without capabilities gets
// at most the kernel's general limit; the kernel doubles the size.
constexpr int kReceiveBuffer = 256 * 1024;
constexpr int kWaitTimeoutMs = 5000;
constexpr std::chrono::seconds kErrorPause(1);

// Real events come one by one, minutes apart, so this many at once are not real. The process thread
// is then busy with a removal, and after that restart none of the waiting events matters.
constexpr size_t kMaxEvents = 64;

// Returns the part of the text behind the key, or null if the text does not begin with the key.
const char* value_of(const char* text, std::string_view key) {
    return strncmp(text, key.data(), key.size()) == 0 ? text + key.size() : nullptr;
}

void read_field(const char* text, event_info& info) {
    if (const char* const action = value_of(text, "ACTION=")) {
        info.action = action;
    } else if (const char* const subsystem = value_of(text, "SUBSYSTEM=")) {
        info.subsystem = subsystem;
    } else if (const char* const name = value_of(text, "DEVNAME=")) {
        info.device_name = name;
    }
}

// `who` is the name of the caller in the message.
void close_fd(int fd, const char* who) {
    if (close(fd) != 0) QUARN_LOGE("%s: close fd %d fail, errno=%s", who, fd, strerror(errno));
}

// `port` is a netlink port id. With 0 the kernel chooses one.
bool bind_to_port(int fd, pid_t port) {
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_pid = static_cast<uint32_t>(port);
    address.nl_groups = 0xFFFFFFFF;
    return bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

// Binds to the process id as port id. Another socket of this process, for example of a closed
// library, may already have this port id; then the kernel chooses one.
bool bind_to_any_port(int fd) {
    if (bind_to_port(fd, getpid())) return true;
    if (errno != EADDRINUSE) return false;
    QUARN_LOGW("event_detect_handle: port id %d is taken, the kernel chooses another", getpid());
    return bind_to_port(fd, 0);
}

// Setting the property is the last step, because init kills the daemon soon after it.
void restart_daemon() {
    quarn_request(HANDLE_WRITER, EXEC_MD_LOG_STOP, nullptr);
    quarn_stop_state_notify_socket_server();
    quarn_notifyModemReboot();
    QUARN_LOGE("event_detect_handle: restart quarn");
    quarn_property_set("vendor.quarn.qrx.restart", "1");
}

}  // namespace

QUARN_EVENT_DETECT_HANDLE::~QUARN_EVENT_DETECT_HANDLE() {
    if (detect_running) {
        ask_detecting_to_end();
        end_detecting();
    }
    if (process_running) {
        ask_processing_to_end();
        process_thread.join();
    }
}

int32_t QUARN_EVENT_DETECT_HANDLE::init() {
    uevent_fd = -1;
    detect_running = false;
    md_ready_seen = false;
    process_running = false;
    return 0;
}

int32_t QUARN_EVENT_DETECT_HANDLE::start() {
    const bool processing = start_processing();
    const bool detecting = start_detecting();
    return processing && detecting ? 0 : 1;
}

int32_t QUARN_EVENT_DETECT_HANDLE::stop() {
    if (detect_running) {
        ask_detecting_to_end();
        QUARN_LOGI("event_detect_handle: wait event_detect_handle_thread joinable");
        end_detecting();
        QUARN_LOGI("event_detect_handle: stop success");
    } else {
        QUARN_LOGI("event_detect_handle: already stop");
    }
    if (process_running) {
        ask_processing_to_end();
        QUARN_LOGI("event_process: wait quarn_event_process_thread joinable");
        process_thread.join();
        QUARN_LOGI("event_process: stop success");
    } else {
        QUARN_LOGI("event_process: already stop");
    }
    return 0;
}

bool QUARN_EVENT_DETECT_HANDLE::start_processing() {
    if (process_running) {
        QUARN_LOGI("event_process: already start");
        return true;
    }
    {
        // Events that the last stop left in the queue are out of date.
        std::lock_guard lock(queue_mutex);
        event_queue.clear();
        queue_overflows = false;
        process_running = true;
    }
    if (!quarn_startThread(process_thread, "quarn_event", "event_process",
                           [this] { quarn_event_process_thread(); })) {
        process_running = false;
        return false;
    }
    QUARN_LOGI("event_process: start success");
    return true;
}

bool QUARN_EVENT_DETECT_HANDLE::start_detecting() {
    if (detect_running) {
        QUARN_LOGI("event_detect_handle: already start");
        return true;
    }
    uevent_fd = open_uevent_socket();
    if (uevent_fd < 0) return false;
    detect_running = true;
    if (!create_detect_thread()) {
        detect_running = false;
        end_detecting();
        return false;
    }
    QUARN_LOGI("event_detect_handle: start success");
    return true;
}

bool QUARN_EVENT_DETECT_HANDLE::create_detect_thread() {
    const auto body = [](void* self) {
        static_cast<QUARN_EVENT_DETECT_HANDLE*>(self)->quarn_event_detect_handle_thread();
    };
    const int error = detect_thread.Create("quarn_uevent", body, this);
    if (error == 0) return true;
    QUARN_LOGE("event_detect_handle: create thread fail, errno=%d(%s)", error, strerror(error));
    return false;
}

void QUARN_EVENT_DETECT_HANDLE::ask_detecting_to_end() {
    detect_running = false;
    detect_thread.Interrupt();
}

// Joins the thread, if there is one, and closes its socket.
void QUARN_EVENT_DETECT_HANDLE::end_detecting() {
    if (detect_thread.Exists()) detect_thread.Join();
    close_fd(uevent_fd, "event_detect_handle");
    uevent_fd = -1;
}

void QUARN_EVENT_DETECT_HANDLE::ask_processing_to_end() {
    {
        std::lock_guard lock(queue_mutex);
        process_running = false;
    }
    queue_cond.notify_one();
}

int QUARN_EVENT_DETECT_HANDLE::open_uevent_socket() {
    const int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    if (fd < 0) {
        QUARN_LOGE("event_detect_handle: open_uevent_socket fd<0, errno=%s", strerror(errno));
        return -1;
    }
    const int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0) {
        QUARN_LOGE("event_detect_handle: set SO_PASSCRED failed, errno=%s", strerror(errno));
    }
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof(kReceiveBuffer)) != 0) {
        QUARN_LOGE("event_detect_handle: set SO_RCVBUF failed, errno=%s", strerror(errno));
    }
    if (!bind_to_any_port(fd)) {
        QUARN_LOGE("event_detect_handle: open_uevent_socket bind failed, errno=%s",
                   strerror(errno));
        close_fd(fd, "event_detect_handle");
        return -1;
    }
    if (fcntl(fd, F_SETFL, O_NONBLOCK) != 0) {
        QUARN_LOGE("event_detect_handle: set file flags failed, errno=%s", strerror(errno));
    }
    return fd;
}

QUARN_EVENT QUARN_EVENT_DETECT_HANDLE::parse_uevent(char const* message, event_info* info) {
    for (const char* text = message; *text != '\0'; text += strlen(text) + 1) {
        read_field(text, *info);
    }
    if (info->subsystem == nullptr || info->device_name == nullptr || info->action == nullptr) {
        return EVENT_NONE;
    }
    const std::string_view name = info->device_name;
    const std::string_view action = info->action;
    if (info->subsystem != kSubsystem) return EVENT_NONE;
    if (name == kLogDevice && action == "remove") {
        QUARN_LOGI("event_detect_handle: %s is removed\n", kLogDevice);
        return EVENT_MD_LOG_PORT_REMOVED;
    }
    if (name == kMipcDevice && action == "add") {
        QUARN_LOGI("event_detect_handle: %s is recover\n", kMipcDevice);
        return EVENT_MIPC_PORT_ADDED;
    }
    return EVENT_NONE;
}

void QUARN_EVENT_DETECT_HANDLE::quarn_event_detect_handle_thread() {
    QUARN_LOGI("event_detect_handle: event_detect_handle_thread start");
    QUARN_LOGI("event_detect_handle: uevent_socket_server = %d\n", uevent_fd);
    while (detect_running) detect_once();
    QUARN_LOGI("event_detect_handle: thread terminate");
}

// Waits for one message and queues its event. If no message comes within kWaitTimeoutMs, checks
// whether the modem is ready, until it is.
void QUARN_EVENT_DETECT_HANDLE::detect_once() {
    const int ready = wait_for_message();
    if (!detect_running) return;
    if (ready > 0) {
        receive_message();
    } else if (ready < 0) {
        QUARN_LOGE("event_detect_handle: select failed, errno = %s", strerror(errno));
        std::this_thread::sleep_for(kErrorPause);
    } else if (!md_ready_seen && quarn_checkMdReady()) {
        QUARN_LOGI("event_detect_handle: md ready");
        quarn_setCtrlPortReady();
        md_ready_seen = true;
    }
}

// Returns a positive value if there is a message, 0 after a time-out, or -1 with errno set.
int QUARN_EVENT_DETECT_HANDLE::wait_for_message() {
    pollfd socket = {.fd = uevent_fd, .events = POLLIN, .revents = 0};
    const quarn::zorvex::ListenerThread::Wait wait(detect_thread);
    const int ready = poll(&socket, 1, kWaitTimeoutMs);
    if (ready <= 0 || (socket.revents & POLLNVAL) == 0) return ready;
    errno = EBADF;
    return -1;
}

// Returns true if the modem's state file says that the modem is ready. A missing or empty file
// counts as not ready. The file is opened without blocking, since it may be a pipe, or its driver
// may wait for a change of the state. A driver that blocks all the same delays device events until
// `stop` interrupts it.
bool QUARN_EVENT_DETECT_HANDLE::quarn_checkMdReady() {
    std::array<char, kStateSize> state;
    ssize_t length = -1;
    int fd;
    {
        const quarn::zorvex::ListenerThread::Wait wait(detect_thread);
        fd = open(kStateFile, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
        if (fd >= 0 && detect_running) length = read(fd, state.data(), state.size());
    }
    if (fd < 0) return false;
    close_fd(fd, "quarn_checkMdReady");
    return length > 0 &&
           std::string_view(state.data(), static_cast<size_t>(length)).starts_with(kStateReady);
}

void QUARN_EVENT_DETECT_HANDLE::receive_message() {
    std::array<char, kMaxMessage + 2> buffer = {};
    const ssize_t received =
        recvfrom(uevent_fd, buffer.data(), kMaxMessage, MSG_DONTWAIT, nullptr, nullptr);
    if (received < 0 && errno == ENOBUFS) {
        QUARN_LOGW("event_detect_handle: receive buffer overflow, device events are lost");
    }
    if (received < 1 || received == kMaxMessage) return;
    // Two NULs end the last text and the message, even if the sender has left them out.
    const auto length = static_cast<size_t>(received);
    buffer[length] = buffer[length + 1] = '\0';
    event_info info;
    const QUARN_EVENT event = parse_uevent(buffer.data(), &info);
    if (event != EVENT_NONE) push_event(event);
}

void QUARN_EVENT_DETECT_HANDLE::push_event(QUARN_EVENT event) {
    {
        std::lock_guard lock(queue_mutex);
        if (event_queue.size() >= kMaxEvents) {
            if (!queue_overflows) {
                QUARN_LOGE("event_detect_handle: %zu events wait, more are dropped", kMaxEvents);
            }
            queue_overflows = true;
            return;
        }
        queue_overflows = false;
        event_queue.push_back(event);
    }
    queue_cond.notify_one();
}

void QUARN_EVENT_DETECT_HANDLE::quarn_event_process_thread() {
    QUARN_LOGI("event_process: quarn_event_process_thread start");
    // Only a removal causes something. EVENT_MIPC_PORT_ADDED is taken and ignored.
    while (wait_for_events()) {
        if (!take_events()) continue;
        restart_daemon();
        take_events();  // this restart also serves the removals that came during it
    }
    QUARN_LOGI("event_process: thread terminate");
}

// Returns false if the thread must end.
bool QUARN_EVENT_DETECT_HANDLE::wait_for_events() {
    std::unique_lock lock(queue_mutex);
    queue_cond.wait(lock, [this] { return !process_running || !event_queue.empty(); });
    return process_running;
}

// Removes all events from the queue. Returns true if one of them is a removal of the log device.
bool QUARN_EVENT_DETECT_HANDLE::take_events() {
    std::lock_guard lock(queue_mutex);
    const auto removal =
        std::find(event_queue.begin(), event_queue.end(), EVENT_MD_LOG_PORT_REMOVED);
    const bool removed = removal != event_queue.end();
    event_queue.clear();
    return removed;
}
