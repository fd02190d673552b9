// Addresses of socket files whose path may be too long for a sockaddr_un.
#pragma once

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace sim {

constexpr const char* kConsoleSocketName = "console.socket";

// The address of a socket file in a folder. It uses an open descriptor of the folder, so it is
// valid only in this process and while the object exists. If the folder cannot be opened, `ok()` is
// false and errno is set.
class SocketAddress {
  public:
    SocketAddress(const std::string& folder, const char* name)
        : folder_fd_(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
        address_.sun_family = AF_UNIX;
        snprintf(address_.sun_path, sizeof(address_.sun_path), "/proc/self/fd/%d/%s", folder_fd_,
                 name);
    }
    ~SocketAddress() {
        if (folder_fd_ != -1) close(folder_fd_);
    }
    SocketAddress(const SocketAddress&) = delete;
    SocketAddress& operator=(const SocketAddress&) = delete;

    bool ok() const { return folder_fd_ != -1; }
    const char* path() const { return address_.sun_path; }
    const sockaddr* address() const { return reinterpret_cast<const sockaddr*>(&address_); }
    static constexpr socklen_t size() { return sizeof(sockaddr_un); }

  private:
    const int folder_fd_;
    sockaddr_un address_ = {};
};

}  // namespace sim
