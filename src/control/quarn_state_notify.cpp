#include "control/quarn_state_notify.h"

#include <cutils/sockets.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

#include "control/client_pace.h"
#include "control/protocol.h"
#include "core/listener_thread.h"
#include "platform/quarn_log.h"

namespace {

namespace protocol = quarn::protocol;

constexpr int kBacklog = 4;
constexpr timeval kSelectTimeout = {.tv_sec = 5, .tv_usec = 0};
constexpr std::chrono::milliseconds kIdlePause(100);
constexpr std::chrono::seconds kAcceptFailPause(1);

constexpr int kMaxNotifyTimeoutMs = 1000;  // exclusive
constexpr int kUpdateTimeoutMs = 50;
constexpr int kRebootTimeoutMs = 10;
constexpr size_t kMessageSize = 128;
constexpr int kSelectAttempts = 2;

struct Subscriber {
    int32_t fd = -1;  // non-blocking; negative: the slot is free
};

// Held during a whole start or stop. Guards `listen_fd` and `listener`. The listener thread reads
// both without this mutex and never takes it. Locked before `subscriber_mutex`.
std::mutex lifecycle_mutex;
std::atomic<int> running{0};
int listen_fd = -1;
quarn::zorvex::ListenerThread listener;

std::mutex subscriber_mutex;  // guards the slots
std::array<Subscriber, protocol::kMaxClients> subscribers;

// Returns the listening socket, or -1.
int create_listen_socket() {
    const int fd = socket_local_server(protocol::kNotifySocket, ANDROID_SOCKET_NAMESPACE_ABSTRACT,
                                       SOCK_STREAM);
    if (fd < 0) {
        QUARN_LOGE("quarn_stateNotify: create listen_fd fail, rc=%d", fd);
        return -1;
    }
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    if (fd >= FD_SETSIZE) {
        QUARN_LOGE("quarn_stateNotify: listen_fd=%d is too large for select", fd);
        close(fd);
        return -1;
    }
    if (const int rc = listen(fd, kBacklog); rc != 0) {
        QUARN_LOGE("quarn_stateNotify: set listen_fd=%d listen fail, rc=%d\n", fd, rc);
        close(fd);
        return -1;
    }
    return fd;
}

// REQUIRES: subscriber_mutex is held.
void close_subscriber(Subscriber& subscriber) {
    QUARN_LOGI("quarn_stateNotify: Closing client fd=%d.", subscriber.fd);
    close(subscriber.fd);
    subscriber = Subscriber();
}

// Closes the subscribers that have stayed connected since the last stop. A new start begins with
// free slots.
void free_all_slots() {
    std::lock_guard lock(subscriber_mutex);
    for (Subscriber& subscriber : subscribers) {
        if (subscriber.fd >= 0) close_subscriber(subscriber);
    }
}

bool make_nonblocking(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0) {
        QUARN_LOGE("quarn_stateNotify: fcntl F_GETFL fd=%d fail, errno = %s", fd, strerror(errno));
        return false;
    }
    if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        QUARN_LOGE("quarn_stateNotify: fcntl F_SETFL fd=%d fail, errno = %s", fd, strerror(errno));
        return false;
    }
    return true;
}

bool is_dead(int fd) {
    pollfd subscriber = {.fd = fd, .events = 0, .revents = 0};
    if (poll(&subscriber, 1, 0) < 0) {
        QUARN_LOGW("quarn_stateNotify: poll error for fd=%d, errno=%s.", fd, strerror(errno));
        return false;
    }
    if ((subscriber.revents & (POLLERR | POLLHUP)) == 0) return false;
    QUARN_LOGI("quarn_stateNotify: fd=%d has POLLERR or POLLHUP.", fd);
    return true;
}

// Puts the new subscriber into the first slot that is free or whose subscriber has disconnected.
void add_subscriber(int fd) {
    {
        std::lock_guard lock(subscriber_mutex);
        for (Subscriber& subscriber : subscribers) {
            if (subscriber.fd >= 0) {
                if (!is_dead(subscriber.fd)) continue;
                close_subscriber(subscriber);
            }
            subscriber.fd = fd;
            QUARN_LOGI("quarn_stateNotify: accept fd=%d", fd);
            return;
        }
    }
    close(fd);
    QUARN_LOGE("quarn_stateNotify: array full, accept fd=%d fail", fd);
}

void accept_subscriber() {
    quarn::zorvex::AwaitClientTurn();
    QUARN_LOGI("quarn_stateNotify: begin to accept from listen_fd=%d", listen_fd);
    const int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        QUARN_LOGE("quarn_stateNotify: accept from listen_fd=%d fail, errno = %s", listen_fd,
                   strerror(errno));
        std::this_thread::sleep_for(kAcceptFailPause);
        return;
    }
    if (fd >= FD_SETSIZE) {
        close(fd);
        QUARN_LOGE("quarn_stateNotify: accept fd=%d fail, too large for select", fd);
        return;
    }
    if (!make_nonblocking(fd)) {
        close(fd);
        return;
    }
    add_subscriber(fd);
}

void listen_once() {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(listen_fd, &readable);
    timeval timeout = kSelectTimeout;
    int ready;
    {
        const quarn::zorvex::ListenerThread::Wait wait(listener);
        ready = select(listen_fd + 1, &readable, nullptr, nullptr, &timeout);
    }
    if (ready < 0) QUARN_LOGE("quarn_stateNotify: select failed, errno = %s", strerror(errno));
    if (ready <= 0) {
        std::this_thread::sleep_for(kIdlePause);
        return;
    }
    QUARN_LOGI("quarn_stateNotify: select done");
    if (FD_ISSET(listen_fd, &readable)) accept_subscriber();
}

