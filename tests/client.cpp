#include "client.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace test {

using quarn::protocol::kReplySize;

Client::Client(const char* name, int name_space, std::chrono::milliseconds limit)
    : fd(socket_local_client(name, name_space, SOCK_STREAM | SOCK_CLOEXEC)) {
    const timeval time = {.tv_sec = limit.count() / 1000, .tv_usec = limit.count() % 1000 * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof(time));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof(time));
}

void Client::Close() {
    if (fd >= 0) close(fd);
    fd = -1;
}

bool Client::Send(std::string_view bytes) const {
    // A child process that ends interrupts a call that has a time limit.
    return TEMP_FAILURE_RETRY(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL)) ==
           static_cast<ssize_t>(bytes.size());
}

void Client::EndSending() const { shutdown(fd, SHUT_WR); }

std::string Client::Receive(size_t count, int flags) const {
    if (fd < 0) return "<no connection>";
    std::string bytes(count, '\0');
    const ssize_t got = TEMP_FAILURE_RETRY(recv(fd, bytes.data(), count, flags));
    const bool late = got < 0 && errno == EAGAIN;
    bytes.resize(static_cast<size_t>(std::max(got, ssize_t{0})));
    return late ? bytes.append(kLate) : bytes;
}

std::string Client::Receive(size_t count) const {
    std::string bytes = Receive(count, MSG_WAITALL);
    // Also when the time limit passes, recv returns the bytes that have come.
    if (!bytes.empty() && bytes.size() < count && !bytes.ends_with(kLate)) {
        bytes += Receive(count - bytes.size());
    }
    return bytes;
}

std::string Client::ReceiveSome(size_t most) const { return Receive(most, 0); }

std::string Client::Reply() const {
    const std::string block = Receive(kReplySize);
    if (block.empty()) return std::string(kClosed);
    const std::string text = block.c_str();
    const bool padded = block.find_first_not_of('\0', text.size()) == std::string::npos;
    return block.size() == kReplySize && padded ? text : block;
}

std::string Client::Ask(const std::string& request) const {
    return Send(request + '\0') ? Reply() : std::string(kClosed);
}

}  // namespace test
