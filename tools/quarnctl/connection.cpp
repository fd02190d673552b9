#include "connection.h"

#include <cutils/sockets.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "control/protocol.h"

namespace quarnctl {

namespace protocol = quarn::protocol;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

namespace {

#ifdef __ANDROID__
constexpr const char* kNobodyListens = "is it running (ps -A | grep quarn)?";
constexpr const char* kNotAllowed =
    "may this process connect (in the device's policy it has to be a quarn_client; root on a debug "
    "build is)?";
#else
constexpr const char* kNobodyListens =
    "beside ./run, call it in the box: sim/inbox [--box DIR] build/release/tools/quarnctl ...; "
    "beside quarn-run: quarn-inbox [--box DIR] quarnctl ...";
constexpr const char* kNotAllowed = kNobodyListens;
#endif

constexpr const char* kHungUp =
    "the daemon hung up without an answer: it is ending, or serves ten clients already";

}  // namespace

Descriptor::~Descriptor() {
    if (fd >= 0) close(fd);
}

Deadline::Deadline(seconds patience)
    : endless(patience.count() <= 0), end(Clock::now() + patience) {}

int Deadline::Left() const {
    if (endless) return -1;
    const auto left = std::chrono::ceil<milliseconds>(end - Clock::now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, INT32_MAX));
}

bool WaitReadable(int fd, const Deadline& deadline) {
    while (true) {
        pollfd poll_fd = {fd, POLLIN, 0};
        const int ready = poll(&poll_fd, 1, deadline.Left());
        if (ready >= 0 || errno != EINTR) return ready > 0;
    }
}

Descriptor Connect(const char* name, seconds patience) {
    Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const timeval limit = {static_cast<time_t>(patience.count()), 0};
    if (fd.get() < 0 || setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) != 0 ||
        socket_local_client_connect(fd.get(), name, ANDROID_SOCKET_NAMESPACE_ABSTRACT,
                                    SOCK_STREAM) < 0) {
        return Descriptor();
    }
    return fd;
}

std::string CannotReach(int error) {
    const std::string why = "the daemon cannot be reached: ";
    if (error == EAGAIN) return why + "it is busy";
    const bool refused = error == EACCES || error == EPERM;
    return why + strerror(error) + "; " + (refused ? kNotAllowed : kNobodyListens);
}

ExitStatus Client::Ask(const Command& command, const std::string& request, std::string& reply,
                       std::string& why) {
    const seconds patience = given.count() >= 0 ? given : command.patience;
    if (fd.get() < 0) {
        fd = Connect(protocol::kCommandSocket, patience);
        if (fd.get() < 0) {
            why = CannotReach(errno);
            return kUnreachable;
        }
    }
    if (send(fd.get(), request.c_str(), request.size() + 1, MSG_NOSIGNAL) < 0) {
        why = kHungUp;
        return kUnreachable;
    }
    return Receive(patience, reply, why);
}

ExitStatus Client::Receive(seconds patience, std::string& reply, std::string& why) {
    std::array<char, protocol::kReplySize> block;
    const Deadline deadline(patience);
    for (size_t got = 0; got < block.size();) {
        if (!WaitReadable(fd.get(), deadline)) {
            why = "no answer within " + std::to_string(patience.count()) +
                  " s: the daemon is busy, perhaps with another client's copy";
            return kUnreachable;
        }
        const ssize_t n = recv(fd.get(), block.data() + got, block.size() - got, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            why = kHungUp;
            return kUnreachable;
        }
        got += static_cast<size_t>(n);
    }
    reply.assign(block.data(), strnlen(block.data(), block.size()));
    return kOk;
}

bool Client::HasHungUp() const {
    pollfd poll_fd = {fd.get(), POLLIN, 0};
    return fd.get() < 0 || poll(&poll_fd, 1, 0) > 0;  // the daemon sends nothing but replies
}

bool IsOk(const std::string& reply) { return reply == "ok" || reply.starts_with("ok,"); }

bool HasValue(const std::string& reply, std::string& value) {
    constexpr std::string_view kMark = "ok,";
    if (!reply.starts_with(kMark)) return false;
    value = reply.substr(kMark.size());
    return true;
}

}  // namespace quarnctl
