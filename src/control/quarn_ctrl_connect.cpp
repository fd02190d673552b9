#include "control/quarn_ctrl_connect.h"

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
#include <cstring>
#include <mutex>
#include <thread>

#include "control/client_pace.h"
#include "control/protocol.h"
#include "control/quarn_state_notify.h"
#include "core/listener_thread.h"
#include "platform/quarn_log.h"

namespace {

constexpr int kBacklog = 4;
constexpr timeval kSelectTimeout = {.tv_sec = 5, .tv_usec = 0};
constexpr timeval kSendTimeout = {.tv_sec = 1, .tv_usec = 0};
constexpr std::chrono::milliseconds kIdlePause(100);
constexpr std::chrono::seconds kAcceptFailPause(1);

constexpr int kPieceTimeoutMs = 1000;
constexpr int kPieceSize = 128;

struct Client {
    int32_t fd = -1;  // negative: the slot is free
};

// The server is started and stopped by one thread. That thread writes the variables that are not
// atomic only while there is no listener thread.
std::atomic<int> running{0};
std::atomic<bool> stopping{false};  // true: the rest of a request is not waited for
quarn_ctrl_callback handle_request = nullptr;
int listen_fd = -1;
quarn::zorvex::ListenerThread listener;

// Guards changes of the slots. While the listener thread runs, only that thread changes the slots,
// so it reads them without this mutex.
std::mutex client_mutex;
std::array<Client, quarn::protocol::kMaxClients> clients;

void close_fd(int fd) {
    if (close(fd) != 0) {
        QUARN_LOGE("ctrl_connect: close fd=%d fail, errno=%s", fd, strerror(errno));
    }
}

// Returns the listening socket, or -1.
int create_listen_socket() {
    const int fd = socket_local_server(quarn::protocol::kCommandSocket,
                                       ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM);
    if (fd < 0) {
        QUARN_LOGE("ctrl_connect: create listen_fd fail, rc=%d", fd);
        return -1;
    }
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    if (fd >= FD_SETSIZE) {
        QUARN_LOGE("ctrl_connect: listen_fd=%d is too large for select", fd);
        close_fd(fd);
        return -1;
    }
    if (const int rc = listen(fd, kBacklog); rc != 0) {
        QUARN_LOGE("ctrl_connect: set listen_fd=%d listen fail, rc=%d\n", fd, rc);
        close_fd(fd);
        return -1;
    }
    return fd;
}

// REQUIRES: client_mutex is held.
void free_slot(Client& client) { client = Client(); }

void add_client(int fd) {
    // A client that never reads its replies delays the other clients for at most kSendTimeout.
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kSendTimeout, sizeof(kSendTimeout));
    {
        std::lock_guard lock(client_mutex);
        for (Client& client : clients) {
            if (client.fd >= 0) continue;
            client.fd = fd;
            QUARN_LOGI("ctrl_connect: accept fd=%d", fd);
            return;
        }
    }
    close_fd(fd);
    QUARN_LOGE("ctrl_connect: array full, accept fd=%d fail", fd);
}

// Returns false if `accept4` failed.
bool accept_client() {
    quarn::zorvex::AwaitClientTurn();
    QUARN_LOGI("ctrl_connect: begin to accept from listen_fd=%d", listen_fd);
    const int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        QUARN_LOGE("ctrl_connect: accept from listen_fd=%d fail, errno = %s", listen_fd,
                   strerror(errno));
        return false;
    }
    if (fd >= FD_SETSIZE) {
        close_fd(fd);
        QUARN_LOGE("ctrl_connect: accept fd=%d fail, too large for select", fd);
        return true;
    }
    add_client(fd);
    return true;
}

void serve_client(Client& client) {
    const int fd = client.fd;
    QUARN_LOGI("ctrl_connect: handle fd=%d msg", fd);
    if (handle_request(fd) >= 0) return;
    {
        std::lock_guard lock(client_mutex);
        close_fd(fd);
        free_slot(client);
    }
    QUARN_LOGE("ctrl_connect: handle fd=%d msg fail, close it", fd);
}

void serve_readable_clients(fd_set& readable) {
    for (Client& client : clients) {
        const int fd = client.fd;
        if (fd < 0 || !FD_ISSET(fd, &readable)) continue;
        serve_client(client);
        FD_CLR(fd, &readable);
    }
}

// Waits once for clients that have sent something or want to connect, and serves them.
void listen_once() {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(listen_fd, &readable);
    int max_fd = listen_fd;
    for (const Client& client : clients) {
        if (client.fd < 0) continue;
        FD_SET(client.fd, &readable);
        max_fd = std::max(max_fd, client.fd);
    }

    timeval timeout = kSelectTimeout;
    int ready;
    {
        const quarn::zorvex::ListenerThread::Wait wait(listener);
        ready = select(max_fd + 1, &readable, nullptr, nullptr, &timeout);
    }
    if (ready < 0) QUARN_LOGE("ctrl_connect: select failed, errno = %s", strerror(errno));
    if (ready <= 0) {
        std::this_thread::sleep_for(kIdlePause);
        return;
    }
    QUARN_LOGI("ctrl_connect: select done");
    // A client that is accepted now is not in the set. It is served from the next pass on.
    if (FD_ISSET(listen_fd, &readable) && !accept_client()) {
        std::this_thread::sleep_for(kAcceptFailPause);
        return;
    }
    serve_readable_clients(readable);
}

