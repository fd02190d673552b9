#include "datapath/quarn_socket_io.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "platform/quarn_log.h"

namespace {

constexpr std::chrono::milliseconds kAcceptBackOff(200);
constexpr std::chrono::seconds kErrorBackOff(1);
constexpr int kWaitTimeoutMs = 5000;

// Waits up to 5 s for a host. Returns a positive number if one can be accepted, 0 after a time-out,
// or -1 with errno set.
int wait_readable(int socket_fd) {
    pollfd listening = {.fd = socket_fd, .events = POLLIN, .revents = 0};
    const int ready = poll(&listening, 1, kWaitTimeoutMs);
    if (ready <= 0 || (listening.revents & POLLNVAL) == 0) return ready;
    errno = EBADF;
    return -1;
}

}  // namespace

bool QUARN_SOCKET_IO::is_connected() const { return fd >= 0; }

void QUARN_SOCKET_IO::stop_wait_connect() { is_waiting = 0; }

void QUARN_SOCKET_IO::wait_connect() {
    std::lock_guard lock(wait_mutex);
    if (const int accept_fd = fd; accept_fd >= 0) {
        QUARN_LOGI("socket_io: accept_fd=%d already connect", accept_fd);
        return;
    }
    is_waiting = 1;
    if (!is_closed) wait_for_host();
    is_waiting = 0;
}

void QUARN_SOCKET_IO::wait_for_host() {
    do {
        if (is_waiting != 1) return;
        const int listening = server_socket;
        if (listening < 0) {
            QUARN_LOGE("socket_io: server_socket is not open");
            return;
        }
        const int ready = wait_readable(listening);
        if (ready < 0) {
            QUARN_LOGE("socket_io: server_socket=%d select failed, errno = %s", listening,
                       strerror(errno));
            std::this_thread::sleep_for(kErrorBackOff);
        } else if (ready > 0) {
            if (connect() == 0) {
                QUARN_LOGI("socket_io: wait socket connect success");
                return;
            }
            QUARN_LOGE("socket_io: wait socket connect socket fail");
            std::this_thread::sleep_for(kErrorBackOff);
        }
    } while (!is_closed);
}

int QUARN_SOCKET_IO::connect() {
    while (!is_closed) {
        if (is_waiting != 1) return -1;
        const int listening = server_socket;
        sockaddr_in peer = {};
        socklen_t length = sizeof(peer);
        const int accept_fd =
            accept4(listening, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC);
        const int error = errno;
        fd = accept_fd;
        if (accept_fd >= 0) {
            char ip[INET_ADDRSTRLEN] = "";
            inet_ntop(AF_INET, &peer.sin_addr, ip, sizeof(ip));
            QUARN_LOGI("socket_io: connect to ip=%s success, accept_fd = %d", ip, accept_fd);
            return 0;
        }
        QUARN_LOGE("socket_io: server_socket=%d accept fail, errno=%s", listening, strerror(error));
        if (error != EAGAIN) return -1;
        std::this_thread::sleep_for(kAcceptBackOff);
    }
    return -1;
}

void QUARN_SOCKET_IO::disconnect() {
    std::lock_guard lock(io_mutex);
    const int accept_fd = fd.exchange(-1);
    if (accept_fd < 0) {
        QUARN_LOGI("socket_io: accept_fd=%d already disconnect", accept_fd);
        return;
    }
    const int rc = close(accept_fd);
    QUARN_LOGI("socket_io: disconnect accept_fd=%d, rc=%d", accept_fd, rc);
}
