// A connection to a local socket of the daemon or of the simulated phone.
#pragma once

#include <cutils/sockets.h>

#include <chrono>
#include <string>
#include <string_view>

#include "control/protocol.h"

namespace test {

// No call blocks for longer than the time limit. Not thread-safe, but one thread may send while
// another one receives.
class Client {
  public:
    explicit Client(const char* name = quarn::protocol::kCommandSocket,
                    int name_space = ANDROID_SOCKET_NAMESPACE_ABSTRACT,
                    std::chrono::milliseconds limit = std::chrono::seconds(20));
    ~Client() { Close(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void Close();
    // Returns false if there is no connection, or if the peer does not read within the time limit.
    bool Send(std::string_view bytes) const;
    // The peer reads the end of what was sent. It may still answer.
    void EndSending() const;
    // Returns `count` bytes, or fewer if the peer closes the connection. If the time limit passes
    // first, kLate follows the bytes that came. Without a connection returns "<no connection>".
    std::string Receive(size_t count) const;
    // As Receive, but returns as soon as there are any bytes.
    std::string ReceiveSome(size_t most) const;
    // Returns the text of one reply block of the daemon, or kClosed. A block that is not padded
    // with zeros, or not whole, is returned as it is.
    std::string Reply() const;
    std::string Ask(const std::string& request) const;

    static constexpr std::string_view kClosed = "<closed>";
    static constexpr std::string_view kLate = "<time limit>";

  private:
    std::string Receive(size_t count, int flags) const;

    int fd;  // -1: no connection
};

// A client of the notification socket.
struct Subscriber : Client {
    Subscriber() : Client(quarn::protocol::kNotifySocket) {}
};

}  // namespace test
