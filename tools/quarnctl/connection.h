// Connections to the daemon's two sockets.
#pragma once

#include <chrono>
#include <string>
#include <utility>

#include "commands.h"
#include "exit_status.h"

namespace quarnctl {

// Owns a descriptor.
class Descriptor {
  public:
    explicit Descriptor(int descriptor = -1) : fd(descriptor) {}
    ~Descriptor();
    Descriptor(Descriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    int get() const { return fd; }

  private:
    int fd;
};

// When a wait ends; none: never.
class Deadline {
  public:
    // `patience`: from now on; 0 or less: no end.
    explicit Deadline(std::chrono::seconds patience);
    // For poll: milliseconds left, -1 without an end.
    int Left() const;
    bool Passed() const { return Left() == 0; }

  private:
    bool endless;
    std::chrono::steady_clock::time_point end;
};

// Returns true if `fd` became readable in time.
bool WaitReadable(int fd, const Deadline& deadline);

// Connects to the socket of that name. The result is negative, with errno set, when nobody listens,
// and with EAGAIN when nobody accepts within `patience`.
Descriptor Connect(const char* name, std::chrono::seconds patience);

// The reason of a failed `Connect`, and what the user can try.
std::string CannotReach(int error);

// One connection to the command socket, made at the first request.
class Client {
  public:
    // `patience` replaces the one of every command; negative: none given.
    explicit Client(std::chrono::seconds given_patience) : given(given_patience) {}

    // Sends one request and waits for the whole reply. Returns kOk with the reply's text, or
    // kUnreachable with the reason in `why`.
    ExitStatus Ask(const Command& command, const std::string& request, std::string& reply,
                   std::string& why);

  private:
    ExitStatus Receive(std::chrono::seconds patience, std::string& reply, std::string& why);

    const std::chrono::seconds given;
    Descriptor fd;
};

// Returns true if the reply says that the request was served.
bool IsOk(const std::string& reply);
// Returns true if the reply carries a value, which goes into `value`.
bool HasValue(const std::string& reply, std::string& value);

}  // namespace quarnctl