void quarn_ctrlConn_listen_thread(void*) {
    {
        std::lock_guard lock(client_mutex);
        std::for_each(clients.begin(), clients.end(), free_slot);
    }
    QUARN_LOGI("ctrl_connect: quarn_ctrlConn_listen_thread start");
    while (running == 1) listen_once();
    QUARN_LOGI("ctrl_connect: quarn_ctrlConn_listen_thread terminate");
}

void end_listener() {
    stopping = true;
    if (const int error = listener.Interrupt(); error != 0) {
        QUARN_LOGE("ctrl_connect: pthread_kill=%lu fail, errno=%s", listener.id(), strerror(error));
    }
    QUARN_LOGI("ctrlConn_listen_thread: join");
    if (const int error = listener.Join(); error != 0) {
        QUARN_LOGE("ctrl_connect: pthread_join=%lu fail, errno=%s", listener.id(), strerror(error));
    }
    stopping = false;
}

// The next start clears all slots, so open descriptors would be lost.
void close_clients() {
    std::lock_guard lock(client_mutex);
    for (Client& client : clients) {
        if (client.fd < 0) continue;
        close_fd(client.fd);
        free_slot(client);
    }
}

// Waits until `fd` can be read. Returns a positive value if it can, even if the client has hung up.
// Returns 0 after a time-out, and a negative value on failure.
int wait_for_piece(int fd) {
    pollfd client = {.fd = fd, .events = POLLIN, .revents = 0};
    const quarn::zorvex::ListenerThread::Wait wait(listener);
    const int ready = poll(&client, 1, kPieceTimeoutMs);
    return ready > 0 && (client.revents & POLLIN) == 0 ? -1 : ready;
}

}  // namespace

int quarn_ctrlConn_startListen(quarn_ctrl_callback callback) {
    if (running == 1) {
        QUARN_LOGI("ctrl_connect: already start listen");
        return 0;
    }
    handle_request = callback;
    listen_fd = create_listen_socket();
    if (listen_fd < 0) {
        QUARN_LOGE("ctrl_connect: create listen_fd fail");
        return -1;
    }
    QUARN_LOGI("ctrl_connect: create listen_fd=%d success", listen_fd);
    running = 1;
    // If the thread cannot be created, the server still counts as started, and a later start does
    // nothing.
    if (const int error = listener.Create("quarn_ctrl", quarn_ctrlConn_listen_thread); error != 0) {
        QUARN_LOGE("ctrl_connect: ctrlConn thread fail, errno=%d(%s)", error, strerror(error));
        return -1;
    }
    return quarn_start_state_notify_socket_server() < 0 ? -1 : 0;
}

void quarn_ctrlConn_stopListen() {
    quarn_stop_state_notify_socket_server();
    if (running.exchange(0) == 0) {
        QUARN_LOGI("ctrl_connect: already stop listen");
        return;
    }
    if (listener.Exists()) end_listener();
    close_clients();
    if (shutdown(listen_fd, SHUT_RDWR) != 0) {
        QUARN_LOGE("ctrl_connect: shutdown=%d fail, errno=%s", listen_fd, strerror(errno));
    }
    close_fd(listen_fd);
    listen_fd = -1;
}

int quarn_ctrlConn_sendData(int fd, const void* buf, int len) {
    return static_cast<int>(sendto(fd, buf, static_cast<size_t>(len), 0, nullptr, 0));
}

int quarn_ctrlConn_recvData(int fd, void* buf, int len) {
    return quarn::zorvex::ReceiveByDelimiter(fd, static_cast<char*>(buf), len, "ctrl_connect: ");
}

namespace quarn::zorvex {

int ReceiveByDelimiter(int fd, char* buf, int max_len, const char* log_prefix) {
    if (max_len < 1) return 0;
    int total = 0;
    while (total < max_len) {
        const int ready = wait_for_piece(fd);
        // When the server stops, a request that is not complete yet is dropped.
        if (stopping) return 0;
        if (ready < 0) {
            QUARN_LOGE("%s: Error polling fd: %d", "ReceiveByDelimiter", fd);
            return total;
        }
        if (ready == 0) {
            QUARN_LOGW("%sWait for read ready timeout fd: %d", log_prefix, fd);
            return total;
        }
        // Each piece takes a turn, not each request, because each piece costs a pass of this loop
        // and perhaps a line in the log.
        if (running == 1) AwaitClientTurn();
        char piece[kPieceSize];
        const int wanted = std::min(kPieceSize, max_len - total);
        const auto received = static_cast<int>(recv(fd, piece, static_cast<size_t>(wanted), 0));
        if (received < 1) return total > 0 ? total : received;

        // Bytes behind the NUL are dropped with the piece.
        const char* const end = std::find(piece, piece + received, '\0');
        const bool found = end != piece + received;
        const auto taken = static_cast<int>(end - piece) + (found ? 1 : 0);
        memcpy(buf + total, piece, static_cast<size_t>(taken));
        total += taken;
        if (found) return total;
        QUARN_LOGW("%sThe delimiter of read message is not found. Read again.", log_prefix);
    }
    return total;
}

}  // namespace quarn::zorvex
