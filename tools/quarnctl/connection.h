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

// The end of a wait. May be endless.
class Deadline {
  public:
    // Ends `patience` from now. 0 or less means that it never ends.
    explicit Deadline(std::chrono::seconds patience);
    // Returns the remaining milliseconds for poll, or -1 if the deadline is endless.
    int Left() const;
    bool Passed() const { return Left() == 0; }

  private:
    bool endless;
    std::chrono::steady_clock::time_point end;
};

// Blocks until `fd` is readable or `deadline` has passed. Returns true if `fd` is readable.
bool WaitReadable(int fd, const Deadline& deadline);

// Connects to the socket `name`. On failure the descriptor is negative and errno is set. EAGAIN
// means that the daemon did not accept the connection within `patience`.
Descriptor Connect(const char* name, std::chrono::seconds patience);

// Returns why `Connect` failed with errno `error`, and what the user can try.
std::string CannotReach(int error);

// A connection to the command socket. It is made at the first request.
class Client {
  public:
    // `given_patience` replaces the time limits of all commands, unless it is negative.
    explicit Client(std::chrono::seconds given_patience) : given(given_patience) {}

    // Sends one request and waits for the complete reply. Returns kOk and sets `reply`, or returns
    // kUnreachable and sets `why`.
    ExitStatus Ask(const Command& command, const std::string& request, std::string& reply,
                   std::string& why);
    // Returns true if the daemon closed the connection, or if there is no connection yet.
    bool HasHungUp() const;

  private:
    ExitStatus Receive(std::chrono::seconds patience, std::string& reply, std::string& why);

    const std::chrono::seconds given;
    Descriptor fd;
};

// Returns true if the reply says that the daemon carried out the request.
bool IsOk(const std::string& reply);
// Returns true and sets `value` if the reply has a value.
bool HasValue(const std::string& reply, std::string& value);

}  // namespace quarnctl