void quarn_stateNotify_listen_thread(void*) {
    QUARN_LOGI("quarn_stateNotify: listen_thread start");
    while (running == 1) listen_once();
    // The message names the thread of the command socket. Readers of the log know it in this form.
    QUARN_LOGI("quarn_stateNotify: quarn_ctrlConn_listen_thread terminate");
}

// Fills the set with the descriptors of all subscribers. Returns the largest one, or 0 if there is
// none.
int collect_subscribers(fd_set& set) {
    FD_ZERO(&set);
    int max_fd = 0;
    std::lock_guard lock(subscriber_mutex);
    for (const Subscriber& subscriber : subscribers) {
        if (subscriber.fd < 0) continue;
        FD_SET(subscriber.fd, &set);
        max_fd = std::max(max_fd, subscriber.fd);
    }
    return max_fd;
}

// Returns false if the subscriber took only a part of the message. A subscriber whose socket fails
// is disconnected, which does not count as a failure. REQUIRES: subscriber_mutex is held.
bool send_to(Subscriber& subscriber, const void* buf, size_t len) {
    const int fd = subscriber.fd;
    const ssize_t sent = sendto(fd, buf, len, 0, nullptr, 0);
    if (sent < 0) {
        QUARN_LOGE("quarn_stateNotify: Fail to send data to fd=%d, errno = %s", fd,
                   strerror(errno));
        close_subscriber(subscriber);
        return true;
    }
    if (static_cast<size_t>(sent) < len) {
        QUARN_LOGE("quarn_stateNotify: Data paritially sent to fd=%d", fd);
        return false;
    }
    QUARN_LOGI("quarn_stateNotify: Data fully sent to fd=%d", fd);
    return true;
}

// `who` is the name of the caller in messages.
int notify_update(const char* who, const char* word, int value) {
    char message[kMessageSize] = {};
    const int length = snprintf(message, sizeof(message), "%s,%d", word, value);
    if (length <= 0) {
        QUARN_LOGE("%s: snprintf error, errno=%s", who, strerror(errno));
        return -1;
    }
    if (static_cast<size_t>(length) >= sizeof(message)) {
        QUARN_LOGE("%s: format buffer overflow.", who);
        return -1;
    }
    return quarn_stateNotify(message, length + 1, kUpdateTimeoutMs);
}

}  // namespace

int quarn_start_state_notify_socket_server() {
    std::lock_guard lock(lifecycle_mutex);
    // While the server runs, the name of its socket is in use. So a second start fails here and
    // does not affect the running server.
    const int fd = create_listen_socket();
    if (fd < 0) {
        QUARN_LOGE("quarn_stateNotify: create listen_fd fail");
        return -1;
    }
    listen_fd = fd;
    QUARN_LOGI("quarn_stateNotify: create listen_fd=%d success", listen_fd);
    free_all_slots();
    running = 1;
    if (const int error = listener.Create("quarn_state", quarn_stateNotify_listen_thread);
        error != 0) {
        QUARN_LOGE("quarn_stateNotify: state callback thread fail, errno=%d(%s)", error,
                   strerror(error));
        return -1;
    }
    return 0;
}

void quarn_stop_state_notify_socket_server() {
    std::lock_guard lock(lifecycle_mutex);
    if (running.exchange(0) != 1) {
        QUARN_LOGI("quarn_stateNotify: already stop listen");
        return;
    }
    if (listener.Exists()) {
        listener.Interrupt();
        QUARN_LOGI("quarn_stateNotify: join");
        listener.Join();
    }
    shutdown(listen_fd, SHUT_RDWR);
    close(listen_fd);
    listen_fd = -1;
}

int quarn_stateNotify(const void* buf, int len, int timeout_ms) {
    if (timeout_ms >= kMaxNotifyTimeoutMs) {
        QUARN_LOGE("quarn_stateNotify: expect timeout_ms to be less than 1000ms.");
        return -1;
    }
    fd_set writable;
    int ready = -1;
    for (int attempt = 1; attempt <= kSelectAttempts; ++attempt) {
        const int max_fd = collect_subscribers(writable);
        if (max_fd == 0) {
            QUARN_LOGI("quarn_stateNotify: no callback client connected!");
            return 0;
        }
        // The mutex is not held during the wait, so the slots may change. They are read again
        // below. EBADF means that a subscriber was disconnected meanwhile: another attempt sends
        // the message to the rest.
        timeval timeout = {.tv_sec = 0, .tv_usec = suseconds_t{timeout_ms} * 1000};
        ready = select(max_fd + 1, nullptr, &writable, nullptr, &timeout);
        if (ready >= 0 || errno != EBADF) break;
    }
    if (ready < 0) {
        QUARN_LOGE("quarn_stateNotify: select failed, errno = %s", strerror(errno));
        return ready;
    }
    if (ready == 0) {
        QUARN_LOGE("quarn_stateNotify: Timeout occurred while waiting for sockets to be writable.");
        return -1;
    }
    int result = 0;
    std::lock_guard lock(subscriber_mutex);
    for (Subscriber& subscriber : subscribers) {
        if (subscriber.fd < 0 || !FD_ISSET(subscriber.fd, &writable)) continue;
        if (!send_to(subscriber, buf, static_cast<size_t>(len))) result = -1;
    }
    return result;
}

int quarn_notifyLogModeUpdate(int mode) {
    return notify_update("quarn_notifyLogModeUpdate", protocol::kLogModeChanged, mode);
}

int quarn_notifyTransferTypeUpdate(int type) {
    return notify_update("quarn_notifyTransferTypeUpdate", protocol::kTransferTypeChanged, type);
}

void quarn_notifyModemReboot() {
    quarn_stateNotify(protocol::kReboot, static_cast<int>(strlen(protocol::kReboot)) + 1,
                      kRebootTimeoutMs);
}
