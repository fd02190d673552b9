#include "sim/console_server.h"

#include <android/log.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "sim/android_log.h"
#include "sim/clock.h"
#include "sim/modem.h"
#include "sim/socket_address.h"

namespace sim {

namespace {

constexpr time_t kClientPatience = 5;  // seconds

bool SendAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t sent = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return false;
        text.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}

std::string Wire(const Reply& reply) {
    if (reply.ok) return reply.text + std::string(kOkMark) + "\n";
    return std::string(kErrorMark) + reply.text + "\n";
}

}  // namespace

ConsoleServer::ConsoleServer(const Console& console) : console_(console) {
    const SocketAddress address(console.folder(), kConsoleSocketName);
    if (!address.ok()) return;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1) return;
    unlink(address.path());  // left by a process that was killed
    if (bind(fd, address.address(), address.size()) != 0 || chmod(address.path(), 0600) != 0 ||
        listen(fd, 8) != 0) {
        const int error = errno;
        close(fd);
        errno = error;
        return;
    }
    listen_fd_ = fd;
    thread_ = std::thread(&ConsoleServer::Serve, this);
}

ConsoleServer::~ConsoleServer() {
    if (!ok()) return;
    shutdown(listen_fd_, SHUT_RDWR);
    thread_.join();
    close(listen_fd_);
}

void ConsoleServer::Serve() {
    pthread_setname_np(pthread_self(), "sim_console");
    while (true) {
        const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd == -1) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            if (errno != EMFILE && errno != ENFILE) return;  // the destructor has shut it down
            usleep(100'000);
            continue;
        }
        const timeval patience = {kClientPatience, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
        ServeClient(fd);
        close(fd);
    }
}

void ConsoleServer::ServeClient(int fd) {
    std::string pending;
    char piece[4096];
    while (true) {
        const ssize_t got = recv(fd, piece, sizeof(piece), 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return;
        pending.append(piece, static_cast<size_t>(got));
        for (size_t end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
            const Reply reply = console_.Execute(std::string_view(pending).substr(0, end));
            pending.erase(0, end + 1);
            if (!SendAll(fd, Wire(reply))) return;
        }
        if (pending.size() > kMaxLine) {
            SendAll(fd, Wire(console_.Execute(pending)));  // refuses the line for its length
            return;
        }
    }
}

void StartPhone() {
    static std::once_flag once;
    std::call_once(once, [] {
        KeepAndroidLog();
        const char* const folder = getenv("QUARN_SIM_DIR");
        if (folder == nullptr || *folder == '\0') return;
        // The console and the server are never destroyed, since any thread may end the process.
        const auto& console = *new Console(folder);
        Modem::Instance().KeepSettings(console.folder());
        TakeUpClock(console.folder());
        // `setup` describes the phone, `scenario` what happens to it, and `override` changes
        // settings of the scenario.
        for (const char* const file : {"/setup", "/scenario", "/override"}) {
            console.RunScenario(console.folder() + file);
        }
        if (!(new ConsoleServer(console))->ok()) {
            __android_log_print(ANDROID_LOG_ERROR, "SIM", "no console in %s: %s", folder,
                                strerror(errno));
        }
    });
}

}  // namespace sim
